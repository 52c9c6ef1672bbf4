/// The store of portable-part packages: which families there are, where the package of each is kept, and how
/// an imported one takes its place. What is kept there is read by PpFirmware.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread.
namespace PpStore {

/// One family of portable parts.
struct Family {
  const char* pageType;     ///< as package lists name it
  UPGRADETYPE type;         ///< selects its stored version in the version record
  const char* directory;    ///< where its package is kept; ends in "/"
  const char* namePattern;  ///< which files there are its packages: ECMAScript, whole match
};

inline constexpr mode_t kDirectoryMode = 0755;  ///< of the families' directories

/// The family of a page type; null for an unknown one.
const Family* Find(const std::string& pageType);

/// Whoever acts on what the store holds keeps this meanwhile, as long as an unpacking takes. Hold no lock
/// that Replace's caller may want.
CMutex& Mutex();

/// True for a regular file that is named as a package of `family`; links are none.
bool IsPackage(const Family& family, const std::string& path);

/// The names of the family's packages, in no order. `root` stands before its directory.
std::vector<std::string> PackageNames(const Family& family, const std::string& root = "") REQUIRES(Mutex());

/// Deletes the family's old package and moves the package `source` in its place, under its own name: without
/// a failure, a power cut does not take it back. After one the store may hold neither.
Failure Replace(const Family& family, const std::string& source) EXCLUDES(Mutex());

}  // namespace PpStore

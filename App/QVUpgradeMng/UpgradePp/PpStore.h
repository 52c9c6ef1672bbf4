/// The store of portable-part packages: one package per family, in which portable-part handling looks for
/// newer firmware. Filled by the common path of a package, on a source's thread; read when the firmware of
/// portable parts is loaded.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace PpStore {

/// One family of portable parts.
struct Family {
  const char* pageType;     ///< as package lists name it
  UPGRADETYPE type;         ///< selects its stored version in the version record
  const char* directory;    ///< where its package is kept; ends in "/"
  const char* namePattern;  ///< which files there are its packages: ECMAScript, whole match
};

/// The family of a page type; null for an unknown one.
const Family* Find(const std::string& pageType);

/// Whoever reads the store and acts on what is there holds it meanwhile: Replace waits, as long as an
/// unpacking takes. Any thread; not taken twice, and with no lock held that Replace's caller may want.
std::unique_lock<std::mutex> Hold();

/// True for a regular file that is named as a package of `family`; links are none.
bool IsPackage(const Family& family, const std::string& path);

/// The names of the regular files in `directory` that are packages of `family`, in no order; links are none.
std::vector<std::string> PackageNames(const std::string& directory, const Family& family);

/// Deletes the family's old package and moves the package `source` in its place, under its own name: when
/// this succeeds, a power cut does not take it back. After a failure the store may hold neither. Holds the
/// store.
Failure Replace(const Family& family, const std::string& source);

}  // namespace PpStore

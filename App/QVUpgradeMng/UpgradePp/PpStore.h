/// The store of portable-part packages: which families there are, how an imported package takes the place of
/// the old one, and what firmware the store holds for the parts. The import of packages writes it, UpgradePp
/// reads it.
#pragma once

#include <string>

#include "UpgradePackage/Reasons.h"
#include "UpgradePp/PpTypes.h"

/// Any thread. Replace and Load take turns: each waits for the other, as long as an unpacking takes.
namespace PpStore {

/// One family of portable parts.
struct Family {
  const char* pageType;     ///< as package lists name it
  const char* directory;    ///< where its package is kept; ends in "/"
  const char* namePattern;  ///< which files there are its packages: ECMAScript, whole match
};

/// The family of a page type; null for an unknown one.
const Family* Find(const std::string& pageType);

/// True for a regular file that is named as a package of `family`; links are none.
bool IsPackage(const Family& family, const std::string& path);

/// Deletes the family's old package and moves the package `source` in its place, under its own name: without
/// a failure, a power cut does not take it back. After one the store may hold neither.
Failure Replace(const Family& family, const std::string& source);

/// Unpacks and reads all families and the file of versions; logs what is missing. With an empty file name are
/// the 7204s without a package, and types that have but an entry in the file of versions: such a part can be
/// paired. Of several packages of one family the one with the highest version counts. `root` stands before
/// every path.
///
/// Writes nothing but the unpacked 7308 archive, and the directories when they are missing. Ends early at the
/// calling thread's stop. Not while an upgrade reads what is unpacked.
UpgPp::PpFwMap Load(const std::string& root = "");

}  // namespace PpStore

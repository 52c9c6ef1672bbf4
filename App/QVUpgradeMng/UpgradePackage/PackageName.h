/// The names of packages: the strict ones of the base station's archives, and those of downloads. Used by the
/// common path of a package and the cloud source; the store of portable-part packages, which keeps patterns
/// of its own, matches with it. Stateless; any thread.
#pragma once

#include <string>

#include "UpgradeFrame/UpgradeTypes.h"

namespace PackageName {

/// The pattern (ECMAScript, whole match) that a package from `source` named `fileName` must have; null for a
/// source whose names are not checked.
const char* Pattern(UPGRADEACCESSTYPE source, const std::string& fileName);

/// True when the whole of `name` matches `pattern`; false for a name over 255 bytes or with control
/// characters.
bool Matches(const std::string& name, const char* pattern);

/// The software version in a name that matched its pattern, for example "S4.0.9.10".
std::string SoftVersion(const std::string& fileName);

/// True when the name ends in ".zip", which decides how the unpacker reads a file.
bool IsZip(const std::string& fileName);

/// True for the path of an unfinished download or of one of its records.
bool IsUnfinished(const std::string& path);
/// True for a name under which the cloud's package may be stored beside the others: that of a zip, without a
/// directory or a wildcard, and not hidden.
bool IsDownloadName(const std::string& fileName);

}  // namespace PackageName

/// One archive of a package, the package's own among them: its digest is compared, and it is unpacked. What
/// it holds is hostile until it was checked. Stateless; any thread.
#pragma once

#include <string>

#include "UpgradePackage/PackageManifest.h"
#include "UpgradePackage/Reasons.h"

namespace PackageArchive {

/// Compares the digest of the file with the one that stands in `element`.
Failure _CheckFileMd5Sum(const std::string& path, const PackageManifest::Element& element);

/// The unpacker's command line.
std::string UnpackCommand(const std::string& archive, const std::string& directory);
/// Runs it and syncs. A manifest that an earlier package left in `directory` is removed first, so that it
/// cannot speak for this one. A failure gets `reason`.
Failure Unpack(const std::string& archive, const std::string& directory, Reason reason);

}  // namespace PackageArchive

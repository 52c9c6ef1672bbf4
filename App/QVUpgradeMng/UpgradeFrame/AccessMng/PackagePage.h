/// The page: the directory into which a package is unpacked, with one sub-directory a part, and where the
/// frame finds it. What its manifest and its archives hold is hostile until it was checked. Stateless; the
/// thread of the one source that holds the claim.
#pragma once

#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/PackageManifest.h"
#include "UpgradePackage/Reasons.h"

namespace PackagePage {

inline constexpr unsigned kMode = 0765;
/// Removed for the space that they take.
inline constexpr const char* kCoreDumps = "/firmware/coredump";

/// The path of something in the page root.
std::string Path(const std::string& name);

/// Empties the page root, creates its sub-directories and frees the space that old core dumps take. What
/// cannot be done is logged.
void InitUpgradeFilePath();
/// Removes the page root; a failure is logged.
void Remove();

/// Reads the package's manifest.
Failure ReadManifest(std::vector<PackageManifest::Element>& elements);
/// False, logged, for an element that is for another device.
bool IsForUnit(const PackageManifest::Element& element);
/// Refuses the installed version, and logs it: at the package's name, and at its element.
Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed);

/// Compares the digest of an archive with the one that stands in its `element`.
Failure _CheckFileMd5Sum(const std::string& path, const PackageManifest::Element& element);
/// The unpacker's command line.
std::string UnpackCommand(const std::string& archive, const std::string& directory);
/// Runs it and syncs. A manifest that an earlier package left in `directory` is removed first, so that it
/// cannot speak for this one. A failure gets `reason`.
Failure Unpack(const std::string& archive, const std::string& directory, Reason reason);

}  // namespace PackagePage

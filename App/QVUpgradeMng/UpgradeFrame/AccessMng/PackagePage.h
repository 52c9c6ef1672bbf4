/// The page: the directory into which a package is unpacked, with one sub-directory a part, and where the
/// frame finds it. Stateless; the thread of the one source that holds the claim.
#pragma once

#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/PackageManifest.h"
#include "UpgradePackage/Reasons.h"

namespace PackagePage {

inline constexpr unsigned kMode = 0765;

/// The path of something in the page root.
std::string Path(const std::string& name);

/// Empties the page root, creates its sub-directories and frees the space that old core dumps take. What
/// cannot be done is logged.
void InitUpgradeFilePath();
void RemoveCoreDumps();
/// Removes the page root; a failure is logged.
void Remove();

/// Reads the package's manifest.
Failure ReadManifest(std::vector<PackageManifest::Element>& elements);
/// False, logged, for an element that is for another device.
bool IsForUnit(const PackageManifest::Element& element);
/// Refuses the installed version, and logs it: at the package's name, and at its element.
Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed);

}  // namespace PackagePage

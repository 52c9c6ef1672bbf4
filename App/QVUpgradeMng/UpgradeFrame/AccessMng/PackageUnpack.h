/// The first steps of a package: its name is checked, and it is unpacked into the page. A source calls the
/// one that fits it, on its own thread, with the claim held. Once that thread was asked to stop no further
/// command is run, and the step fails.
#pragma once

#include <string>

#include "UpgradeFrame/AccessMng/AccessContext.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace PackageUnpack {

/// Finds the package in the directory `path` (UP_UDISK), or takes the package `path` (UP_WEBS), and unpacks
/// it into the page root; it refuses an installed version.
Failure Unpack(const AccessContext& access, UPGRADEACCESSTYPE accessType, const std::string& path);

/// Unpacks the package `path` (UP_WEBS, UP_OTA) in the download directory, copies what the manifest names
/// into the page root and deletes the package. `checkVersion` refuses an installed version.
Failure UnpackWebAndOTA(const AccessContext& access, UPGRADEACCESSTYPE accessType, const std::string& path,
                        bool checkVersion);

Failure _CheckPackName(DeviceVersions& versions, UPGRADEACCESSTYPE accessType, const std::string& fileName,
                       bool checkVersion);

}  // namespace PackageUnpack

/// The version file of the partition that an upgrade has written: what is installed there, and what the cloud
/// said of the package. The frame writes it at the end of an upgrade.
#pragma once

#include <string>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace InstalledRecord {

/// Writes the parts' versions of `versions` into the file of `partition`, "/app_A" or "/app_B", and the new
/// overall version when the upgrade is `complete`, else the old one. Fails when nothing is mounted there.
Failure _WirteNewVersion(const std::string& partition, const AllVersion& versions, bool complete,
                         UPGRADEACCESSTYPE source);

}  // namespace InstalledRecord

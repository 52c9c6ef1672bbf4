/// The installed-version file "quorvalen/version.json" and the version report to the panel: the frame writes
/// the next partition's file, DeviceVersions the running partition's. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace VersionRecord {

/// {"totalVersion", "subModulesVersion"} as the file and the panel's version report hold them.
Json::Value ToJson(const OTAVersion& overall, const QVUpgradeVersionInfo& versions);

/// Reads a version file into m_oldOverallVer and m_SubmodulesVer; a missing or unusable member takes its
/// default. `otaList`, when wanted, gets the file's "otaList" or null. False when the file itself cannot be
/// read or holds no object: all are defaults then.
bool Read(const std::string& path, AllVersion& versions, Json::Value* otaList = nullptr);

/// Writes the file of the partition that an upgrade has written, "/app_A" or "/app_B": the parts' versions of
/// `versions` and, when the upgrade is `complete`, the new overall version and what the cloud said of a
/// package from there; else the old overall version. Fails when nothing is mounted there.
Failure _WirteNewVersion(const std::string& partition, const AllVersion& versions, bool complete,
                         UPGRADEACCESSTYPE source);

}  // namespace VersionRecord

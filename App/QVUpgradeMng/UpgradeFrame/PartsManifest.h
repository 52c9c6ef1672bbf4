/// The list of parts in an unpacked package, and which of them this unit is to upgrade. The frame reads it at
/// the begin of an upgrade.
#pragma once

#include <json/json.h>

#include <map>
#include <string>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace PartsManifest {

/// Reads the list of the package that is in the page.
Failure Read(Json::Value& entries);

/// The station's parts among `entries` whose version differs from the `installed` one, as records of an
/// upgrade of `partition`, "/app_A" or "/app_B". An entry that cannot be used is logged and left out.
std::map<UPGRADETYPE, QVUpgradingInfo> Select(Json::Value entries, const QVUpgradeVersionInfo& installed,
                                              const std::string& partition);

}  // namespace PartsManifest

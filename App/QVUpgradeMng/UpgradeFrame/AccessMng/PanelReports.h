/// What the panel hears of a package before the frame takes it. Stateless; any thread.
#pragma once

#include "UpgradeIpcMsg/PannelIpc/DeviceUpgradeUIIPC.h"
#include "UpgradePackage/Reasons.h"

namespace PanelReports {

/// A status of the base station, with how much of it is done.
void Status(UiUpgradeStatus status, int percent = 0);
void BatteryLow();
/// What a package shows that ends for a reason of this row.
void Refusal(Reasons::Panel panel);

}  // namespace PanelReports

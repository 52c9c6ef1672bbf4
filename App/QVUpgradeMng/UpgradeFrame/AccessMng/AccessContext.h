/// What the package sources and their steps work with. Put together by the access frame, which owns the
/// sources; everything named here outlives them.
#pragma once

#include <functional>

#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/PackageClaim.h"

class QVUpgradeFrameBase;

struct AccessContext {
  QVUpgradeFrameBase* frame;
  DeviceVersions& versions;
  PackageClaim& claim;
  BatteryLevel& battery;
  /// The store of portable-part packages may have changed. The source's thread calls it.
  std::function<void()> ppImported;
};

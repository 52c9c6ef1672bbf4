/// Keeps an installed package where the web page offers it. Used by the frame after the partition switch.
#pragma once

#include "UpgradeFrame/UpgradeTypes.h"

namespace PackageKeeper {

/// Replaces the package that is kept by the one just installed, from the page or from the download directory.
/// A step that fails is logged and the rest done.
void _SaveUpgradePack(UPGRADEACCESSTYPE source);

}  // namespace PackageKeeper

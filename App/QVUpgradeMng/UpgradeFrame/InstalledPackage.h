/// What of an installed package must not go with the page: the package itself, which the web page offers, and
/// the boot loader that it may bring. Used by the frame after the partition switch, before the reboot.
#pragma once

#include "UpgradeFrame/UpgradeTypes.h"

namespace InstalledPackage {

/// Replaces the package that is kept by the one just installed, from the page or from the download directory.
/// A step that fails is logged and the rest done.
void _SaveUpgradePack(UPGRADEACCESSTYPE source);

/// Writes the package's boot loader, which lies at the begin of the eMMC and has no second copy; a stop ends
/// its pauses and not the work. False when the package has none or, logged, it could not be written.
bool _UpgradeUboot();

}  // namespace InstalledPackage

/// The boot loader at the begin of the eMMC, which a package may bring among its system files. It has no
/// second copy. Used by the frame after the partition switch.
#pragma once

namespace BootLoader {

/// Writes the package's boot loader; a stop ends its pauses and not the work. False when the package has none
/// or, logged, it could not be written.
bool _UpgradeUboot();

}  // namespace BootLoader

/// The last step of a package: its parts' archives go where the frame looks for them. The source's thread.
#pragma once

#include "UpgradePackage/Reasons.h"

namespace PackageMove {

/// Moves the parts' archives from the staging directory to their page directories.
Failure MovePack();

}  // namespace PackageMove

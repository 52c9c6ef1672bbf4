/// The second step of a package: what the page root holds is held against its manifest and against the
/// installed versions, and its parts' archives go where the frame looks for them. The source's thread; once
/// that was asked to stop no further command is run, and the step fails.
#pragma once

#include "UpgradeFrame/AccessMng/AccessContext.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

namespace PackageCheck {

/// Checks all elements against the `current` versions: imports portable-part packages, and unpacks the base
/// station's archive into the staging directory. The result is that of the last base-station element, or of
/// the first with which the unit cannot go on.
Failure CheckPack(const AccessContext& access, const AllVersion& current);

/// Moves the parts' archives from the staging directory to their page directories. After a failure those that
/// stand before in the list are moved.
Failure MovePack();

}  // namespace PackageCheck

/// The import of portable-part packages: what a package brings for portable parts goes into their store, and
/// its versions into the record. The check of a package calls it, on the source's thread.
#pragma once

#include "UpgradeFrame/AccessMng/AccessContext.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/PackageManifest.h"

namespace PpImport {

/// Imports one archive of portable-part packages, and their versions into `versions` and the unit's record.
/// False, logged, when that failed, which does not end the package; what was imported before stays.
bool _CheckPpPack(const AccessContext& access, AllVersion& versions, const PackageManifest::Element& item);

}  // namespace PpImport

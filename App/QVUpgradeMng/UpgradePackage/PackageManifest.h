/// What stands in the lists of a package: the elements of its manifest, and the pages of the archives that
/// these name. Any type and any text can stand there; what comes out of here is usable, or its failure says
/// why not. The daemon judges with it, and any program that only looks at a package. Nothing is read from a
/// disk, changed or logged. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Parts.h"
#include "UpgradePackage/Reasons.h"

namespace PackageManifest {

/// Whom an archive of the package is for: the base station, portable parts, another device.
enum class Kind { Station, Portable, Other };

/// One element of a manifest's "otaList".
struct Element {
  Kind kind = Kind::Other;
  std::string type;      ///< as it stands there
  OTAVersion version;    ///< of a base-station archive
  std::string fileName;  ///< of its archive in the package; empty when that is no plain name of a zip
  std::string md5;       ///< of its archive, as it stands there
  Failure unusable;      ///< why the element cannot be taken; empty when it can
};

/// One entry of the list in an archive of a kind.
struct Page {
  enum class Use {
    Wanted,
    Incomplete,  ///< passed over: a key is missing
    Unknown,     ///< passed over: no part of this kind
  };
  Use use = Use::Incomplete;
  std::string pageType;
  const Parts::Part* part = nullptr;  ///< of a wanted page
  std::string version;
  std::string pageName;  ///< plain
};

/// The elements of a package's manifest, unusable ones too.
Failure ReadElements(const Json::Value& manifest, std::vector<Element>& elements);
/// The pages in the list of an archive of `kind`. A failure ends the list: `pages` has those before.
Failure ReadPages(const Json::Value& list, Kind kind, std::vector<Page>& pages);

/// Only the installed version is refused: a package may take the unit back.
Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed);
Failure CheckHardVersion(const Element& element, const OTAVersion& installed);
/// Whether an archive has the digest that stands in its element; an empty one, of a file that cannot be read,
/// matches nothing.
Failure CheckDigest(const Element& element, const std::string& digest);

}  // namespace PackageManifest

/// What stands in the lists of a package: the elements of its manifest, the pages of a base-station archive,
/// the packages of a portable-part archive. Any type and any text can stand there; what comes out of here is
/// usable, or its failure says why not. The common path of a package and programs that only look at one judge
/// with it. Nothing is read from a disk, changed or logged. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Parts.h"
#include "UpgradePackage/Reasons.h"

namespace PackageManifest {

inline constexpr const char* kStation = "RRU";
inline constexpr const char* kPortable = "PP";

/// One element of a manifest's "otaList".
struct Element {
  std::string type;      ///< kStation, kPortable, or any other text: not for this unit
  OTAVersion version;    ///< of a base-station archive
  std::string fileName;  ///< of its archive in the package; empty when that is no plain name of a zip
  std::string md5;       ///< of its archive, as it stands there
  Failure unusable;      ///< why the element cannot be taken; empty when it can

  [[nodiscard]] bool IsForUnit() const { return type == kStation || type == kPortable; }
};

/// One entry of the list of pages in a base-station archive.
struct Page {
  enum class Use {
    Wanted,
    Incomplete,  ///< passed over: a key is missing
    Unknown,     ///< passed over: no part of the base station
  };
  Use use = Use::Incomplete;
  const Parts::Part* part = nullptr;  ///< of a wanted page
  std::string version;
  std::string pageName;  ///< plain
};

/// One entry of the list in a portable-part archive.
struct PortablePage {
  std::string pageType;
  const Parts::Part* part = nullptr;  ///< null for an unknown type, which is passed over
  std::string version;
  std::string pageName;  ///< plain
};

/// True for a version that may be kept and shown: text, and not empty.
bool GetVersion(const Json::Value& item, const char* key, std::string& version);

/// The elements of a package's manifest, unusable ones too.
Failure ReadElements(const Json::Value& manifest, std::vector<Element>& elements);

/// Only the installed version is refused: a package may take the unit back.
Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed);
/// A base-station archive is for one kind of hardware.
Failure CheckHardVersion(const Element& element, const OTAVersion& installed);
/// Whether its archive has the digest that stands in the element; an empty one, of a file that cannot be
/// read, matches nothing.
Failure CheckDigest(const Element& element, const std::string& digest);

/// The pages in the list of a base-station archive. A failure ends the list: `pages` has those before.
Failure ReadPages(const Json::Value& list, std::vector<Page>& pages);
/// The same for a portable-part archive.
Failure ReadPortablePages(const Json::Value& list, std::vector<PortablePage>& pages);

}  // namespace PackageManifest

/// Firmware of portable parts: the files that a base station holds for them, alone or as pages of a package.
/// Used by tests and scenarios, inside the box.
#pragma once

#include <string>
#include <vector>

#include "VirtualStation/Chips/ChipImages.h"

namespace station {

struct PpPackage {
  std::string type;     ///< page type: "7308", "7204" or "7204_EVT"
  std::string version;  ///< as the file name has it: "S1.0.2.5"
  std::string fileName;
  std::string content = {};                ///< of the file
  Bytes application = {};                  ///< 7308: the image in it
  std::vector<FlashBlock> radio = {};      ///< 7308: what the radio module's flash must hold
  Bytes preLoader = {}, flashLoader = {};  ///< 7308: of the radio module
};

/// A zip with an application of `bytes` and a radio firmware that calls itself `radioVersion`.
PpPackage Make7308Package(const std::string& version, const std::string& radioVersion = "V2.0.0.01",
                          std::size_t bytes = 10001);
/// An ".ota" file for hardware "H100" (DVT) or "H000" (EVT).
PpPackage Make7204Package(const std::string& version, const std::string& hardware = "H100");

/// Puts it where the base station keeps it, in place of what lies there of its type.
void Install(const PpPackage& package);

/// What "/config/pp_ver.json" says of one family.
struct PpVersionEntry {
  int type;
  std::string software, hardware, radio;
};
/// By default every family, the 7308's radio at "V2.0.0.01".
void WritePpVersions(const std::vector<PpVersionEntry>& entries = {{7303, "S1.0.0.02", "H100", "V1.0.0.01"},
                                                                   {7308, "S1.0.2.05", "H100", "V2.0.0.01"},
                                                                   {7204, "S1.0.3.01", "H100", "V1.0.0.01"},
                                                                   {7205, "S1.0.3.01", "H000", "V1.0.0.01"}});

}  // namespace station

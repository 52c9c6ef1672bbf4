/// The firmware images of the chips and the pages that carry them. Used by PackageBuilder, and by Chips to
/// know what a memory must hold.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "VirtualStation/Chips/Bytes.h"

namespace station {

/// Bytes that belong at an address.
struct FlashBlock {
  std::uint32_t address = 0;
  Bytes data;
};

/// What goes into an RTX page.
struct RtxContent {
  std::size_t preLoaderBytes = 1024;
  std::size_t flashLoaderBytes = 4096;
  /// In the order in which the HEX file names them: addresses ascend within a block. By default three with
  /// gaps: one of an odd length, one of a sector, one across a 64 KiB border.
  std::vector<FlashBlock> blocks;
  bool carriageReturns = false;  ///< lines end in CR LF
  bool otherRecords = false;     ///< records of types 2, 3 and 5 too, which change nothing
  std::function<void(std::string& hex)> editHex = {};
};

/// Deterministic bytes, different for each `seed`.
Bytes RandomBytes(std::size_t size, const std::string& seed);
/// The default blocks of an RTX firmware of this version.
std::vector<FlashBlock> DefaultRtxBlocks(const std::string& version);
/// An Intel HEX file.
std::string IntelHex(const RtxContent& content);
/// The three files of a radio firmware, by name; `content` gets the default blocks when it has none.
using RtxFiles = std::map<std::string, std::string>;
RtxFiles MakeRtxFiles(const std::string& version, RtxContent& content);

/// Memory around `blocks` as it must be: every block and the rest of its last sector, counted from its start,
/// which is erased where no other block lies.
std::vector<FlashBlock> ErasedAround(const std::vector<FlashBlock>& blocks);

}  // namespace station

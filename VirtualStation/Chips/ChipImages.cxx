/// Generates the images of the chips: the same bytes for the same version at each run.
#include "VirtualStation/Chips/ChipImages.h"

#include <algorithm>
#include <optional>
#include <random>

#include "VirtualStation/Chips/FlashModel.h"

namespace station {
namespace {

enum RecordType : std::uint8_t { kData, kEnd, kSegment, kStartSegment, kLinear, kStartLinear };
constexpr std::size_t kBytesPerLine = 16;
constexpr std::size_t kBank = 0x10000;

/// ":", then count, offset, type, data and check value in digits.
std::string Record(std::uint8_t type, std::uint32_t offset, const Bytes& data) {
  Bytes bytes = {static_cast<std::uint8_t>(data.size()), static_cast<std::uint8_t>(offset >> 8U),
                 static_cast<std::uint8_t>(offset), type};
  bytes.insert(bytes.end(), data.begin(), data.end());
  unsigned sum = 0;
  for (const std::uint8_t byte : bytes) {
    sum += byte;
  }
  bytes.push_back(static_cast<std::uint8_t>(0x100U - (sum & 0xFFU)));
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string text = ":";
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text;
}

}  // namespace

Bytes RandomBytes(std::size_t size, const std::string& seed) {
  std::seed_seq sequence(seed.begin(), seed.end());
  std::mt19937 random(sequence);
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random() >> 8U); });
  return bytes;
}

std::vector<FlashBlock> DefaultRtxBlocks(const std::string& version) {
  return {{0x0, RandomBytes(5001, version + "a")},
          {0x4000, RandomBytes(4096, version + "b")},
          {0xF000, RandomBytes(8192, version + "c")}};
}

std::string IntelHex(const RtxContent& content) {
  std::string text;
  const auto add = [&](std::uint8_t type, std::uint32_t offset, const Bytes& data) {
    text += Record(type, offset, data) + (content.carriageReturns ? "\r\n" : "\n");
  };
  if (content.otherRecords) {
    add(kSegment, 0, {0, 0});
    add(kStartSegment, 0, {0, 0, 0, 0});
    add(kStartLinear, 0, {0, 0, 0, 0});
  }
  std::optional<std::uint32_t> bank;
  for (const FlashBlock& block : content.blocks) {
    for (std::size_t done = 0; done < block.data.size();) {
      const auto address = static_cast<std::uint32_t>(block.address + done);
      if (bank != address / kBank) {
        bank = address / kBank;
        add(kLinear, 0, {static_cast<std::uint8_t>(*bank >> 8U), static_cast<std::uint8_t>(*bank)});
      }
      const std::size_t count = std::min({kBytesPerLine, block.data.size() - done, kBank - address % kBank});
      const auto begin = block.data.begin() + static_cast<std::ptrdiff_t>(done);
      add(kData, address % kBank, Bytes(begin, begin + static_cast<std::ptrdiff_t>(count)));
      done += count;
    }
  }
  add(kEnd, 0, {});
  return text;
}

RtxFiles MakeRtxFiles(const std::string& version, RtxContent& content) {
  if (content.blocks.empty()) {
    content.blocks = DefaultRtxBlocks(version);
  }
  std::string hex = IntelHex(content);
  if (content.editHex) {
    content.editHex(hex);
  }
  const Bytes preLoader = RandomBytes(content.preLoaderBytes, version + "pre");
  const Bytes flashLoader = RandomBytes(content.flashLoaderBytes, version + "flash");
  return {{"rtx-pre-loader.bin", {preLoader.begin(), preLoader.end()}},
          {"rtx-flash-loader.bin", {flashLoader.begin(), flashLoader.end()}},
          {"QV_K9031_RTX_" + version + ".spihex", hex}};
}

std::vector<FlashBlock> ErasedAround(const std::vector<FlashBlock>& blocks) {
  std::vector<FlashBlock> ranges;
  for (const FlashBlock& block : blocks) {
    const std::size_t sectors = (block.data.size() + FlashModel::kSectorSize - 1) / FlashModel::kSectorSize;
    FlashBlock range = {block.address, Bytes(sectors * FlashModel::kSectorSize, 0xFF)};
    for (const FlashBlock& other : blocks) {
      for (std::size_t i = 0; i < other.data.size(); ++i) {
        const std::size_t offset = other.address + i - range.address;
        if (other.address + i >= range.address && offset < range.data.size()) {
          range.data[offset] = other.data[i];
        }
      }
    }
    ranges.push_back(std::move(range));
  }
  return ranges;
}

}  // namespace station

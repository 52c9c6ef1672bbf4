// Firmware files, and what they mean for the flash: blocks, sectors, and the check value after programming.
#include "UpgradeFrame/RtxSubmodules/RtxFirmware.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"

namespace {

using Rtx::Bytes;
using Rtx::FwData_t;

const std::string kEnd = ":00000001FF\n";

std::string Line(uint8_t type, uint16_t offset, const Bytes& data) {
  Bytes content = {static_cast<uint8_t>(data.size()), static_cast<uint8_t>(offset >> 8),
                   static_cast<uint8_t>(offset), type};
  content.insert(content.end(), data.begin(), data.end());
  content.push_back(static_cast<uint8_t>(0U - std::accumulate(content.begin(), content.end(), 0U)));
  std::string line = ":";
  for (const uint8_t byte : content) line += FormatText("%02X", byte);
  return line + "\n";
}

// Records of 32 bytes; the address's upper half in front and wherever it changes.
std::string HexOf(uint32_t address, const Bytes& data) {
  std::string text;
  for (size_t at = 0; at < data.size(); at += 32) {
    const auto here = static_cast<uint32_t>(address + at);
    if (at == 0 || here % 0x10000 < 32) {
      text += Line(4, 0, {static_cast<uint8_t>(here >> 24), static_cast<uint8_t>(here >> 16)});
    }
    const auto from = data.begin() + static_cast<long>(at);
    text += Line(0, static_cast<uint16_t>(here),
                 Bytes(from, from + static_cast<long>(std::min<size_t>(32, data.size() - at))));
  }
  return text;
}

Bytes Pattern(size_t size) {
  Bytes data(size);
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 256);
  return data;
}

uint32_t Crc(const Bytes& flash) {
  return static_cast<uint32_t>(crc32(0, flash.data(), static_cast<uInt>(flash.size())));
}

std::deque<FwData_t> Read(const std::string& text) {
  std::deque<FwData_t> blocks;
  EXPECT_TRUE(Rtx::IntelHexReader().Read(text, "test", blocks));
  return blocks;
}

std::string ErrorOf(const std::string& line) {
  Rtx::HexRecord_t record;
  return Rtx::IntelHexReader::_ParseHexLine(line, record);
}

TEST(IntelHexReaderTest, EachMalformedLineHasItsOwnMessage) {
  EXPECT_EQ(ErrorOf(""), "Empty line!");
  EXPECT_EQ(ErrorOf("00000001FF"), "Hex file mark error!ErrVal:0");
  EXPECT_EQ(ErrorOf(":0000000GFF"), "Convert error!");
  EXPECT_EQ(ErrorOf(":00000001F"), "Convert error!");
  EXPECT_EQ(ErrorOf(":"), "Empty content!");
  EXPECT_EQ(ErrorOf(":00"), "Error content len!Size:1, Len:0");
  EXPECT_EQ(ErrorOf(":020000040800"), "Error content len!Size:6, Len:2");
  EXPECT_EQ(ErrorOf(":0000000100FF"), "Error content len!Size:6, Len:0");
  EXPECT_EQ(ErrorOf(":00000001FE"), "Error checksum!ReadVal:0xFE, CalcuVal:0xFF");
}

TEST(IntelHexReaderTest, FileThatIsNotWholeGivesNothing) {
  const std::string data = Line(0, 0, {1, 2});
  const std::vector<std::string> files = {"",
                                          kEnd,
                                          data,                          // cut off
                                          data + "\n" + kEnd,            // empty line
                                          data + Line(6, 0, {}) + kEnd,  // unknown type
                                          data + Line(4, 0, {1}) + kEnd,
                                          Line(4, 0, {0xFF, 0xFF}) + Line(0, 0xFFFF, {1, 2}) + kEnd};
  for (const std::string& file : files) {
    std::deque<FwData_t> blocks(1);
    EXPECT_FALSE(Rtx::IntelHexReader().Read(file, "test", blocks)) << file;
    EXPECT_TRUE(blocks.empty());
  }
  std::deque<FwData_t> blocks;
  EXPECT_FALSE(Rtx::IntelHexReader().ReadFile("/nonexistent.spihex", blocks));
}

TEST(IntelHexReaderTest, RecordsMakeBlocksAndGapsPartThem) {
  const auto blocks = Read(Line(4, 0, {0x00, 0x01}) + Line(0, 0xFFFE, {1, 2}) + Line(4, 0, {0x00, 0x02}) +
                           Line(0, 0, {3}) +           // goes on across the 64 KiB border
                           Line(2, 0, {0x10, 0x00}) +  // moves nothing
                           Line(3, 0, {0, 0, 0, 0}) + Line(5, 0, {0, 0, 0, 0}) + Line(0, 1, {4}) +
                           Line(0, 9, {}) + Line(0, 2, {5}) +  // no data is no gap
                           Line(0, 4, {6}) + kEnd + "what follows the end is not read");
  ASSERT_EQ(blocks.size(), 2U);
  EXPECT_EQ(blocks[0].m_iStartAddr, 0x1FFFEU);
  EXPECT_EQ(blocks[0].m_iEndAddr, 0x20003U);
  EXPECT_EQ(blocks[0].m_vecData, Bytes({1, 2, 3, 4, 5}));
  EXPECT_EQ(blocks[1].m_iStartAddr, 0x20004U);
  EXPECT_EQ(blocks[1].m_vecData, Bytes({6}));
}

TEST(IntelHexReaderTest, LineEndsOfEitherKindGiveTheSame) {
  std::string text = HexOf(0x1000, Pattern(100)) + kEnd;
  const auto plain = Read(text);
  for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) text.insert(at, 1, '\r');
  EXPECT_EQ(Read(text)[0].m_vecData, plain[0].m_vecData);
  text.resize(text.size() - 2);  // the last line may end with the file
  EXPECT_EQ(Read(text)[0].m_vecData, plain[0].m_vecData);
}

TEST(IntelHexReaderTest, WholeSectorsAreVerifiedOverErasedFlash) {
  for (const auto& [size, length] :
       std::vector<std::pair<size_t, uint32_t>>{{1, 4096}, {4095, 4096}, {4096, 4096}, {4097, 8192}}) {
    const auto blocks = Read(HexOf(0x2000, Pattern(size)) + kEnd);
    ASSERT_EQ(blocks.size(), 1U);
    EXPECT_EQ(Rtx::VerifyLength(blocks[0]), length);
    Bytes flash = Pattern(size);
    flash.resize(length, 0xFF);
    EXPECT_EQ(blocks[0].m_iCrc, Crc(flash)) << size;
  }
}

// The verified range of the first block reaches over the second and into the third, wherever they stand in
// the file.
TEST(IntelHexReaderTest, NeighboursInTheVerifiedRangeCount) {
  Bytes flash(4096, 0xFF);
  flash[0] = 1;
  flash[0x10] = 2;
  flash[0xFFF] = 3;
  const std::string first = Line(0, 0, {1});
  const std::string others = Line(0, 0x10, {2}) + Line(0, 0xFFF, {3, 4});
  for (const auto& [front, back] : {std::pair(first, others), std::pair(others, first)}) {
    std::string text = front;
    text.append(back).append(kEnd);
    for (const FwData_t& block : Read(text)) {
      if (block.m_iStartAddr == 0) {
        EXPECT_EQ(block.m_iCrc, Crc(flash));
      }
    }
  }
}

TEST(IntelHexReaderTest, EverySectorOfABlockIsErased) {
  using Addresses = std::vector<uint32_t>;
  const auto sectors = [](uint32_t start, uint32_t end) {
    return Rtx::SectorsOf({start, end, 0, Bytes(end - start)});
  };
  EXPECT_EQ(sectors(0x1000, 0x2000), Addresses({0x1000}));
  EXPECT_EQ(sectors(0x1000, 0x2001), Addresses({0x1000, 0x2000}));
  EXPECT_EQ(sectors(0x1800, 0x2800), Addresses({0x1800, 0x2000}));  // the step to 0x2800 misses the second
  // Verified up to 0x3800: what an older firmware left behind the block must be gone too.
  EXPECT_EQ(sectors(0x1800, 0x2801), Addresses({0x1800, 0x2800, 0x3000}));
  EXPECT_EQ(sectors(0xFFFFF800, 0xFFFFFFFF), Addresses({0xFFFFF800}));
  EXPECT_EQ(sectors(0xFFFFF000, 0xFFFFFFFF), Addresses({0xFFFFF000}));
  EXPECT_TRUE(sectors(0, 0).empty());
}

// A forged file may hold the upgrade up neither here nor at the module.
TEST(IntelHexReaderTest, ScatteredFileIsRefused) {
  std::string text;
  for (size_t i = 0; i <= Rtx::IntelHexReader::kMaxBlocks; ++i) {
    text += Line(0, static_cast<uint16_t>(i * 2), {0});
  }
  std::deque<FwData_t> blocks;
  EXPECT_FALSE(Rtx::IntelHexReader().Read(text + kEnd, "test", blocks));
}

TEST(IntelHexReaderTest, LargeFirmwareIsReadWhole) {
  const Bytes data = Pattern(800'000);
  const auto blocks = Read(HexOf(0x0F0000, data) + kEnd);
  ASSERT_EQ(blocks.size(), 1U);
  EXPECT_EQ(blocks[0].m_vecData, data);
}

}  // namespace

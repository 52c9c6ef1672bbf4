/// From a HEX file to blocks, and from blocks to sectors and check values.
#include "UpgradeFrame/RtxSubmodules/RtxFirmware.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <numeric>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"

namespace Rtx {

namespace {

// A line is ":", count 1, offset 2, type 1, data count, checksum 1; two digits each byte.
constexpr char kMark = ':';
constexpr size_t kOffsetPosition = 1;
constexpr size_t kTypePosition = 3;
constexpr size_t kDataPosition = 4;
constexpr size_t kOverhead = 5;
constexpr unsigned kByteBits = 8;
constexpr unsigned kUpperBits = 16;

constexpr uint8_t kErased = 0xFF;

/// The bytes that `digits` stand for; false when they are no pairs of hex digits.
bool ToBytes(std::string_view digits, Bytes& bytes) {
  bytes.assign(digits.size() / 2, 0);
  const char* pair = digits.data();
  for (uint8_t& byte : bytes) {
    if (std::from_chars(pair, pair + 2, byte, 16).ptr != pair + 2) return false;
    pair += 2;
  }
  return digits.size() % 2 == 0;
}

uint32_t BigEndian16(const uint8_t* bytes) {
  return static_cast<uint32_t>(bytes[0]) << kByteBits | bytes[1];
}

/// Cuts the next line, without its end, off `text`.
std::string_view TakeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

uint32_t SectorOf(uint32_t address) {
  return address / EM_CFG_SECTOR_SIZE;
}

/// Programs what of `block` lies in `image`, whose first byte is at `start`: programming only clears bits.
void ProgramInto(Bytes& image, uint32_t start, const FwData_t& block) {
  const uint64_t end = uint64_t{start} + image.size();
  const uint64_t first = std::max(start, block.m_iStartAddr);
  const uint64_t last = std::min<uint64_t>(end, block.m_iEndAddr);
  for (uint64_t address = first; address < last; ++address) {
    image[address - start] &= block.m_vecData[address - block.m_iStartAddr];
  }
}

/// Sets m_iCrc of every block: zlib's CRC-32 over the verified range of a flash that was erased to 0xFF and
/// then took all blocks. A range reaches beyond its block, so that others may lie in it.
void SetExpectedCrcs(std::deque<FwData_t>& blocks) {
  for (FwData_t& block : blocks) {
    Bytes image(VerifyLength(block), kErased);
    for (const FwData_t& other : blocks) ProgramInto(image, block.m_iStartAddr, other);
    block.m_iCrc = static_cast<uint32_t>(crc32(0, image.data(), static_cast<uInt>(image.size())));
  }
}

}  // namespace

bool IntelHexReader::ReadFile(const std::string& path, std::deque<FwData_t>& blocks) {
  blocks.clear();
  std::string text;
  errno = 0;
  if (!ReadFileToString(path, kMaxFileBytes, text)) {
    LOGE("Opean file:%s failed! %s", path.c_str(), std::strerror(errno));
    return false;
  }
  return Read(text, path, blocks);
}

bool IntelHexReader::Read(std::string_view text, const std::string& name, std::deque<FwData_t>& blocks) {
  blocks.clear();
  m_deqFwData.clear();
  m_iUpperAddr = 0;
  HexRecord_t record;
  Step step = Step::Continue;
  for (size_t number = 1; step == Step::Continue && !text.empty(); ++number) {
    const std::string error = _ParseHexLine(TakeLine(text), record);
    if (!error.empty()) {
      LOGE("%s line %zu: %s", name.c_str(), number, error.c_str());
      return false;
    }
    step = _Take(record, name);
  }
  if (step == Step::Malformed) return false;
  if (m_deqFwData.empty()) {
    LOGE("m_deqFwData empty!\n");
    return false;
  }
  if (step != Step::End) {
    LOGE("%s has no end record, it is cut off", name.c_str());
    return false;
  }
  SetExpectedCrcs(m_deqFwData);
  blocks.swap(m_deqFwData);
  return true;
}

std::string IntelHexReader::_ParseHexLine(std::string_view line, HexRecord_t& record) {
  if (line.empty()) return "Empty line!";
  if (line.front() != kMark) return std::string("Hex file mark error!ErrVal:") + line.front();
  Bytes& content = record.m_vecData;
  if (!ToBytes(line.substr(1), content)) return "Convert error!";
  if (content.empty()) return "Empty content!";
  const size_t count = content.front();
  if (content.size() != count + kOverhead) {
    return FormatText("Error content len!Size:%zu, Len:%zu", content.size(), count);
  }
  record.m_iOffset = static_cast<uint16_t>(BigEndian16(&content[kOffsetPosition]));
  record.m_iRecType = content[kTypePosition];
  record.m_iCheckSum = content.back();
  content.pop_back();
  content.erase(content.begin(), content.begin() + kDataPosition);
  const uint8_t calculated = _CalcuHexChecksum(record);
  if (record.m_iCheckSum == calculated) return {};
  return FormatText("Error checksum!ReadVal:0x%02X, CalcuVal:0x%02X", record.m_iCheckSum, calculated);
}

uint8_t IntelHexReader::_CalcuHexChecksum(const HexRecord_t& record) {
  const unsigned head = static_cast<unsigned>(record.m_vecData.size()) + (record.m_iOffset >> kByteBits) +
                        record.m_iOffset + record.m_iRecType;
  return static_cast<uint8_t>(0U - std::accumulate(record.m_vecData.begin(), record.m_vecData.end(), head));
}

IntelHexReader::Step IntelHexReader::_Take(const HexRecord_t& record, const std::string& name) {
  switch (record.m_iRecType) {
    case EM_REC_DATA:
      return _TakeData(record) ? Step::Continue : Step::Malformed;
    case EM_REC_END:
      LOGI("End of file:%s", name.c_str());
      return Step::End;
    case EM_REC_EX_LINEAR_ADDR:
      LOGD("Extend linear addr type.");
      if (record.m_vecData.size() != sizeof(uint16_t)) {
        LOGE("Extend linear addr of %zu bytes!", record.m_vecData.size());
        return Step::Malformed;
      }
      m_iUpperAddr = BigEndian16(record.m_vecData.data()) << kUpperBits;
      return Step::Continue;
    case EM_REC_EX_SEG_ADDR:
    case EM_REC_START_SEG_ADDR:
    case EM_REC_START_LINEAR_ADDR:
      LOGI("Record type %u has no meaning here.", record.m_iRecType);
      return Step::Continue;
    default:
      LOGE("Error hex reocrd type!ErrVal:0x%x", record.m_iRecType);
      return Step::Malformed;
  }
}

bool IntelHexReader::_TakeData(const HexRecord_t& record) {
  const Bytes& data = record.m_vecData;
  const uint32_t address = m_iUpperAddr + record.m_iOffset;
  if (data.size() > std::numeric_limits<uint32_t>::max() - address) {
    LOGE("Data at 0x%08X leaves the address range!", address);
    return false;
  }
  if (data.empty()) return true;
  const bool first = m_deqFwData.empty();
  const uint32_t edge = first ? address : m_deqFwData.back().m_iEndAddr;
  if (!first && edge == address) {
    CLog::instance()->Module(kTraceLog, "Continuous addresses.EdgeAddr:0x%08X, LinearAddr:0x%08X\n", edge,
                             address);
  } else {
    if (!first) LOGI("===Discontinuous addresses.EdgeAddr:0x%08X, LinearAddr:0x%08X\n", edge, address);
    if (m_deqFwData.size() == kMaxBlocks) {
      LOGE("More than %zu separate blocks!", kMaxBlocks);
      return false;
    }
    m_deqFwData.push_back({address, address, 0, {}});
  }
  FwData_t& block = m_deqFwData.back();
  block.m_vecData.insert(block.m_vecData.end(), data.begin(), data.end());
  block.m_iEndAddr += static_cast<uint32_t>(data.size());
  return true;
}

/// The steps begin at the block's start and not at a sector's, so the last byte's sector may need one more.
/// Erased is all that will be verified: behind the block that may be one sector more, in which an older
/// firmware would be found.
std::vector<uint32_t> SectorsOf(const FwData_t& block) {
  std::vector<uint32_t> addresses;
  if (block.m_iEndAddr <= block.m_iStartAddr) return addresses;
  for (uint64_t address = block.m_iStartAddr; address < block.m_iEndAddr; address += EM_CFG_SECTOR_SIZE) {
    addresses.push_back(static_cast<uint32_t>(address));
  }
  const uint64_t lastByte = uint64_t{block.m_iStartAddr} + VerifyLength(block) - 1;
  const uint32_t lastSector = SectorOf(static_cast<uint32_t>(std::min<uint64_t>(lastByte, UINT32_MAX)));
  if (SectorOf(addresses.back()) != lastSector) addresses.push_back(lastSector * EM_CFG_SECTOR_SIZE);
  return addresses;
}

uint32_t VerifyLength(const FwData_t& block) {
  const size_t sectors = (block.m_vecData.size() + EM_CFG_SECTOR_SIZE - 1) / EM_CFG_SECTOR_SIZE;
  return static_cast<uint32_t>(sectors * EM_CFG_SECTOR_SIZE);
}

}  // namespace Rtx

/// The bytes of both protocols of portable parts. Parts in the field speak them.
#include "UpgradePp/PpMessages.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "BSW/BasicFun/Crc.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"

namespace PpMessages {

namespace {

using UpgPp::PpType;

constexpr unsigned kFamily7204 = 0x7204;
constexpr std::string_view kModule7308 = "7308";

constexpr size_t kVersionNumbers = 4;
constexpr size_t kMaxTextBytes = 255;  // its length is one byte

/// What a part's field says; empty, logged, when that is no text.
std::string UsableText(const std::string& field) {
  std::string text = field.substr(0, field.find('\0'));  // up to its padding
  if (IsVersionText(text)) return text;
  LOGW("Unusable text of a PP, taken as empty:%s", HexText(field.data(), field.size()).c_str());
  return {};
}

/// Takes fields from the front of received data; what is not there spoils all that follows.
class Reader {
 public:
  explicit Reader(const std::vector<uint8_t>& data) : m_data(data) {}

  [[nodiscard]] bool Good() const { return m_good; }

  uint8_t Byte() {
    if (m_at >= m_data.size()) m_good = false;
    return m_good ? m_data[m_at++] : uint8_t{0};
  }

  /// A text behind its length byte.
  std::string Text() {
    const size_t size = Byte();
    if (size > m_data.size() - m_at) m_good = false;
    if (!m_good) return {};
    const auto begin = m_data.begin() + static_cast<std::ptrdiff_t>(m_at);
    m_at += size;
    return UsableText({begin, begin + static_cast<std::ptrdiff_t>(size)});
  }

 private:
  const std::vector<uint8_t>& m_data;
  size_t m_at = 0;  // never beyond the end
  bool m_good = true;
};

PpType TypeOf(unsigned family, const std::string& hardware) {
  if (family != kFamily7204) return UpgPp::EM_PP_7308;
  const bool isEvt = hardware.rfind(UpgPp::k7204EvtHardware, 0) == 0;
  return isEvt ? UpgPp::EM_PP_7204_EVT : UpgPp::EM_PP_7204;
}

}  // namespace

std::optional<PpInfo_t> ReadVersion(unsigned family, const std::vector<uint8_t>& data) {
  Reader reader(data);
  PpInfo_t info;
  info.strVerison = PpVersion::Text({reader.Byte(), reader.Byte(), reader.Byte(), reader.Byte()});
  info.strHwVerison = reader.Text();
  info.strRtxVerison = reader.Text();
  if (!reader.Good()) return std::nullopt;
  info.m_emPpType = TypeOf(family, info.strHwVerison);
  return info;
}

std::optional<LegacyVersion> ReadLegacyVersion(const std::vector<uint8_t>& data) {
  Reader reader(data);
  LegacyVersion version;
  version.radioActive = reader.Byte() != 0;
  version.info.strProductModuleNum = reader.Text();
  version.info.strVerison = PpVersion::Normal(reader.Text());
  version.info.strHwVerison = reader.Text();
  version.info.strRtxVerison = reader.Text();
  if (!reader.Good()) return std::nullopt;
  version.info.m_emPpType =
      version.info.strProductModuleNum == kModule7308 ? UpgPp::EM_PP_7308 : UpgPp::EM_PP_7302_03;
  return version;
}

std::vector<uint8_t> FirmwareInfo(UpgPpCfgType family, uint64_t fileSize, const std::vector<uint8_t>& version,
                                  const std::string& fileName) {
  if (fileSize > std::numeric_limits<uint32_t>::max() || version.size() != kVersionNumbers ||
      fileName.size() > kMaxTextBytes) {
    return {};
  }
  std::vector<uint8_t> data = {static_cast<uint8_t>(family)};
  for (const unsigned shift : {0U, 8U, 16U, 24U}) data.push_back(static_cast<uint8_t>(fileSize >> shift));
  data.insert(data.end(), version.begin(), version.end());
  data.push_back(static_cast<uint8_t>(fileName.size()));
  data.insert(data.end(), fileName.begin(), fileName.end());
  return data;
}

std::vector<uint8_t> DataPack(uint8_t number, const uint8_t* data, size_t length) {
  std::vector<uint8_t> pack(1 + length);
  pack[0] = number;
  std::copy_n(data, length, pack.begin() + 1);
  return pack;
}

std::vector<uint8_t> RtxResultFrame(bool success) {
  std::vector<uint8_t> frame = {0xAA, 0xDD, 0x08, 0x00, 0x00, 0x81, 0x55, 0x01, 0x01, 0x01, 0xA2};
  frame.push_back(success ? 0 : 1);
  frame.push_back(CrcXor(frame.data(), frame.size()));
  return frame;
}

}  // namespace PpMessages

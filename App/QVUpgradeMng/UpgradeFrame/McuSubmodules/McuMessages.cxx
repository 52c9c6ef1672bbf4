/// The bytes of the MCU's upgrade messages. Fixed by the wire.
#include "UpgradeFrame/McuSubmodules/McuMessages.h"

#include <algorithm>
#include <string_view>

std::optional<McuVersion> McuVersion::Parse(const std::string& text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == 'V') digits.remove_prefix(1);
  if (const std::optional<VersionNumbers> numbers = ParseVersionNumbers(digits)) return McuVersion{*numbers};
  return std::nullopt;
}

namespace McuMessages {

namespace {

/// Positions in a version response.
constexpr size_t kPosStatus = 0;
constexpr size_t kPosRunMode = 1;
constexpr std::ptrdiff_t kPosVersion = 2;

constexpr uint8_t kRunModeApplication = 0;

}  // namespace

std::vector<uint8_t> FirmwareDescription(uint32_t imageSize, const McuVersion& version,
                                         const std::string& fileName) {
  std::vector<uint8_t> data(1 + sizeof imageSize + version.numbers.size() + fileName.size());
  auto at = data.begin();
  *at++ = EM_CFG_UPG_TYPE;
  for (const unsigned shift : {0U, 8U, 16U, 24U}) *at++ = static_cast<uint8_t>(imageSize >> shift);
  at = std::copy(version.numbers.begin(), version.numbers.end(), at);
  std::copy(fileName.begin(), fileName.end(), at);
  return data;
}

size_t PackageCount(size_t imageSize) {
  return (imageSize + EM_CFG_MCU_PACK_SIZE - 1) / EM_CFG_MCU_PACK_SIZE;
}

std::vector<uint8_t> Package(const std::string& image, size_t index) {
  const size_t begin = index * EM_CFG_MCU_PACK_SIZE;
  const size_t size = std::min<size_t>(EM_CFG_MCU_PACK_SIZE, image.size() - begin);
  const auto first = image.begin() + static_cast<std::ptrdiff_t>(begin);
  std::vector<uint8_t> data;
  data.reserve(1 + size);
  data.push_back(static_cast<uint8_t>(index + 1));
  data.insert(data.end(), first, first + static_cast<std::ptrdiff_t>(size));
  return data;
}

std::optional<Identity> ReadVersion(const std::vector<uint8_t>& data) {
  if (data.size() != EM_SZIE_VER_INFO || data[kPosStatus] != kStatusSuccess) return std::nullopt;
  Identity identity;
  identity.mode = data[kPosRunMode] == kRunModeApplication ? RunMode::Application : RunMode::BootLoader;
  std::copy_n(data.begin() + kPosVersion, identity.version.numbers.size(), identity.version.numbers.begin());
  return identity;
}

}  // namespace McuMessages

/// MCU versions in and out of text. The text is shown to users and kept in records: its form stays.
#include "UpgradeFrame/McuSubmodules/McuVersion.h"

#include <charconv>
#include <string_view>
#include <system_error>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"

std::optional<McuVersion> McuVersion::Parse(const std::string& text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == 'V') digits.remove_prefix(1);
  const std::vector<std::string> fields = Split(digits, '.');
  McuVersion version;
  if (fields.size() != version.numbers.size()) return std::nullopt;
  for (size_t i = 0; i < fields.size(); ++i) {
    const std::string& field = fields[i];
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, version.numbers[i]);
    if (error != std::errc() || stop != end) return std::nullopt;
  }
  return version;
}

std::string McuVersion::Text() const {
  return FormatText("%u.%u.%u.%02u", numbers[0], numbers[1], numbers[2], numbers[3]);
}

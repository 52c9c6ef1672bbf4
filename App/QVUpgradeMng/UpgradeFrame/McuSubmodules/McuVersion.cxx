/// MCU versions in and out of text.
#include "UpgradeFrame/McuSubmodules/McuVersion.h"

#include <string_view>

std::optional<McuVersion> McuVersion::Parse(const std::string& text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == 'V') digits.remove_prefix(1);
  const std::optional<VersionNumbers> numbers = ParseVersionNumbers(digits);
  if (!numbers) return std::nullopt;
  return McuVersion{*numbers};
}

std::string McuVersion::Text() const {
  return VersionNumbersText(numbers);
}

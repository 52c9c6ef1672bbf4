/// Four-number versions in and out of text. The text is shown to users and kept in records: its form stays.
#include "BSW/BasicFun/VersionNumbers.h"

#include <charconv>
#include <system_error>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"

std::optional<VersionNumbers> ParseVersionNumbers(std::string_view text) {
  const std::vector<std::string> fields = Split(text, '.');
  VersionNumbers numbers{};
  if (fields.size() != numbers.size()) return std::nullopt;
  for (size_t i = 0; i < fields.size(); ++i) {
    const std::string& field = fields[i];
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, numbers[i]);
    if (error != std::errc() || stop != end) return std::nullopt;
  }
  return numbers;
}

std::string VersionNumbersText(const VersionNumbers& numbers) {
  return FormatText("%u.%u.%u.%02u", numbers[0], numbers[1], numbers[2], numbers[3]);
}

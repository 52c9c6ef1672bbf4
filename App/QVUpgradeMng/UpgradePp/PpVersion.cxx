/// Software versions of portable parts in and out of text.
#include "UpgradePp/PpVersion.h"

#include <optional>
#include <string_view>

#include "BSW/BasicFun/VersionNumbers.h"

namespace PpVersion {

namespace {

constexpr char kMark = 'S';

std::optional<VersionNumbers> Parse(std::string_view text) {
  if (!text.empty() && text.front() == kMark) text.remove_prefix(1);
  return ParseVersionNumbers(text);
}

std::string Text(const VersionNumbers& numbers) {
  return kMark + VersionNumbersText(numbers);
}

}  // namespace

std::string Format(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return Text({a, b, c, d});
}

std::string Normal(const std::string& text) {
  const std::optional<VersionNumbers> numbers = Parse(text);
  return numbers ? Text(*numbers) : std::string();
}

std::vector<uint8_t> Numbers(const std::string& text) {
  const std::optional<VersionNumbers> numbers = Parse(text);
  return numbers ? std::vector<uint8_t>(numbers->begin(), numbers->end()) : std::vector<uint8_t>();
}

}  // namespace PpVersion

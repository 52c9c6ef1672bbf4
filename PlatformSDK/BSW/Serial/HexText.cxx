/// Hexadecimal text of traffic dumps, whose form log readers rely on.
#include "BSW/Serial/HexText.h"

#include <cstdint>

std::string HexText(const void* data, size_t length) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto* bytes = static_cast<const uint8_t*>(data);
  std::string text;
  text.reserve(length * 3);
  for (size_t i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0x0FU];
    text += ' ';
  }
  return text;
}

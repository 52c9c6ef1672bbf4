/// Check values of the serial protocols, called for every frame sent and received.
#include "BSW/BasicFun/Crc.h"

#include <array>

namespace {

constexpr std::array<uint16_t, 256> MakeXmodemTable() {
  constexpr uint32_t kPolynomial = 0x1021;
  constexpr uint32_t kTopBit = 0x8000;
  std::array<uint16_t, 256> table{};
  for (uint32_t byte = 0; byte < table.size(); ++byte) {
    uint32_t crc = byte << 8U;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & kTopBit) != 0 ? (crc << 1U) ^ kPolynomial : crc << 1U;
    }
    table[byte] = static_cast<uint16_t>(crc);
  }
  return table;
}

constexpr std::array<uint16_t, 256> kXmodemTable = MakeXmodemTable();

}  // namespace

uint8_t CrcXor(const uint8_t* data, size_t length) {
  uint8_t sum = 0;
  for (size_t i = 0; i < length; ++i) {
    sum ^= data[i];
  }
  return sum;
}

uint16_t CRC16_XMODEM(const uint8_t* data, size_t length) {
  uint32_t crc = 0;
  for (size_t i = 0; i < length; ++i) {
    crc = ((crc << 8U) ^ kXmodemTable[((crc >> 8U) ^ data[i]) & 0xFFU]) & 0xFFFFU;
  }
  return static_cast<uint16_t>(crc);
}

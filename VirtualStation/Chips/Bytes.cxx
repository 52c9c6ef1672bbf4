/// The check values bit by bit, without tables: images of a simulated station are small.
#include "VirtualStation/Chips/Bytes.h"

#include <functional>
#include <numeric>

namespace station {

std::uint8_t XorOf(const std::uint8_t* data, std::size_t size) {
  return std::accumulate(data, data + size, std::uint8_t{0}, std::bit_xor<>());
}

std::uint16_t Crc16Of(const std::uint8_t* data, std::size_t size) {
  constexpr unsigned kPolynomial = 0x1021;
  unsigned crc = 0;
  for (const std::uint8_t* byte = data; byte != data + size; ++byte) {
    crc ^= static_cast<unsigned>(*byte) << 8U;
    for (int bit = 0; bit < 8; ++bit) {
      crc = ((crc & 0x8000U) != 0 ? (crc << 1U) ^ kPolynomial : crc << 1U) & 0xFFFFU;
    }
  }
  return static_cast<std::uint16_t>(crc);
}

std::uint32_t Crc32Of(const Bytes& data) {
  constexpr std::uint32_t kReflectedPolynomial = 0xEDB88320U;
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const std::uint8_t byte : data) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1U) != 0 ? (crc >> 1U) ^ kReflectedPolynomial : crc >> 1U;
    }
  }
  return ~crc;
}

void PutLittle(Bytes& bytes, std::uint64_t value, std::size_t size) {
  for (; size > 0; --size, value >>= 8U) {
    bytes.push_back(static_cast<std::uint8_t>(value));
  }
}

std::uint32_t GetLittle(const std::uint8_t* data, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = size; i > 0; --i) {
    value = (value << 8U) | data[i - 1];
  }
  return value;
}

}  // namespace station

/// Byte strings and the check values of the chips' protocols, written from the protocols and apart from the
/// daemon's own. Used by all chips.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace station {

using Bytes = std::vector<std::uint8_t>;

/// XOR of all bytes.
std::uint8_t XorOf(const std::uint8_t* data, std::size_t size);
/// CRC-16 with polynomial 0x1021, initial value 0, most significant bit first.
std::uint16_t Crc16Of(const std::uint8_t* data, std::size_t size);
/// The CRC-32 of zlib.
std::uint32_t Crc32Of(const Bytes& data);

/// Appends `value` in `size` bytes, least significant first, and reads it back.
void PutLittle(Bytes& bytes, std::uint64_t value, std::size_t size);
std::uint32_t GetLittle(const std::uint8_t* data, std::size_t size);

}  // namespace station

/// A NOR flash: erasing sets a whole sector to 0xFF, programming only clears bits, so that a forgotten erase
/// or a byte programmed twice shows. Part of RtxModule and Mcu.
#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "VirtualStation/Chips/Bytes.h"

namespace station {

/// One thread at a time. Addresses are any 32-bit value; what was never erased holds an older firmware, in
/// which hardly a byte is 0xFF.
class FlashModel {
 public:
  static constexpr std::uint32_t kSectorSize = 4096;

  /// Erases the sector that holds `address`.
  void Erase(std::uint32_t address);
  void Program(std::uint32_t address, const std::uint8_t* data, std::size_t size);
  Bytes Read(std::uint32_t address, std::size_t size) const;

 private:
  using Sector = std::array<std::uint8_t, kSectorSize>;
  static Sector _OldFirmware(std::uint32_t index);

  std::map<std::uint32_t, Sector> m_sectors;  ///< by address / kSectorSize
};

}  // namespace station

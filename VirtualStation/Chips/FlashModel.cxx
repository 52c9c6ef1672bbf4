/// A flash kept sector by sector, as far as somebody has touched it.
#include "VirtualStation/Chips/FlashModel.h"

namespace station {

void FlashModel::Erase(std::uint32_t address) {
  m_sectors[address / kSectorSize].fill(0xFF);
}

void FlashModel::Program(std::uint32_t address, const std::uint8_t* data, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i, ++address) {
    const std::uint32_t index = address / kSectorSize;
    auto sector = m_sectors.find(index);
    if (sector == m_sectors.end()) {
      sector = m_sectors.emplace(index, _OldFirmware(index)).first;
    }
    sector->second[address % kSectorSize] &= data[i];
  }
}

Bytes FlashModel::Read(std::uint32_t address, std::size_t size) const {
  Bytes bytes;
  bytes.reserve(size);
  for (; size > 0; --size, ++address) {
    const auto sector = m_sectors.find(address / kSectorSize);
    bytes.push_back(sector == m_sectors.end() ? _OldFirmware(address / kSectorSize)[address % kSectorSize]
                                              : sector->second[address % kSectorSize]);
  }
  return bytes;
}

FlashModel::Sector FlashModel::_OldFirmware(std::uint32_t index) {
  Sector sector{};
  std::uint32_t value = index + 1;
  for (std::uint8_t& byte : sector) {
    value = value * 1664525U + 1013904223U;
    byte = static_cast<std::uint8_t>(value >> 24U);
  }
  return sector;
}

}  // namespace station

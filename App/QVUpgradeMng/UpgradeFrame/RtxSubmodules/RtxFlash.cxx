#include "UpgradeFrame/RtxSubmodules/RtxFlash.h"

#include <zlib.h>

#include <algorithm>
#include <cstddef>

namespace Rtx {

namespace {

constexpr uint8_t kErased = 0xFF;

uint32_t SectorOf(uint32_t address) {
  return address / EM_CFG_SECTOR_SIZE;
}

/// Programs what of `block` lies in `image`, whose first byte is at `start`: programming only clears bits.
void ProgramInto(Bytes& image, uint32_t start, const FwData_t& block) {
  const uint64_t end = uint64_t{start} + image.size();
  const uint64_t first = std::max(start, block.m_iStartAddr);
  const uint64_t last = std::min<uint64_t>(end, block.m_iEndAddr);
  for (uint64_t address = first; address < last; ++address) {
    image[address - start] &= block.m_vecData[address - block.m_iStartAddr];
  }
}

}  // namespace

/// The steps begin at the block's start and not at a sector's, so the last byte's sector may need one more.
/// Erased is all that will be verified: behind the block that may be one sector more, in which an older
/// firmware would be found.
std::vector<uint32_t> SectorsOf(const FwData_t& block) {
  std::vector<uint32_t> addresses;
  if (block.m_iEndAddr <= block.m_iStartAddr) return addresses;
  for (uint64_t address = block.m_iStartAddr; address < block.m_iEndAddr; address += EM_CFG_SECTOR_SIZE) {
    addresses.push_back(static_cast<uint32_t>(address));
  }
  const uint64_t lastByte = uint64_t{block.m_iStartAddr} + VerifyLength(block) - 1;
  const uint32_t lastSector = SectorOf(static_cast<uint32_t>(std::min<uint64_t>(lastByte, UINT32_MAX)));
  if (SectorOf(addresses.back()) != lastSector) addresses.push_back(lastSector * EM_CFG_SECTOR_SIZE);
  return addresses;
}

uint32_t VerifyLength(const FwData_t& block) {
  const size_t sectors = (block.m_vecData.size() + EM_CFG_SECTOR_SIZE - 1) / EM_CFG_SECTOR_SIZE;
  return static_cast<uint32_t>(sectors * EM_CFG_SECTOR_SIZE);
}

void SetExpectedCrcs(std::deque<FwData_t>& blocks) {
  for (FwData_t& block : blocks) {
    Bytes image(VerifyLength(block), kErased);
    for (const FwData_t& other : blocks) ProgramInto(image, block.m_iStartAddr, other);
    block.m_iCrc = static_cast<uint32_t>(crc32(0, image.data(), static_cast<uInt>(image.size())));
  }
}

}  // namespace Rtx

/// What a firmware means for a module's NOR flash: which sectors must be erased, what range is verified, and
/// what the flash must hold there afterwards. The HEX reader fills the blocks, the exchange writes them.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"

namespace Rtx {

/// One contiguous block of firmware.
struct FwData_t {
  uint32_t m_iStartAddr = 0;
  uint32_t m_iEndAddr = 0;  ///< behind the last byte
  uint32_t m_iCrc = 0;      ///< of what the flash must hold in the block's verified range
  Bytes m_vecData;
};

/// Addresses to erase at: one in each sector that the block touches. A step of one sector from a start in
/// the middle of one may miss the sector of the last byte, so that one is looked at by itself.
std::vector<uint32_t> SectorsOf(const FwData_t& block);

/// Bytes to verify from the block's start: its size rounded up to whole sectors.
uint32_t VerifyLength(const FwData_t& block);

/// Sets m_iCrc of every block: zlib's CRC-32 over the verified range of a flash that was erased to 0xFF and
/// then took all blocks. A range reaches beyond its block, so that others may lie in it.
void SetExpectedCrcs(std::deque<FwData_t>& blocks);

}  // namespace Rtx

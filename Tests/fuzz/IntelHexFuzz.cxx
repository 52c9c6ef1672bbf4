// Feeds the firmware reader any text. What it takes must be whole: blocks with data, ends that fit, and a
// check value over whole sectors.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string_view>

#include "UpgradeFrame/RtxSubmodules/RtxFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::deque<Rtx::FwData_t> blocks;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!Rtx::IntelHexReader().Read(text, "fuzz", blocks)) {
    if (!blocks.empty()) std::abort();
    return 0;
  }
  if (blocks.empty()) std::abort();
  for (const Rtx::FwData_t& block : blocks) {
    if (block.m_vecData.empty() || block.m_iEndAddr - block.m_iStartAddr != block.m_vecData.size())
      std::abort();
    const uint32_t length = Rtx::VerifyLength(block);
    if (length % Rtx::EM_CFG_SECTOR_SIZE != 0 || length < block.m_vecData.size()) std::abort();
    if (Rtx::SectorsOf(block).empty()) std::abort();
  }
  return 0;
}

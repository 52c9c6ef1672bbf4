// Feeds the flash-loader packets any bytes in any chunks. The first byte picks the chunks' size.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = data[0] + 1U;
  Rtx::RtxPacketJoiner joiner;
  for (size_t at = 1; at < size; at += piece) {
    const auto payload = joiner.Add(Rtx::Bytes(data + at, data + std::min(size, at + piece)));
    if (!payload) continue;
    const Rtx::Confirmation* const known = Rtx::FindConfirmation(payload->m_iCmd);
    if (known == nullptr || payload->m_vecData.size() != static_cast<size_t>(known->size)) continue;
    if (known->cmd == Rtx::EM_CALC_CRC32_CFM) Rtx::Crc32Of(*payload);
  }
  const Rtx::Bytes whole(data, data + size);
  const Rtx::Bytes packet = Rtx::PackFlPacket(whole);
  if (packet.empty()) return 0;
  const auto parsed = Rtx::ParseFlPacket(packet);
  if (!parsed || parsed->m_iCmd != data[0] || parsed->m_vecData.size() + 1 != size) std::abort();
  return 0;
}

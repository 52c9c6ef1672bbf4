#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"

namespace Rtx {

namespace {

constexpr size_t kHeadSize = 3;  // header and length
constexpr unsigned kByteBits = 8;
constexpr unsigned kByteMask = 0xFF;

size_t PayloadLength(const Bytes& packet) {
  return packet[EM_POS_LEN_L] | static_cast<size_t>(packet[EM_POS_LEN_H]) << kByteBits;
}

/// True when bytes that may follow can still make `pending` a packet.
bool IsUnfinished(const Bytes& pending) {
  if (pending.empty() || pending[EM_POS_HEADER] != EM_CFG_FLASH_LOADER_HEDER) return false;
  if (pending.size() < kHeadSize) return true;
  const size_t length = PayloadLength(pending);
  return length <= EM_CFG_MAX_FALSH_PAYLOAD_SIZE && pending.size() < length + EM_CFG_FALSH_PACKET_OTHER_SIZE;
}

}  // namespace

Bytes PackFlPacket(const Bytes& payload) {
  if (payload.empty()) {
    LOGE("Flash loader packet can't be empty!");
    return {};
  }
  if (payload.size() > EM_CFG_MAX_FALSH_PAYLOAD_SIZE) {
    LOGE("Flash loader packet can't hold %zu bytes!", payload.size());
    return {};
  }
  Bytes packet;
  packet.reserve(payload.size() + EM_CFG_FALSH_PACKET_OTHER_SIZE);
  packet.push_back(EM_CFG_FLASH_LOADER_HEDER);
  packet.push_back(static_cast<uint8_t>(payload.size() & kByteMask));
  packet.push_back(static_cast<uint8_t>(payload.size() >> kByteBits));
  packet.insert(packet.end(), payload.begin(), payload.end());
  const uint16_t crc = CRC16_XMODEM(payload.data(), payload.size());
  packet.push_back(static_cast<uint8_t>(crc & kByteMask));
  packet.push_back(static_cast<uint8_t>(crc >> kByteBits));
  return packet;
}

std::optional<FlPayload_t> ParseFlPacket(const Bytes& packet) {
  const size_t size = packet.size();
  if (size < EM_CFG_MIN_FALSH_PACKET_SIZE) {
    LOGE("Packet too short!Size:%zu", size);
    return {};
  }
  if (packet[EM_POS_HEADER] != EM_CFG_FLASH_LOADER_HEDER) {
    LOGE("Error header!ErrVal:0x%02X", packet[EM_POS_HEADER]);
    return {};
  }
  const size_t length = PayloadLength(packet);
  if (size != length + EM_CFG_FALSH_PACKET_OTHER_SIZE) {
    LOGE("Error lenth of packet!ErrVal:%zu, Size:%zu", length, size);
    return {};
  }
  const uint8_t* const payload = packet.data() + kHeadSize;
  const uint16_t calculated = CRC16_XMODEM(payload, length);
  const unsigned received = packet[size - EM_POS_CRC_L] | static_cast<unsigned>(packet[size - EM_POS_CRC_H])
                                                              << kByteBits;
  if (calculated != received) {
    LOGE("Error crc val! iCrcCalcu:0x%04X, iCrcRecv:0x%04X", calculated, received);
    return {};
  }
  return FlPayload_t{payload[0], Bytes(payload + 1, payload + length)};
}

std::optional<FlPayload_t> RtxPacketJoiner::Add(const Bytes& chunk) {
  m_vecPending.insert(m_vecPending.end(), chunk.begin(), chunk.end());
  if (IsUnfinished(m_vecPending)) return {};
  Bytes packet;
  packet.swap(m_vecPending);
  return ParseFlPacket(packet);
}

}  // namespace Rtx

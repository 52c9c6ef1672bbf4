/// The bytes of packets, requests and confirmations.
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

#include <algorithm>
#include <array>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"

namespace Rtx {

namespace {

constexpr size_t kHeadSize = 3;  // header and length
constexpr unsigned kByteBits = 8;
constexpr unsigned kByteMask = 0xFF;
constexpr size_t kFlashSettings = 8;
constexpr uint32_t kFlashBase = 0x60000000;
constexpr size_t kWordBytes = 2;
constexpr uint8_t kPadding = 0xFF;
constexpr size_t kCrcPosition = 8;

constexpr std::array<Confirmation, 5> kConfirmations = {{
    {EM_READ_SW_VERSION_CFM, EM_SIZE_READ_VER_CFM, false, EM_FLAG_RECV_SW_VER, "EM_READ_SW_VERSION_CFM",
     "Waiting for [EM_READ_SW_VERSION_CFM] timeout"},
    {EM_WRITE_CONFIG_CFM, EM_SIZE_WRITE_CFG_CFM, true, EM_FLAG_WRITE_CFG_CFM, "EM_WRITE_CONFIG_CFM",
     "Waiting for [EM_WRITE_CONFIG_CFM] timeout"},
    {EM_PROG_FLASH_CFM, EM_SIZE_PROG_FLASH_CFM, true, EM_FLAG_PROGRAM_SECTOR_CFM, "EM_PROG_FLASH_CFM",
     "Waiting for [EM_PROG_FLASH_CFM] timeout"},
    {EM_CALC_CRC32_CFM, EM_SIZE_CALC_CRC32_CFM, false, EM_FLAG_VERIFY_SECTOR_CFM, "EM_CALC_CRC32_CFM",
     "Waiting for [EM_CALC_CRC32_CFM] timeout"},
    {EM_FLASH_ERASE_CFM, EM_SIZE_FLASH_EARSE_CFM, true, EM_FLAG_EARSE_SECTOR_CFM, "EM_FLASH_ERASE_CFM",
     "Waiting for [EM_FLASH_ERASE_CFM] timeout"},
}};

/// Appends the `size` low bytes of `value`, lowest first.
void Append(Bytes& payload, uint32_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) payload.push_back(static_cast<uint8_t>(value >> (i * kByteBits)));
}

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

Bytes ReadVersionRequest() {
  return {EM_READ_SW_VERSION_REQ};
}

Bytes WriteConfigRequest() {
  Bytes payload = {EM_WRITE_CONFIG_REQ};
  payload.insert(payload.end(), kFlashSettings, EM_CFG_FLASH_SETTING_VAL);
  Append(payload, kFlashBase, sizeof kFlashBase);
  payload.push_back(EM_CFG_FLASH_CONFIG);
  return payload;
}

Bytes EraseRequest(uint32_t address) {
  Bytes payload = {EM_FLASH_ERASE_REQ};
  Append(payload, address, sizeof address);
  payload.push_back(EM_CFG_ERASE_SECTOR_CMD);
  return payload;
}

Bytes ProgramRequest(uint32_t address, const uint8_t* data, size_t size) {
  const size_t words = (size + 1) / kWordBytes;
  Bytes payload = {EM_PROG_FLASH_REQ};
  payload.reserve(EM_CFG_MAX_FALSH_PAYLOAD_SIZE);
  Append(payload, address, sizeof address);
  Append(payload, static_cast<uint32_t>(words), sizeof(uint16_t));
  payload.insert(payload.end(), data, data + size);
  if (size % kWordBytes != 0) payload.push_back(kPadding);
  return payload;
}

Bytes CalcCrc32Request(uint32_t start, uint32_t length) {
  Bytes payload = {EM_CALC_CRC32_REQ};
  Append(payload, start, sizeof start);
  Append(payload, length, sizeof length);
  return payload;
}

const Confirmation* FindConfirmation(uint8_t cmd) {
  const auto* const found = std::find_if(kConfirmations.begin(), kConfirmations.end(),
                                         [cmd](const Confirmation& entry) { return entry.cmd == cmd; });
  return found == kConfirmations.end() ? nullptr : found;
}

uint32_t Crc32Of(const FlPayload_t& confirmation) {
  uint32_t crc = 0;
  for (size_t i = 0; i < sizeof crc; ++i) {
    crc |= static_cast<uint32_t>(confirmation.m_vecData[kCrcPosition + i]) << (i * kByteBits);
  }
  return crc;
}

}  // namespace Rtx

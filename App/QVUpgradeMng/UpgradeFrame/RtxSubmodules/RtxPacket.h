/// The packets between the base station and a module's flash loader: how one is built, how one is found in
/// what the line delivers, and what requests and confirmations hold. The exchange sends the requests, its
/// parser judges the answers; everything here is fixed by the module. All numbers go low byte first.
///
///   'F' 1 | payload length n 2, low byte first | payload n: primitive 1, data n - 1 | CRC 2, low byte first
///
/// The CRC is CRC-16/XMODEM over the payload alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"

namespace Rtx {

/// A packet's payload.
struct FlPayload_t {
  uint8_t m_iCmd = 0;  ///< FlPrimitiveIdType
  Bytes m_vecData;
};

/// The packet around `payload` (primitive and data); empty, logged, when it is empty or longer than a packet
/// holds.
Bytes PackFlPacket(const Bytes& payload);

/// The payload of `packet`, which must be exactly one packet; empty, logged, when it is not.
std::optional<FlPayload_t> ParseFlPacket(const Bytes& packet);

/// Puts packets together that arrive in pieces. One packet at a time is under way: the flash loader answers
/// a request and is silent until the next. Used by one thread.
class RtxPacketJoiner {
 public:
  /// Adds a chunk. The payload once the packet is whole; empty while bytes are missing, and, logged, when
  /// what arrived can be no packet, or is more than one: then all of it is dropped.
  std::optional<FlPayload_t> Add(const Bytes& chunk);

  /// Forgets an unfinished packet.
  void Reset() { m_vecPending.clear(); }

 private:
  Bytes m_vecPending;
};

Bytes ReadVersionRequest();
Bytes WriteConfigRequest();
/// Erases the sector that holds `address`.
Bytes EraseRequest(uint32_t address);
/// Programs `size` bytes at `address`, at most kProgramChunk; an odd one is padded with 0xFF, because the
/// flash is written in words of 16 bits.
Bytes ProgramRequest(uint32_t address, const uint8_t* data, size_t size);
/// Asks for the CRC-32 of `length` bytes of the flash.
Bytes CalcCrc32Request(uint32_t start, uint32_t length);

/// What the flash loader can confirm. Layouts after the primitive:
///   READ_SW_VERSION  major 1, minor 1, build 1
///   WRITE_CONFIG     status 1
///   PROG_FLASH       address 4, words 2, status 1
///   CALC_CRC32       start 4, length 4, CRC 4
///   FLASH_ERASE      address 4, status 1
/// A status of 0 tells that the flash loader could not do it.
struct Confirmation {
  FlPrimitiveIdType cmd;
  FlPacketSizeType size;
  bool hasStatus;  ///< as the last byte
  FlagType flag;   ///< tells the state thread of it
  const char* name;
  const char* onTimeout;  ///< what the log says when it does not come
};

/// The entry for the primitive `cmd`; null for one that is no confirmation this side waits for.
const Confirmation* FindConfirmation(uint8_t cmd);

/// The CRC that an EM_CALC_CRC32_CFM of the right size carries.
uint32_t Crc32Of(const FlPayload_t& confirmation);

}  // namespace Rtx

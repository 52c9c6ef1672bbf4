/// The packets between the base station and a module's flash loader: how one is built, and how one is found
/// in what the line delivers. The exchange sends and receives them; everything here is fixed by the module.
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

}  // namespace Rtx

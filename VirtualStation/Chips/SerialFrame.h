/// The frames that the MCU and the newer portable parts speak, in both directions:
///
///   AA DD, length L = data + 7 (low byte first), protocol, project, device, sequence number, type,
///   command (2 bytes, high byte first), data, XOR of all bytes before it
///
/// Written from the protocol and apart from the daemon's own codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Line.h"

namespace station {

struct SerialFrame {
  enum Type : std::uint8_t { kRequest = 1, kResponse = 2, kReport = 3 };

  std::uint8_t protocol = 0x01;
  std::uint8_t project = 0;
  std::uint8_t device = 0;
  std::uint8_t number = 0;  ///< sequence number
  std::uint8_t type = kRequest;
  unsigned command = 0;
  Bytes data;
};

/// Takes the first sound frame off `input`, with all that stands before it. Nothing: more must come first.
/// `maxSize` bounds the whole frame, in bytes.
std::optional<SerialFrame> TakeFrame(Bytes& input, std::size_t maxSize);

/// The frame's bytes, with the faults of `faults` that strike a frame.
Bytes Packed(const SerialFrame& frame, const Conduct::Faults& faults = {});

}  // namespace station

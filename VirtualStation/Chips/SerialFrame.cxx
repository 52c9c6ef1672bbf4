/// Packs frames, with the faults that strike them, and finds them in what comes in.
#include "VirtualStation/Chips/SerialFrame.h"

namespace station {
namespace {

constexpr std::uint8_t kHead[] = {0xAA, 0xDD};
constexpr std::size_t kBeforeData = 11;
constexpr std::size_t kFrame = kBeforeData + 1;  ///< bytes of a frame that are not data
constexpr std::size_t kLengthOffset = 7;         ///< the length field counts data and so many bytes
constexpr std::size_t kUntilLength = 4;

}  // namespace

std::optional<SerialFrame> TakeFrame(Bytes& input, std::size_t maxSize) {
  while (input.size() >= kUntilLength) {
    const std::size_t length = GetLittle(&input[2], 2);
    const std::size_t size = length + kFrame - kLengthOffset;
    if (input[0] != kHead[0] || input[1] != kHead[1] || length < kLengthOffset || size > maxSize) {
      input.erase(input.begin());
      continue;
    }
    if (input.size() < size) {
      return std::nullopt;
    }
    const Bytes bytes(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(size));
    input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(size));
    if (XorOf(bytes.data(), size - 1) == bytes.back()) {
      return SerialFrame{bytes[4],
                         bytes[5],
                         bytes[6],
                         bytes[7],
                         bytes[8],
                         static_cast<unsigned>(bytes[9]) << 8U | bytes[10],
                         Bytes(bytes.begin() + kBeforeData, bytes.end() - 1)};
    }
  }
  return std::nullopt;
}

Bytes Packed(const SerialFrame& frame, const Conduct::Faults& faults) {
  Bytes data = frame.data;
  if (faults.count(FaultKind::WrongLength) != 0 && !data.empty()) {
    data.pop_back();
  }
  Bytes bytes(std::begin(kHead), std::end(kHead));
  PutLittle(bytes, data.size() + kLengthOffset + faults.count(FaultKind::WrongLengthField), 2);
  for (const unsigned field :
       {unsigned{frame.protocol}, unsigned{frame.project}, unsigned{frame.device}, unsigned{frame.number},
        unsigned{frame.type}, frame.command >> 8U, frame.command & 0xFFU}) {
    bytes.push_back(static_cast<std::uint8_t>(field));
  }
  bytes.insert(bytes.end(), data.begin(), data.end());
  bytes.push_back(
      static_cast<std::uint8_t>(XorOf(bytes.data(), bytes.size()) ^ faults.count(FaultKind::WrongCheck)));
  return bytes;
}

}  // namespace station

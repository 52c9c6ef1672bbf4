// Feeds MCU frame parsing any bytes in any pieces, as a receive queue would. The first byte picks the pieces'
// size.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "BSW/Serial/McuFrame.h"
#include "BSW/Serial/McuFrameParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  constexpr size_t kMaxFrame = McuFrame::EM_UART_MSG_MAX_LEN;
  const size_t piece = data[0] + 1U;
  std::vector<uint8_t> queue;
  for (size_t at = 1; at < size; at += piece) {
    queue.insert(queue.end(), data + at, data + (size - at < piece ? size : at + piece));
    McuFrameParser parser(queue.data(), queue.size(), kMaxFrame);
    size_t consumed = 0;
    for (auto found = parser.Next(); found != McuFrameParser::Found::Nothing; found = parser.Next()) {
      if (parser.Consumed() <= consumed || parser.Consumed() > queue.size()) std::abort();  // no progress
      consumed = parser.Consumed();
      if (found == McuFrameParser::Found::Frame) McuFrame::Unpack(parser.Frame(), parser.FrameSize());
    }
    queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(parser.Consumed()));
    if (queue.size() >= kMaxFrame) std::abort();  // more stays queued than the longest frame needs
  }
  return 0;
}

// Feeds the legacy line reader and the frame check any bytes in any chunks. The first byte picks the chunks'
// size.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "BSW/Serial/SerialPrase.h"

namespace {

constexpr uint16_t kMaxPayload = 1024;

class LegacyPort : public SerialPrase {
 public:
  LegacyPort() : SerialPrase("Fuzz", kMaxPayload) {}
  ~LegacyPort() override { DestroySerial(); }
  int UartRecvCallback(uint8_t /*dataType*/, const uint8_t* payload, int16_t length) override {
    // Reads all of it, so that a payload beyond its frame shows.
    return std::any_of(payload, payload + length, [](uint8_t byte) { return byte != 0; }) ? 1 : 0;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static LegacyPort port;
  const size_t chunk = data[0] + 1U;
  size_t at = 1;
  SerialLineReader reader(chunk);
  const auto refill = [&](char* buffer, int length) {
    const size_t count = std::min({size - at, chunk, static_cast<size_t>(length)});
    std::copy_n(data + at, count, buffer);
    at += count;
    return static_cast<int>(count);
  };
  std::vector<uint8_t> line(kMaxPayload + kSerialPraseOverhead);
  for (int32_t length = 0; (length = reader.GetLine(line.data(), kMaxPayload, refill)) > 0;) {
    if (static_cast<size_t>(length) > line.size()) std::abort();
    const std::vector<uint8_t> received(line.begin(), line.begin() + length);
    std::vector<uint8_t> frame(received.size());
    const int16_t total = port.UnpackFrame(received.data(), static_cast<uint16_t>(length), frame.data());
    if (total > 0) port.ProcessFrame(frame.data(), total);
  }
  return 0;
}

// Feeds the XMODEM sender any answers. Each input byte is one received byte, but 0xFF is silence.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "BSW/Serial/XmodemSender.h"

namespace {

constexpr size_t kBlocks = 3;
constexpr uint8_t kSilenceByte = 0xFF;

class FuzzedLoader : public IXmodemLine {
 public:
  FuzzedLoader(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}

  int Receive(std::chrono::milliseconds /*time*/) override {
    if (m_left == 0) return kSilence;
    --m_left;
    const uint8_t byte = *m_data++;
    return byte == kSilenceByte ? kSilence : byte;
  }
  // Whatever comes counts as come after the last frame.
  void Purge() override {}
  bool Send(const uint8_t* data, size_t size) override {
    // Reads all of it, so that a frame beyond its buffer shows.
    for (size_t i = 0; i < size; ++i) sum += data[i];
    ++frames;
    return true;
  }

  size_t frames = 0;
  unsigned sum = 0;

 private:
  const uint8_t* m_data;
  size_t m_left;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string image(kBlocks * XmodemSender::kBlockBytes - 1, 'x');
  FuzzedLoader loader(data, size);
  size_t acknowledged = 0;
  const XmodemSender::Result result =
      XmodemSender(loader).Send(image, [&acknowledged](size_t done, size_t) { acknowledged = done; });
  const bool done = result == XmodemSender::Result::Done;
  if (done && (acknowledged != kBlocks || loader.frames <= kBlocks)) std::abort();
  // All blocks and EOT at their last try, and the CANs.
  if (loader.frames > (kBlocks + 1) * XmodemSender::kMaxTries + 1) std::abort();
  return 0;
}

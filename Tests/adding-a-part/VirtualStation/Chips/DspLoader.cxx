/// The loader takes a length, four bytes with the least significant first, then an image of that length in
/// blocks of 256 bytes, the last one shorter. Each of them is answered: ACK, or NAK when it is refused. What
/// is acknowledged is in the flash.
#include "VirtualStation/Chips/DspLoader.h"

#include <algorithm>

namespace station {
namespace {

constexpr const char* kDevice = "/dev/ttyDSP0";
constexpr unsigned kSpeed = 115200;
constexpr std::size_t kLengthField = 4;
constexpr std::size_t kBlock = 256;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;

}  // namespace

DspLoader::DspLoader() : m_line(kDevice, kSpeed, [this](const Bytes& bytes) { _Receive(bytes); }) {}

Bytes DspLoader::Memory() const {
  const CLock lock(m_mutex);
  return m_memory;
}

void DspLoader::PowerCycle() {
  const CLock lock(m_mutex);
  m_input.clear();
  m_missing = 0;
}

void DspLoader::_Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  while (_TakeItem()) {
  }
}

/// Takes the length or a block off the input. False: more must come first.
bool DspLoader::_TakeItem() {
  const bool isLength = m_missing == 0;
  const std::size_t size = isLength ? kLengthField : std::min(kBlock, m_missing);
  if (m_input.size() < size) {
    return false;
  }
  const Bytes item(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(size));
  m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(size));
  if (!_Accepts(isLength ? Phase::DspLength : Phase::DspBlock)) {
    return true;
  }
  if (isLength) {
    m_missing = GetLittle(item.data(), item.size());
    m_memory.clear();
  } else {
    m_missing -= size;
    m_memory.insert(m_memory.end(), item.begin(), item.end());
  }
  return true;
}

/// Answers, as the chip's faults have it; true when the answer is ACK.
bool DspLoader::_Accepts(Phase phase) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return false;
  }
  const bool accepted = faults->count(FaultKind::Refuse) == 0;
  m_line.Send({accepted ? kAck : kNak}, *faults);
  return accepted;
}

}  // namespace station

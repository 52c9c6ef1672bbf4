/// Answers the one legacy request. A frame: BB (host) or AA (part), DD, command, length of the data (low byte
/// first), data, XOR of all bytes before it. The one command, in either direction:
///
///   B1 version                        no data
///   <- radio on (1) or off (0), then model, software, hardware and radio version, each with its length
#include "VirtualStation/Pps/PpLegacy.h"

#include <utility>

namespace station {
namespace {

constexpr std::uint8_t kVersion = 0xB1;
constexpr Bytes::value_type kRequest[] = {0xBB, 0xDD, kVersion, 0, 0, 0xBB ^ 0xDD ^ kVersion};

}  // namespace

PpLegacy::PpLegacy(const std::string& device, PpLegacyIdentity identity, const std::vector<Fault>& faults)
    : m_identity(std::move(identity)),
      m_conduct(faults),
      m_line(device, Line::kUsb, [this](const Bytes& bytes) { _Receive(bytes); }) {}

void PpLegacy::_Receive(const Bytes& bytes) {
  for (std::size_t left = m_conduct.Hear(bytes.size()), i = 0; i < left; ++i) {
    m_input.push_back(bytes[i]);
    if (m_input.size() > std::size(kRequest)) {
      m_input.erase(m_input.begin());
    }
    if (m_input == Bytes(std::begin(kRequest), std::end(kRequest))) {
      _AnswerVersion();
    }
  }
}

void PpLegacy::_AnswerVersion() {
  const auto faults = m_line.Reach(m_conduct, Phase::PpVersion);
  if (!faults) {
    return;
  }
  Bytes data = {static_cast<std::uint8_t>(faults->count(FaultKind::Refuse) == 0)};
  for (const std::string& text :
       {m_identity.model, m_identity.software, m_identity.hardware, m_identity.radio}) {
    data.push_back(static_cast<std::uint8_t>(text.size()));
    data.insert(data.end(), text.begin(), text.end());
  }
  data.resize(data.size() - faults->count(FaultKind::WrongLength));
  Bytes frame = {0xAA, 0xDD, kVersion};
  PutLittle(frame, data.size() + faults->count(FaultKind::WrongLengthField), 2);
  frame.insert(frame.end(), data.begin(), data.end());
  frame.push_back(
      static_cast<std::uint8_t>(XorOf(frame.data(), frame.size()) ^ faults->count(FaultKind::WrongCheck)));
  m_line.Send(frame, *faults);
}

}  // namespace station

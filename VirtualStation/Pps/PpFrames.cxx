/// What the parts' frames carry. Requests carry protocol 01, project 90, device 31 (the base station's model,
/// and its half of it); a part's frames its own model number. An answer repeats the request's sequence
/// number; its data is one byte, 0 for yes, but for the version:
///
///   four numbers, length and text of the hardware version, length and text of the radio's version
///
/// The result of the radio's upgrade is the one request that carries protocol 00, project 81, device 55.
#include "VirtualStation/Pps/PpFrames.h"

#include <cstdio>
#include <utility>

namespace station {
namespace {

constexpr std::size_t kMaxFrame = 12 + 1 + 1024;  ///< of a packet
constexpr std::uint8_t kYes = 0;
constexpr std::uint8_t kNo = 1;

bool IsOf(const SerialFrame& frame, std::uint8_t protocol, std::uint8_t project, std::uint8_t device) {
  return frame.protocol == protocol && frame.project == project && frame.device == device;
}

void PutText(Bytes& bytes, const std::string& text) {
  bytes.push_back(static_cast<std::uint8_t>(text.size()));
  bytes.insert(bytes.end(), text.begin(), text.end());
}

}  // namespace

std::string Text(const PpVersions::Software& version) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "S%u.%u.%u.%02u", version[0], version[1], version[2], version[3]);
  return text.data();
}

std::optional<SerialFrame> TakeRequest(Bytes& input) {
  while (std::optional<SerialFrame> frame = TakeFrame(input, kMaxFrame)) {
    const bool ours =
        frame->command == kPpRadioResult ? IsOf(*frame, 0x00, 0x81, 0x55) : IsOf(*frame, 0x01, 0x90, 0x31);
    if (ours && frame->type == SerialFrame::kRequest) {
      return frame;
    }
  }
  return std::nullopt;
}

void PpVoice::AnswerVersion(const SerialFrame& request, const PpVersions& versions) {
  const auto faults = m_line.Reach(m_conduct, Phase::PpVersion);
  if (!faults) {
    return;
  }
  Bytes data(versions.software.begin(), versions.software.end());
  PutText(data, versions.hardware);
  PutText(data, versions.radio);
  m_line.Send(Packed(_Frame(SerialFrame::kResponse, kPpVersion, request.number, data), *faults), *faults);
}

bool PpVoice::Answer(Phase phase, const SerialFrame& request, bool yes) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return false;
  }
  const bool agrees = yes && faults->count(FaultKind::Refuse) == 0;
  m_line.Send(
      Packed(_Frame(SerialFrame::kResponse, request.command, request.number, {agrees ? kYes : kNo}), *faults),
      *faults);
  return agrees;
}

void PpVoice::ReportReady() {
  m_line.Send(Packed(_Frame(SerialFrame::kReport, kPpReady, 0, {kYes})));
}

SerialFrame PpVoice::_Frame(std::uint8_t type, unsigned command, std::uint8_t number, Bytes data) const {
  return {0x01, m_family.project, m_family.device, number, type, command, std::move(data)};
}

}  // namespace station

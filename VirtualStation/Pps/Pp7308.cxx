/// A part that is upgraded over its line. The exchange, frames as in PpFrames.h:
///
///   101 version
///   102 start                         from now on it takes firmware
///   103 01, image size (4 bytes, low byte first), version (four numbers), length and text of the file name
///   104 packet number (from 1, wraps), up to 1024 bytes of the image; only the last packet is shorter
///   105 done                          it runs the new application, without leaving the bus
///   1A0 radio                         from now on it is a USB bridge to its radio module, with the
///                                     speed that the host sets; the module boots once that is the boot
///                                     ROM's
///   1A2 result, 0 when all went well  the radio runs its new firmware
///
/// A host that sets the part's own speed again is done with the module. While it is the bridge, the part
/// answers nothing itself.
#include "VirtualStation/Pps/Pp7308.h"

#include <algorithm>
#include <utility>

namespace station {
namespace {

constexpr PpFamily kFamily = {0x73, 0x08};
constexpr unsigned kOwnSpeed = 115200;
constexpr std::uint8_t kFamilyByte = 1;
constexpr std::size_t kPacketSize = 1024;
constexpr std::chrono::milliseconds kSpeedPoll(5);

/// The firmware of a radio module begins with its version, as text that a zero ends.
std::string RadioVersion(const RtxCore& radio) {
  constexpr std::size_t kLongest = 32;
  const Bytes start = radio.Memory(0, kLongest);
  return {start.begin(), std::find(start.begin(), start.end(), 0)};
}

}  // namespace

Pp7308::Pp7308(const std::string& device, PpVersions versions, const std::vector<Fault>& faults)
    : m_conduct(faults),
      m_radio(m_conduct, m_line),
      m_voice(kFamily, m_conduct, m_line),
      m_versions(std::move(versions)),
      m_line(
          device, Line::kUsb, [this](const Bytes& bytes) { _Receive(bytes); }, [this] { _BootRadio(); }) {}

void Pp7308::Plug() {
  const CLock lock(m_mutex);
  m_mode = Mode::Normal;
  m_input.clear();
  m_radio.Hold();
  m_line.Plug();
}

void Pp7308::ReportReady() {
  const CLock lock(m_mutex);
  m_voice.ReportReady();
}

PpVersions Pp7308::Versions() const {
  const CLock lock(m_mutex);
  return m_versions;
}

Bytes Pp7308::Application() const {
  const CLock lock(m_mutex);
  return m_application;
}

std::string Pp7308::FileName() const {
  const CLock lock(m_mutex);
  return m_fileName;
}

Bytes Pp7308::RadioResult() const {
  const CLock lock(m_mutex);
  return m_radioResult;
}

void Pp7308::_Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  if (_PassThrough(bytes)) {
    return;
  }
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  while (const std::optional<SerialFrame> request = TakeRequest(m_input)) {
    _Dispatch(*request);
  }
}

bool Pp7308::_PassThrough(const Bytes& bytes) {
  if (m_mode != Mode::Radio) {
    return false;
  }
  const unsigned speed = m_line.HostSpeed();
  if (speed == kOwnSpeed) {
    m_mode = Mode::Normal;
    m_radio.Hold();
    return false;
  }
  // At another speed the module hears nothing that it understands.
  if (speed == m_radio.Speed()) {
    m_radio.Receive(bytes);
  }
  return true;
}

/// On the timer, while the host has not set the speed of the boot ROM.
void Pp7308::_BootRadio() {
  const CLock lock(m_mutex);
  if (m_mode != Mode::RadioWaits) {
    return;
  }
  if (m_line.HostSpeed() == RtxCore::kRomSpeed) {
    m_mode = Mode::Radio;
    m_radio.Boot();
  } else {
    m_line.SetTimer(Line::Clock::now() + kSpeedPoll);
  }
}

void Pp7308::_Dispatch(const SerialFrame& request) {
  const Bytes& data = request.data;
  switch (request.command) {
    case kPpVersion:
      m_voice.AnswerVersion(request, m_versions);
      break;
    case kPpStart:
      if (m_voice.Answer(Phase::PpStart, request, data.empty())) {
        m_mode = Mode::Upgrading;
        m_imageSize = 0;
      }
      break;
    case kPpFirmwareInfo:
      m_voice.Answer(Phase::PpFirmwareInfo, request, _TakeFirmwareInfo(data));
      break;
    case kPpPacket:
      m_voice.Answer(Phase::PpPacket, request, _TakePacket(data));
      break;
    case kPpDone: {
      const bool whole = m_mode == Mode::Upgrading && m_imageSize > 0 && m_image.size() == m_imageSize;
      if (m_voice.Answer(Phase::PpDone, request, whole)) {
        m_mode = Mode::Normal;
        m_application = m_image;
        m_versions.software = m_newVersion;
      }
      break;
    }
    case kPpRadio:
      if (m_voice.Answer(Phase::PpRadioRequest, request, data.empty())) {
        m_mode = Mode::RadioWaits;
        m_line.SetTimer(Line::Clock::now() + kSpeedPoll);
      }
      break;
    case kPpRadioResult:
      _TakeRadioResult(request);
      break;
    default:
      break;
  }
}

bool Pp7308::_TakeFirmwareInfo(const Bytes& data) {
  constexpr std::size_t kBeforeVersion = 5;
  constexpr std::size_t kBeforeName = 10;
  if (m_mode != Mode::Upgrading || data.size() <= kBeforeName || data[0] != kFamilyByte ||
      data[kBeforeName - 1] != data.size() - kBeforeName) {
    return false;
  }
  m_imageSize = GetLittle(&data[1], 4);
  std::copy_n(data.begin() + kBeforeVersion, m_newVersion.size(), m_newVersion.begin());
  m_fileName.assign(data.begin() + kBeforeName, data.end());
  m_image.clear();
  m_nextPacket = 1;
  return m_imageSize > 0;
}

bool Pp7308::_TakePacket(const Bytes& data) {
  const std::size_t wanted =
      m_mode == Mode::Upgrading ? std::min(kPacketSize, m_imageSize - m_image.size()) : 0;
  if (wanted == 0 || data.size() != wanted + 1 || data[0] != m_nextPacket) {
    return false;
  }
  m_image.insert(m_image.end(), data.begin() + 1, data.end());
  ++m_nextPacket;
  return true;
}

void Pp7308::_TakeRadioResult(const SerialFrame& request) {
  m_radioResult = Packed(request);
  if (m_voice.Answer(Phase::PpRadioResult, request, request.data == Bytes{0})) {
    m_versions.radio = RadioVersion(m_radio);
  }
}

}  // namespace station

/// The microcontroller's answers. Frames are those of SerialFrame.h, with protocol 01, project 90, device 01
/// (host) or 02 (MCU). The exchange; every response but the first is one status byte, 0 for success:
///
///   1A0 version                       <- status, 0 application or 1 boot loader, four numbers, two reserved
///   1A1 start                         the application leaves for the boot loader
///   1A2 02, image size (4 bytes, low byte first), version (one byte for each of four fields), file name
///   1A3 package number (from 1, wraps), up to 512 bytes of the image; only the last package is shorter
///   1A4 done                          the boot loader starts the application
///
/// A frame with a wrong check value is not answered. While it restarts the chip hears nothing.
#include "VirtualStation/Chips/Mcu.h"

#include <algorithm>
#include <optional>

#include "VirtualStation/Chips/SerialFrame.h"

namespace station {
namespace {

constexpr const char* kDevice = "/dev/ttymxc3";
constexpr unsigned kSpeed = 115200;
constexpr std::chrono::milliseconds kRestartTime(400);

constexpr std::size_t kMaxFrame = 1024;
constexpr std::uint8_t kProtocol = 0x01;
constexpr std::uint8_t kProject = 0x90;
constexpr std::uint8_t kHost = 0x01;
constexpr std::uint8_t kSelf = 0x02;

enum Command : unsigned {
  kVersion = 0x1A0,
  kStart = 0x1A1,
  kDescription = 0x1A2,
  kPackage = 0x1A3,
  kDone = 0x1A4
};
enum Status : std::uint8_t { kSuccess = 0, kNotSupported = 0xF1, kInvalid = 0xF2, kOther = 0xFF };

constexpr std::uint8_t kMcuImage = 2;
constexpr std::size_t kPackageSize = 512;
constexpr std::size_t kFlashSize = 512 * 1024;

}  // namespace

Mcu::Mcu() : m_line(kDevice, kSpeed, [this](const Bytes& bytes) { _Receive(bytes); }) {}

Bytes Mcu::Memory(std::size_t size) const {
  const CLock lock(m_mutex);
  return m_flash.Read(0, size);
}

bool Mcu::InBootLoader() const {
  const CLock lock(m_mutex);
  return m_bootLoader;
}

Mcu::Version Mcu::ApplicationVersion() const {
  const CLock lock(m_mutex);
  return m_version;
}

void Mcu::SetApplicationVersion(const Version& version) {
  const CLock lock(m_mutex);
  m_version = version;
}

std::string Mcu::ImageName() const {
  const CLock lock(m_mutex);
  return m_imageName;
}

void Mcu::PowerCycle() {
  const CLock lock(m_mutex);
  m_input.clear();
  m_deafUntil = {};
}

void Mcu::_Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  if (Line::Clock::now() < m_deafUntil) {
    return;
  }
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  while (const std::optional<SerialFrame> frame = TakeFrame(m_input, kMaxFrame)) {
    if (frame->protocol == kProtocol && frame->project == kProject && frame->device == kHost &&
        frame->type == SerialFrame::kRequest) {
      m_number = frame->number;
      _Dispatch(frame->command, frame->data);
    }
  }
}

void Mcu::_Dispatch(unsigned command, const Bytes& data) {
  switch (command) {
    case kVersion: {
      Bytes answer = {kSuccess, static_cast<std::uint8_t>(m_bootLoader)};
      answer.insert(answer.end(), m_version.begin(), m_version.end());
      answer.resize(answer.size() + 2);
      _Answer(Phase::McuVersion, command, answer);
      break;
    }
    case kStart:
      _Answer(Phase::McuEnterBoot, command, {kSuccess});
      break;
    case kDescription:
      _Answer(Phase::McuFirmwareInfo, command, {_TakeDescription(data)});
      break;
    case kPackage:
      _Answer(Phase::McuPackage, command, {_TakePackage(data)});
      break;
    case kDone: {
      const bool whole = m_bootLoader && m_imageSize > 0 && m_written == m_imageSize;
      _Answer(Phase::McuDone, command, {whole ? kSuccess : m_bootLoader ? kOther : kNotSupported});
      break;
    }
    default:
      break;
  }
}

std::uint8_t Mcu::_TakeDescription(const Bytes& data) {
  constexpr std::size_t kBeforeVersion = 5;
  if (!m_bootLoader) {
    return kNotSupported;
  }
  if (data.size() <= kBeforeVersion + m_newVersion.size() || data[0] != kMcuImage) {
    return kInvalid;
  }
  const std::size_t size = GetLittle(&data[1], 4);
  if (size == 0 || size > kFlashSize) {
    return kInvalid;
  }
  const auto version = data.begin() + kBeforeVersion;
  std::copy_n(version, m_newVersion.size(), m_newVersion.begin());
  m_imageName.assign(version + static_cast<std::ptrdiff_t>(m_newVersion.size()), data.end());
  m_imageSize = size;
  m_written = 0;
  m_nextPackage = 1;
  for (std::size_t address = 0; address < size; address += FlashModel::kSectorSize) {
    m_flash.Erase(static_cast<std::uint32_t>(address));
  }
  return kSuccess;
}

std::uint8_t Mcu::_TakePackage(const Bytes& data) {
  if (!m_bootLoader) {
    return kNotSupported;
  }
  const std::size_t wanted = std::min(kPackageSize, m_imageSize - m_written);
  if (wanted == 0 || data.size() != wanted + 1 || data[0] != m_nextPackage) {
    return kInvalid;
  }
  m_flash.Program(static_cast<std::uint32_t>(m_written), &data[1], wanted);
  m_written += wanted;
  ++m_nextPackage;
  return kSuccess;
}

/// Answers, and switches between application and boot loader when that is what the answer says.
void Mcu::_Answer(Phase phase, unsigned command, Bytes data) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return;
  }
  if (faults->count(FaultKind::Refuse) != 0) {
    data[0] = kOther;
  }
  if (data[0] == kSuccess && (phase == Phase::McuEnterBoot || phase == Phase::McuDone)) {
    _Switch(phase == Phase::McuEnterBoot);
  }
  m_line.Send(Packed({kProtocol, kProject, kSelf, m_number, SerialFrame::kResponse, command, data}, *faults),
              *faults);
}

void Mcu::_Switch(bool bootLoader) {
  if (m_bootLoader == bootLoader) {
    return;
  }
  m_bootLoader = bootLoader;
  if (!bootLoader) {
    m_version = m_newVersion;
  }
  m_imageSize = m_written = 0;
  m_input.clear();
  m_deafUntil = Line::Clock::now() + kRestartTime;
}

}  // namespace station

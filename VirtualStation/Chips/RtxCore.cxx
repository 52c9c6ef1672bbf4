/// The radio's boot loaders, step by step. The exchange, host on the left:
///
///                                                        <- 02 (STX)        the ROM boot loader starts,
///                                                                           at 19200 bits per second
///   01 (SOH) length (low byte first)                     <- 06 (ACK)        the pre-loader is announced
///   image                                                <- XOR of all its bytes
///   the same byte again                                                     agreed: the pre-loader runs
///   01 (START)                                           <- 02 (READY)
///   09 09 09 (code of the new speed)                                        both sides change the speed
///   03 (NEW_BAUDRATE)                                    <- 04 (NEW_BAUDRATE_READY)
///   length (high byte first), image                      <- XOR of all its bytes; the flash loader runs
///   packets, each answered by a confirmation:
///   'F', length (low byte first), primitive and data, CRC-16 over these two (low byte first)
///
/// A packet with a wrong check value or length is not answered.
#include "VirtualStation/Chips/RtxCore.h"

#include <algorithm>
#include <utility>

namespace station {
namespace {

constexpr std::uint8_t kSoh = 0x01;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
constexpr std::uint8_t kStart = 0x01;
constexpr std::uint8_t kReady = 0x02;
constexpr std::uint8_t kNewSpeed = 0x03;
constexpr std::uint8_t kNewSpeedReady = 0x04;
/// Speeds of the codes from 5 on.
constexpr std::uint8_t kFirstSpeedCode = 5;
constexpr unsigned kSpeeds[] = {9600, 19200, 57600, 115200, 230400, 460800, 921600, 1843200};
constexpr std::ptrdiff_t kSpeedRepeats = 3;

constexpr std::uint8_t kPacketHead = 'F';
constexpr std::size_t kPacketFrame = 5;  ///< bytes of a packet that are not payload
constexpr std::size_t kMaxPayload = 2055;
enum Primitive : std::uint8_t { kVersion = 13, kConfig = 15, kProgram = 17, kCrc32 = 19, kErase = 21 };
constexpr std::uint8_t kEraseSector = 0x30;
constexpr std::uint32_t kFlashBase = 0x60000000;
constexpr std::uint8_t kFlashConfig = 3;
constexpr std::uint32_t kFlashSize = 16U << 20U;

}  // namespace

RtxCore::RtxCore(Conduct& conduct, Line& line) : m_conduct(conduct), m_line(line) {}

Bytes RtxCore::Memory(std::uint32_t start, std::size_t size) const {
  const CLock lock(m_mutex);
  return m_flash.Read(start, size);
}

Bytes RtxCore::PreLoader() const {
  const CLock lock(m_mutex);
  return m_preLoader;
}

Bytes RtxCore::FlashLoader() const {
  const CLock lock(m_mutex);
  return m_flashLoader;
}

unsigned RtxCore::HighestSpeed() const {
  const CLock lock(m_mutex);
  return m_highestSpeed;
}

unsigned RtxCore::Speed() const {
  const CLock lock(m_mutex);
  return m_speed;
}

void RtxCore::PowerCycle() {
  const CLock lock(m_mutex);
  m_preLoader.clear();
  m_flashLoader.clear();
  m_highestSpeed = 0;
  _Enter(Program::None, Step::Header);
}

void RtxCore::Hold() {
  const CLock lock(m_mutex);
  _Enter(Program::None, Step::Header);
}

void RtxCore::Boot() {
  const CLock lock(m_mutex);
  m_configured = false;
  _Enter(Program::Rom, Step::Header);
  _SetSpeed(kRomSpeed);
  _AnswerByte(Phase::RtxRom, kStx);
}

void RtxCore::Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  while (!m_input.empty() && _TakeStep()) {
  }
}

/// Takes one step's bytes off the input. False: more must come first.
bool RtxCore::_TakeStep() {
  if (m_program == Program::None) {
    m_input.clear();
    return false;
  }
  switch (m_step) {
    case Step::Header:
      return _TakeHeader();
    case Step::Image:
      return _TakeImage();
    case Step::Echo:
      return _TakeEcho();
    case Step::Start:
      return _TakeByte(kStart, Phase::RtxStart, kReady, Step::Speed);
    case Step::Speed:
      return _TakeSpeed();
    case Step::SpeedReady:
      return _TakeByte(kNewSpeed, Phase::RtxSpeedReady, kNewSpeedReady, Step::Header);
    case Step::Packet:
      return _TakePacket();
  }
  return false;
}

bool RtxCore::_TakeHeader() {
  if (m_program == Program::PreLoader) {
    if (m_input.size() < 2) {
      return false;
    }
    m_imageSize = static_cast<std::size_t>(m_input[0]) << 8U | m_input[1];
    m_input.erase(m_input.begin(), m_input.begin() + 2);
    m_step = Step::Image;
    return true;
  }
  if (m_input[0] != kSoh) {
    m_input.erase(m_input.begin());
    return true;
  }
  if (m_input.size() < 3) {
    return false;
  }
  m_imageSize = GetLittle(&m_input[1], 2);
  m_input.erase(m_input.begin(), m_input.begin() + 3);
  m_step = m_imageSize == 0 ? Step::Header : Step::Image;
  _AnswerByte(Phase::RtxPreLoaderHeader, m_imageSize == 0 ? kNak : kAck);
  return true;
}

bool RtxCore::_TakeImage() {
  if (m_input.size() < m_imageSize) {
    return false;
  }
  const auto end = m_input.begin() + static_cast<std::ptrdiff_t>(m_imageSize);
  Bytes& image = m_program == Program::Rom ? m_preLoader : m_flashLoader;
  image.assign(m_input.begin(), end);
  m_input.erase(m_input.begin(), end);
  m_check = XorOf(image.data(), image.size());
  if (m_program == Program::Rom) {
    m_step = Step::Echo;
    _AnswerByte(Phase::RtxPreLoaderImage, m_check);
  } else {
    _Enter(Program::FlashLoader, Step::Packet);
    _AnswerByte(Phase::RtxFlashLoader, m_check);
  }
  return true;
}

bool RtxCore::_TakeEcho() {
  const bool agreed = m_input[0] == m_check;
  m_input.erase(m_input.begin());
  if (agreed && m_conduct.Reach(Phase::RtxPreLoaderEcho)) {
    _Enter(Program::PreLoader, Step::Start);
  } else {
    m_step = Step::Header;
  }
  return true;
}

bool RtxCore::_TakeByte(std::uint8_t wanted, Phase phase, std::uint8_t answer, Step next) {
  const bool good = m_input[0] == wanted;
  m_input.erase(m_input.begin());
  if (good) {
    m_step = next;
    _AnswerByte(phase, answer);
  }
  return true;
}

bool RtxCore::_TakeSpeed() {
  const std::size_t code = m_input[0];
  if (code < kFirstSpeedCode || code >= kFirstSpeedCode + std::size(kSpeeds)) {
    m_input.erase(m_input.begin());
    return true;
  }
  if (m_input.size() < std::size_t{kSpeedRepeats}) {
    return false;
  }
  const bool sure = std::all_of(m_input.begin(), m_input.begin() + kSpeedRepeats,
                                [&](std::uint8_t byte) { return byte == code; });
  m_input.erase(m_input.begin(), m_input.begin() + (sure ? kSpeedRepeats : 1));
  if (sure && m_conduct.Reach(Phase::RtxSpeed)) {
    _SetSpeed(kSpeeds[code - kFirstSpeedCode]);
    m_step = Step::SpeedReady;
  }
  return true;
}

bool RtxCore::_TakePacket() {
  const std::size_t size = m_input.size() < 3 ? 0 : GetLittle(&m_input[1], 2);
  if (m_input[0] != kPacketHead || (m_input.size() >= 3 && (size == 0 || size > kMaxPayload))) {
    m_input.erase(m_input.begin());
    return true;
  }
  if (m_input.size() < 3 || m_input.size() < size + kPacketFrame) {
    return false;
  }
  const Bytes payload(m_input.begin() + 3, m_input.begin() + 3 + static_cast<std::ptrdiff_t>(size));
  const bool sound = GetLittle(&m_input[size + 3], 2) == Crc16Of(payload.data(), payload.size());
  m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(size + kPacketFrame));
  if (sound) {
    _Dispatch(payload);
  }
  return true;
}

/// Carries a request out and confirms it; the confirmation's primitive is the next number.
void RtxCore::_Dispatch(const Bytes& payload) {
  const std::uint8_t* const data = payload.data() + 1;
  const std::size_t size = payload.size() - 1;
  const auto confirmation = static_cast<std::uint8_t>(payload[0] + 1);
  const std::uint32_t address = size < 4 ? 0 : GetLittle(data, 4);
  Bytes answer;
  switch (payload[0]) {
    case kVersion:
      _AnswerPacket(Phase::RtxVersion, confirmation, {2, 7, 1}, false);
      break;
    case kConfig: {
      Bytes wanted(8, 0);
      PutLittle(wanted, kFlashBase, 4);
      wanted.push_back(kFlashConfig);
      m_configured = Bytes(data, data + size) == wanted;
      answer.push_back(m_configured ? 1 : 0);
      _AnswerPacket(Phase::RtxConfig, confirmation, answer, true);
      break;
    }
    case kErase: {
      const bool good = m_configured && size == 5 && data[4] == kEraseSector;
      if (good) {
        m_flash.Erase(address);
      }
      PutLittle(answer, address, 4);
      answer.push_back(good ? 1 : 0);
      _AnswerPacket(Phase::RtxErase, confirmation, answer, true);
      break;
    }
    case kProgram: {
      const std::uint32_t words = size < 6 ? 0 : GetLittle(data + 4, 2);
      const bool good = m_configured && words > 0 && size == 6 + std::size_t{2} * words;
      if (good) {
        m_flash.Program(address, data + 6, size - 6);
      }
      PutLittle(answer, address, 4);
      PutLittle(answer, words, 2);
      answer.push_back(good ? 1 : 0);
      _AnswerPacket(Phase::RtxProgram, confirmation, answer, true);
      break;
    }
    case kCrc32: {
      const std::uint32_t length = size == 8 ? GetLittle(data + 4, 4) : 0;
      PutLittle(answer, address, 4);
      PutLittle(answer, length, 4);
      PutLittle(answer, Crc32Of(m_flash.Read(address, std::min(length, kFlashSize))), 4);
      _AnswerPacket(Phase::RtxVerify, confirmation, answer, false);
      break;
    }
    default:
      break;
  }
}

void RtxCore::_AnswerByte(Phase phase, std::uint8_t answer) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return;
  }
  Bytes bytes = {answer};
  if (faults->count(FaultKind::WrongCheck) != 0) {
    bytes[0] = static_cast<std::uint8_t>(~answer);
  }
  if (faults->count(FaultKind::Refuse) != 0) {
    bytes[0] = answer == kNak ? kAck : kNak;
  }
  if (faults->count(FaultKind::WrongLength) != 0) {
    bytes.push_back(kNak);
  }
  m_line.Send(bytes, *faults);
}

void RtxCore::_AnswerPacket(Phase phase, std::uint8_t primitive, Bytes data, bool hasStatus) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return;
  }
  if (faults->count(FaultKind::Refuse) != 0) {
    data.back() = hasStatus ? 0 : static_cast<std::uint8_t>(~data.back());
  }
  if (faults->count(FaultKind::WrongLength) != 0) {
    data.pop_back();
  }
  data.insert(data.begin(), primitive);
  const unsigned check = Crc16Of(data.data(), data.size()) ^ (faults->count(FaultKind::WrongCheck) != 0);
  Bytes packet = {kPacketHead};
  PutLittle(packet, data.size() + faults->count(FaultKind::WrongLengthField), 2);
  packet.insert(packet.end(), data.begin(), data.end());
  PutLittle(packet, check, 2);
  m_line.Send(packet, *faults);
}

void RtxCore::_Enter(Program program, Step step) {
  m_program = program;
  m_step = step;
  m_input.clear();
}

void RtxCore::_SetSpeed(unsigned bitsPerSecond) {
  m_speed = bitsPerSecond;
  m_highestSpeed = std::max(m_highestSpeed, bitsPerSecond);
  m_line.SetSpeed(bitsPerSecond);
}

}  // namespace station

/// XMODEM-1K with CRC as the chip speaks it: the loader sends 'C' once a second until the first block comes.
/// A block is STX (SOH: 128 bytes), its number from 1 on, the number's complement, 1024 bytes and their
/// CRC-16 (high byte first); ACK takes it, NAK asks for it again. EOT ends the image. Having it all the chip
/// leaves its loader; after a transfer that breaks off it invites anew.
#include "VirtualStation/Chips/UacLoader.h"

namespace station {
namespace {

constexpr const char* kDevice = "/dev/ttyCH341USB0";
constexpr unsigned kSpeed = 115200;
constexpr std::chrono::seconds kInviteEvery(1);
constexpr std::chrono::seconds kBreakOff(15);
/// Within a block; then the loader asks for it again.
constexpr std::chrono::milliseconds kBetweenBytes(500);

constexpr std::uint8_t kSoh = 0x01;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEot = 0x04;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
constexpr std::uint8_t kCan = 0x18;
constexpr std::size_t kHead = 3;
constexpr std::size_t kCrc = 2;
constexpr std::size_t kShortBlock = 128;
constexpr std::size_t kLongBlock = 1024;

}  // namespace

UacLoader::UacLoader()
    : m_line(
          kDevice, kSpeed, [this](const Bytes& bytes) { _Receive(bytes); }, [this] { _TimeOut(); }) {
  m_line.SetTimer(Line::Clock::now() + kInviteEvery);
}

Bytes UacLoader::Memory() const {
  const CLock lock(m_mutex);
  return m_memory;
}

bool UacLoader::Complete() const {
  const CLock lock(m_mutex);
  return m_complete;
}

void UacLoader::PowerCycle() {
  const CLock lock(m_mutex);
  m_input.clear();
  m_underWay = m_complete = false;
  m_line.SetTimer(Line::Clock::now() + kInviteEvery);
}

/// A block has stopped half way, the transfer has broken off, or it is time for the next invitation.
void UacLoader::_TimeOut() {
  const CLock lock(m_mutex);
  if (!m_input.empty()) {
    m_input.clear();
    m_line.SetTimer(Line::Clock::now() + kBreakOff);
    _Answer(Phase::UacBlock, kNak);
    return;
  }
  m_underWay = false;
  if (!m_complete) {
    m_line.SetTimer(Line::Clock::now() + kInviteEvery);
    _Answer(Phase::UacInvite, 'C');
  }
}

void UacLoader::_Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  if (m_complete) {
    m_input.clear();
  }
  while (!m_input.empty() && _TakeItem()) {
  }
}

/// Takes a block, a control character or a byte of noise off the input. False: more must come first.
bool UacLoader::_TakeItem() {
  if (m_input[0] == kSoh || m_input[0] == kStx) {
    const std::size_t size = m_input[0] == kStx ? kLongBlock : kShortBlock;
    const bool whole = m_input.size() >= kHead + size + kCrc;
    m_line.SetTimer(Line::Clock::now() + (whole ? Line::Clock::duration(kBreakOff) : kBetweenBytes));
    if (!whole) {
      return false;
    }
    _TakeBlock(size);
    return true;
  }
  const bool end = m_input[0] == kEot && m_underWay;
  m_input.erase(m_input.begin());
  if (end) {
    m_complete = true;
    m_line.SetTimer(std::nullopt);
    _Answer(Phase::UacEnd, kAck);
  }
  return true;
}

void UacLoader::_TakeBlock(std::size_t size) {
  const Bytes block(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(kHead + size + kCrc));
  m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(block.size()));
  const std::uint8_t number = block[1];
  const auto crc = static_cast<std::uint16_t>(block[kHead + size] << 8 | block[kHead + size + 1]);
  if (!m_underWay) {
    m_memory.clear();
    m_nextBlock = 1;
  }
  const bool repeated = m_underWay && number == static_cast<std::uint8_t>(m_nextBlock - 1);
  const bool sound = static_cast<std::uint8_t>(~number) == block[2] && Crc16Of(&block[kHead], size) == crc &&
                     (repeated || number == m_nextBlock);
  if (!sound) {
    m_input.clear();  // whatever follows is out of step
  } else if (!repeated) {
    m_underWay = true;
    m_memory.insert(m_memory.end(), block.begin() + kHead, block.end() - kCrc);
    ++m_nextBlock;
  }
  _Answer(Phase::UacBlock, sound ? kAck : kNak);
}

void UacLoader::_Answer(Phase phase, std::uint8_t answer) {
  const auto faults = m_line.Reach(m_conduct, phase);
  if (!faults) {
    return;
  }
  Bytes bytes = {answer};
  if (faults->count(FaultKind::WrongCheck) != 0) {
    bytes = {kNak};
  }
  if (faults->count(FaultKind::Refuse) != 0) {
    bytes = {kCan, kCan};
  }
  if (faults->count(FaultKind::WrongLength) != 0) {
    bytes.push_back(kNak);
  }
  m_line.Send(bytes, *faults);
}

}  // namespace station

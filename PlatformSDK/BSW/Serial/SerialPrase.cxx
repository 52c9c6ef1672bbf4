/// The receive thread that turns the stream into checked frames, and both directions of the frame format.
/// Idle and read times may be changed, the format not.
#include "BSW/Serial/SerialPrase.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr uint32_t kIdleMs = 100;
constexpr int32_t kReadTimeoutMs = 100;

constexpr uint8_t kSentTagHigh = 0xBB;
constexpr uint8_t kReceivedTagHigh = 0xAA;
constexpr uint8_t kTagLow = 0xDD;
constexpr size_t kTagSize = 2;
constexpr size_t kTypeAt = 2;
constexpr size_t kLengthAt = 3;
constexpr uint16_t kHeaderSize = 5;

// Frame lengths travel as int16_t.
constexpr uint16_t kMaxFrame = std::numeric_limits<int16_t>::max();
constexpr uint16_t kMaxPayload = kMaxFrame - kSerialPraseOverhead;

uint16_t PayloadLength(const uint8_t* frame) {
  return static_cast<uint16_t>(frame[kLengthAt] + 256 * frame[kLengthAt + 1]);
}

}  // namespace

SerialPrase::SerialPrase(const std::string& name, uint32_t maxRecvLen)
    : CSerialLink(name, maxRecvLen, "master", "slaver"),
      m_maxPayload(static_cast<uint16_t>(std::min<uint32_t>(maxRecvLen, kMaxPayload))),
      m_LineReader(maxRecvLen),
      m_pstUartFrame(m_maxPayload + kSerialPraseOverhead) {}

SerialPrase::~SerialPrase() {
  DestroySerial();
}

short SerialPrase::SendFrame(uint8_t dataType, const void* payload, unsigned short length) {
  // The limit counts payload and header; the check byte comes on top.
  std::vector<uint8_t> buffer(std::min<uint32_t>(m_recvMaxLen, kMaxFrame - 1U) + 1U);
  const int16_t size =
      PackFrame(buffer.data(), static_cast<uint16_t>(buffer.size()), dataType, payload, length);
  if (size == 0) LOGE("s16FrameLen error!");
  if (size <= 0) return -1;
  if (m_pCSerial->Write(reinterpret_cast<const char*>(buffer.data()), size) != size) {
    LOGE("Send Frame error!");
    return -1;
  }
  return size;
}

int16_t SerialPrase::PackFrame(uint8_t* buffer, uint16_t capacity, uint8_t dataType, const void* payload,
                               uint16_t length) {
  const uint16_t carried = payload != nullptr ? length : uint16_t{0};
  const bool fits =
      length + kHeaderSize <= capacity && carried + kSerialPraseOverhead <= std::min(capacity, kMaxFrame);
  if (buffer == nullptr || !fits) {
    LOGE("bad parameter!");
    return -1;
  }
  const size_t checkAt = static_cast<size_t>(kHeaderSize) + carried;
  buffer[0] = kSentTagHigh;
  buffer[1] = kTagLow;
  buffer[kTypeAt] = dataType;
  buffer[kLengthAt] = static_cast<uint8_t>(carried);
  buffer[kLengthAt + 1] = static_cast<uint8_t>(carried >> 8U);
  if (carried > 0) std::memcpy(buffer + kHeaderSize, payload, carried);
  buffer[checkAt] = CrcXor(buffer, checkAt);
  const auto size = static_cast<int16_t>(carried + kSerialPraseOverhead);
  DumpFrame(SERIAL_NAME_SENDER, SERIAL_DATA_HEX, reinterpret_cast<const char*>(buffer), size);
  return size;
}

void SerialPrase::ReceiveLoop() {
  // At this level so that a console at any threshold shows when a line begins to be read.
  LOGE("Enter SerialPrase Thread");
  std::vector<uint8_t> received(m_pstUartFrame.size());
  while (IsReceiving()) {
    if (!WaitUntilUsable(kIdleMs)) continue;
    const uint32_t line = LineNumber();
    // What an earlier line left there is another device's.
    if (std::exchange(m_iReadLine, line) != line) m_LineReader.Reset();
    m_bReadFailed = false;
    const int32_t length = GetLine(received.data(), m_maxPayload, false, kReadTimeoutMs);
    if (m_bReadFailed) Recover(line);
    if (length <= 0) continue;
    const int16_t size = UnpackFrame(received.data(), static_cast<uint16_t>(length), m_pstUartFrame.data());
    if (size > 0) ProcessFrame(m_pstUartFrame.data(), size);
  }
}

int32_t SerialPrase::GetLine(uint8_t* buffer, uint16_t maxPayload, bool blocking, int32_t timeoutMs) {
  return m_LineReader.GetLine(buffer, maxPayload, [&](char* chunk, int size) {
    const int count = m_pCSerial->Read(chunk, size, blocking, timeoutMs);
    if (count < 0) m_bReadFailed = true;
    return count;
  });
}

int16_t SerialPrase::UnpackFrame(const uint8_t* buffer, uint16_t length, uint8_t* out) {
  DumpFrame(SERIAL_NAME_RECV, SERIAL_DATA_HEX, reinterpret_cast<const char*>(buffer), length);
  if (buffer == nullptr) {
    LOGE("bad parameter!");
    return -1;
  }
  if (length < kTagSize || buffer[0] != kReceivedTagHigh || buffer[1] != kTagLow) {
    LOGE("bad soc msg data buffer!");
    return -1;
  }
  const int payload = length >= kHeaderSize ? PayloadLength(buffer) : 0;
  const int total = payload + kSerialPraseOverhead;
  if (total > std::min(length, kMaxFrame)) {
    LOGE("data len is error, reallen(%d)  recv_len(%d)!", total, length);
    return -1;
  }
  const auto checkAt = static_cast<size_t>(total) - 1;
  const uint8_t check = CrcXor(buffer, checkAt);
  if (check != buffer[checkAt]) {
    LOGE("data crc is error, realcrc(%#x)  recv_len(%#x)!", check, buffer[checkAt]);
    return -1;
  }
  if (out != nullptr) std::memcpy(out, buffer, static_cast<size_t>(total));
  return static_cast<int16_t>(total);
}

int32_t SerialPrase::ProcessFrame(const uint8_t* frame, int16_t length) {
  if (frame == nullptr || length < kSerialPraseOverhead ||
      PayloadLength(frame) + kSerialPraseOverhead > length) {
    LOGE("bad parameter!");
    return -1;
  }
  return UartRecvCallback(frame[kTypeAt], frame + kHeaderSize, static_cast<int16_t>(PayloadLength(frame)));
}

uint16_t SerialPrase::_PackCrc16(const uint8_t* data, uint32_t length) {
  return CRC16_XMODEM(data, length);
}

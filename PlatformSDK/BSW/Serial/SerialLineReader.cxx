/// The hunt for legacy frames, byte by byte. The form of the head is the wire's.
#include "BSW/Serial/SerialLineReader.h"

#include "BSW/Log/CLog.h"

namespace {

constexpr int kTagHigh = 0xAA;
constexpr int kTagLow = 0xDD;
constexpr size_t kHeaderSize = 5;  // tag, type, length

}  // namespace

SerialLineReader::SerialLineReader(size_t chunkSize)
    : m_lpBuf(chunkSize), m_lpBufPtr(m_lpBuf.data()), m_lpBufEnd(m_lpBuf.data()) {}

int32_t SerialLineReader::GetLine(uint8_t* frame, uint16_t maxPayload, const Refill& refill) {
  int ch = _GetChar(refill);
  for (;;) {
    while (ch >= 0 && ch != kTagHigh) ch = _GetChar(refill);
    if (ch < 0) return -1;
    frame[0] = kTagHigh;
    if (!_ReadBytes(frame + 1, 1, refill)) return -1;
    if (frame[1] != kTagLow) {
      // The byte may be the first of the real tag: 0xAA as noise right before a frame.
      ch = frame[1];
      continue;
    }
    if (!_ReadBytes(frame + 2, kHeaderSize - 2, refill)) return -1;
    const auto length = static_cast<uint16_t>(frame[3] + 256 * frame[4]);
    if (length > maxPayload) {
      LOGE("Get u16DataLen error. u16DataLen = %d", length);
      ch = _GetChar(refill);
      continue;
    }
    if (!_ReadBytes(frame + kHeaderSize, length + 1U, refill)) return -1;
    return length + kSerialPraseOverhead;
  }
}

bool SerialLineReader::_ReadBytes(uint8_t* bytes, size_t count, const Refill& refill) {
  for (size_t i = 0; i < count; ++i) {
    const int ch = _GetChar(refill);
    if (ch < 0) {
      LOGE("GetChar error. ch = %d", ch);
      return false;
    }
    bytes[i] = static_cast<uint8_t>(ch);
  }
  return true;
}

int SerialLineReader::_GetChar(const Refill& refill) {
  if (m_lpBufPtr == m_lpBufEnd) {
    const int count = refill(m_lpBuf.data(), static_cast<int>(m_lpBuf.size()));
    if (count <= 0) return -1;
    m_lpBufPtr = m_lpBuf.data();
    m_lpBufEnd = m_lpBufPtr + count;
  }
  return static_cast<uint8_t>(*m_lpBufPtr++);
}

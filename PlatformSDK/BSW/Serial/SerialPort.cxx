/// The receive thread that hands chunks to the callback, and sending. Idle and read times may be changed; a
/// stop waits for neither.
#include "BSW/Serial/SerialPort.h"

#include <algorithm>
#include <limits>
#include <numeric>

#include "BSW/Log/CLog.h"

namespace {

constexpr uint32_t kIdleMs = 1000;
constexpr int kReadTimeoutMs = 1000;
// The callback takes the length as a short.
constexpr uint32_t kMaxChunk = std::numeric_limits<short>::max();

}  // namespace

SerialPort::SerialPort(const std::string& name, uint32_t maxRecvLen)
    : CSerialLink(name, maxRecvLen, "Master", "Slaver"), m_RecvBuff(std::min(maxRecvLen, kMaxChunk)) {}

SerialPort::~SerialPort() {
  DestroySerial();
}

int SerialPort::SendFrame(const char* frame, int length) {
  const int count = m_pCSerial->Write(frame, length);
  if (count == 0) {
    LOGE("Send Frame error FrameLen : %d!", length);
    return -1;
  }
  return count;
}

void SerialPort::ReceiveLoop() {
  // At this level so that a console at any threshold shows when a line begins to be read.
  LOGE("Enter SerialPort Thread, m_ThreadRunning = %d, m_bRunFlag = %d", IsReceiving(), IsUsable());
  while (IsReceiving()) {
    if (!WaitUntilUsable(kIdleMs)) continue;
    const uint32_t line = LineNumber();
    std::fill(m_RecvBuff.begin(), m_RecvBuff.end(), '\0');
    const int count =
        m_pCSerial->Read(m_RecvBuff.data(), static_cast<int>(m_RecvBuff.size()), false, kReadTimeoutMs);
    if (count > 0) _HandOver(count);
    if (count < 0) Recover(line);
  }
  LOGE("Exit SerialPort Thread");
}

void SerialPort::_HandOver(int length) {
  SerialRecvCallback callback;
  {
    const CLock lock(m_callbackMutex);
    callback = m_RecvFun;
  }
  if (callback) callback(m_RecvBuff.data(), static_cast<short>(length));
}

void SerialPort::RegisterUartEventCallback(const SerialRecvCallback& callback) {
  const CLock lock(m_callbackMutex);
  m_RecvFun = callback;
}

void SerialPort::UnRegisterUartEventCallback() {
  RegisterUartEventCallback(nullptr);
}

uint8_t SerialPort::GetSum(const std::vector<uint8_t>& bytes) {
  return static_cast<uint8_t>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

/// The queue between the receive thread and the parser thread, and the sending of numbered frames. Each pass
/// parses a copy, so that the queue's lock is never held while a handler runs.
#include "BSW/Serial/SerialProtocolMng.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>

#include "BSW/BasicFun/Crc.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"
#include "BSW/Serial/McuFrameParser.h"

namespace {

constexpr const char* kTrafficLog = "/data/mcu.log";

/// The other end is asked and answers: what is queued beyond this many of the largest frames is a flood.
constexpr size_t kMaxQueuedFrames = 8;

/// Local time as "2024-01-31 23:59:59.999".
std::string TimeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return FormatText("%s.%03ld", text.data(), now.tv_nsec / 1'000'000L);
}

}  // namespace

SerialProtocolMng::SerialProtocolMng(const std::string& name, uint32_t maxFrameLen,
                                     const PayloadCfg_t& config, bool logTraffic)
    : SerialPort(name, maxFrameLen), CThread(name), m_stPayloadCfg(config), m_iMaxRecvLen(maxFrameLen) {
  if (logTraffic) {
    m_osLog.open(kTrafficLog, std::ios::app);
    if (!m_osLog.is_open()) LOGE("Open log file error! %s", std::strerror(errno));
  }
  if (!CreateThread(0)) LOGE("Cannot start the parser thread %s", name.c_str());
}

SerialProtocolMng::~SerialProtocolMng() {
  LOGI("SerialProtocolMng::~SerialProtocolMng");
  DestroySerial();
  m_osLog.close();
  DestroyThread(true, true);
  LOGI("SerialProtocolMng::~SerialProtocolMng done");
}

void SerialProtocolMng::RegFrameRecvCb(const ProtocolDataHandler& handler) {
  const CLock lock(m_handlerMutex);
  m_ProtocolDataHandler = handler;
}

void SerialProtocolMng::UnregFrameRecvCb() {
  RegFrameRecvCb(nullptr);
}

bool SerialProtocolMng::PackAndSendFrame(const ProtocolData_t& data) {
  const CLock lock(m_sendMutex);
  const std::vector<uint8_t> frame = McuFrame::Pack(m_stPayloadCfg, m_iSnr, data);
  const auto* bytes = reinterpret_cast<const char*>(frame.data());
  const auto size = static_cast<int>(frame.size());
  DumpFrame(SERIAL_NAME_SENDER, SERIAL_DATA_HEX, bytes, size);
  if (frame.empty() || SendFrame(bytes, size) != size) {
    LOGE("Failed to send a frame!");
    return false;
  }
  ++m_iSnr;
  return true;
}

int SerialProtocolMng::_UartRecvCallback(const void* data, short length) {
  if (data == nullptr || length < 0) {
    LOGE("Error content of uart frame");
    return -1;
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  const auto size = static_cast<size_t>(length);
  const uint32_t line = LineNumber();
  {
    const CLock lock(m_RecvLock);
    // The rest of a frame that the end of an earlier line cut off will never come.
    if (line != m_iQueuedLine) m_deqRecvBuf.clear();
    m_iQueuedLine = line;
    const bool fits = m_deqRecvBuf.size() + size <= kMaxQueuedFrames * m_iMaxRecvLen;
    if (!fits && !m_bOverflow)
      LOGE("Flood of received bytes, the queue is full! Size:%zu", m_deqRecvBuf.size());
    m_bOverflow = !fits;
    if (fits) m_deqRecvBuf.insert(m_deqRecvBuf.end(), bytes, bytes + size);
    m_bBufferReadFlag = true;
  }
  m_cvBufferRead.NotifyOne();
  _LogTraffic(bytes, size);
  return 0;
}

void SerialProtocolMng::_LogTraffic(const uint8_t* data, size_t length) {
  if (m_osLog.is_open()) m_osLog << '[' << TimeStamp() << "] " << HexText(data, length) << std::endl;
}

void SerialProtocolMng::ThreadProc() {
  while (IsRunning()) _ProcessRecvFrame();
}

void SerialProtocolMng::OnStopRequested() {
  {
    const CLock lock(m_RecvLock);
    m_bBufferReadFlag = true;
  }
  m_cvBufferRead.NotifyAll();
}

void SerialProtocolMng::LineClosed() {
  const CLock lock(m_RecvLock);
  m_deqRecvBuf.clear();
  m_iQueuedLine = LineNumber();
  m_cvHandled.Wait(m_RecvLock, [this]() REQUIRES(m_RecvLock) {
    return m_handlingThread == std::thread::id() || m_handlingThread == std::this_thread::get_id();
  });
}

SerialProtocolMng::RetValueType SerialProtocolMng::_ProcessRecvFrame() {
  if (!_GetRecvByte(m_vecRecvFrame)) return EM_RET_ERROR;
  McuFrameParser parser(m_vecRecvFrame.data(), m_vecRecvFrame.size(), m_iMaxRecvLen);
  using Found = McuFrameParser::Found;
  for (Found found = parser.Next(); found != Found::Nothing && IsRunning(); found = parser.Next()) {
    const uint8_t* const frame = parser.Frame();
    const size_t size = parser.FrameSize();
    if (found == Found::Frame) {
      if (!_HandleFrame(frame, size)) break;
    } else if (found == Found::BadChecksum) {
      LOGE("Checksum mismatch! Expected:%02X Actual:%02X", CrcXor(frame, size - 1), frame[size - 1]);
    } else {
      const auto left = static_cast<size_t>(m_vecRecvFrame.data() + m_vecRecvFrame.size() - frame);
      const size_t shown = std::min<size_t>(left, m_iMaxRecvLen);
      LOGE("Out of range of m_iMaxRecvLen! ErrVal:%zu, %s", size, HexText(frame, shown).c_str());
    }
  }
  m_bIncomplete = parser.Consumed() < m_vecRecvFrame.size();
  if (parser.Consumed() == 0) return EM_RET_NO_NEED;
  _DeleteRecvByte(parser.Consumed());
  return EM_RET_SUCCESS;
}

bool SerialProtocolMng::_GetRecvByte(std::vector<uint8_t>& bytes) {
  const CLock lock(m_RecvLock);
  if (m_deqRecvBuf.empty() || m_bIncomplete.exchange(false)) {
    m_cvBufferRead.Wait(m_RecvLock,
                        [this]() REQUIRES(m_RecvLock) { return m_bBufferReadFlag || !IsRunning(); });
  }
  if (!IsRunning()) {
    LOGI("Exit loop");
    return false;
  }
  m_bBufferReadFlag = false;
  bytes.assign(m_deqRecvBuf.begin(), m_deqRecvBuf.end());
  m_iCopiedLine = m_iQueuedLine;
  return true;
}

void SerialProtocolMng::_DeleteRecvByte(size_t count) {
  const CLock lock(m_RecvLock);
  // The queue was begun anew: what was parsed is gone already.
  if (m_iCopiedLine != m_iQueuedLine) return;
  if (count == 0 || count > m_deqRecvBuf.size()) {
    LOGE("Out of range, empty buf!Size:%zu, m_deqRecvBuf:%zu", count, m_deqRecvBuf.size());
    m_deqRecvBuf.clear();
    return;
  }
  m_deqRecvBuf.erase(m_deqRecvBuf.begin(), m_deqRecvBuf.begin() + static_cast<std::ptrdiff_t>(count));
}

bool SerialProtocolMng::_HandleFrame(const uint8_t* frame, size_t size) {
  const std::optional<ProtocolData_t> data = McuFrame::Unpack(frame, size);
  if (!data) return true;
  ProtocolDataHandler handler;
  {
    const CLock lock(m_handlerMutex);
    handler = m_ProtocolDataHandler;
  }
  {
    // From here on a closing waits for the handler.
    const CLock lock(m_RecvLock);
    if (m_iCopiedLine != LineNumber()) return false;
    m_handlingThread = std::this_thread::get_id();
  }
  if (handler) handler(*data);
  const CLock lock(m_RecvLock);
  m_handlingThread = std::thread::id();
  m_cvHandled.NotifyAll();
  return true;
}

/// From received bytes to flags.
#include "UpgradeFrame/RtxSubmodules/RtxParser.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"

using namespace Rtx;

namespace {

/// A module answers and is silent; more than this can only be noise.
constexpr size_t kMaxQueuedChunks = 1024;

bool Contains(const Bytes& chunk, uint8_t byte) {
  return std::find(chunk.begin(), chunk.end(), byte) != chunk.end();
}

}  // namespace

RtxParser::RtxParser(RtxLine& line, CFlags& flags, const std::atomic<UpgradeStateType>& state)
    : CThread("UpgRtxRecver"), m_line(line), m_flags(flags), m_emState(state) {
  m_line.SetReceiver([this](const void* data, short length) { return _UartRecvHandler(data, length); });
}

int RtxParser::_UartRecvHandler(const void* data, short length) {
  if (data == nullptr || length <= 0) {
    LOGE("No data of %d bytes from the module!", length);
    return -1;
  }
  const auto* const bytes = static_cast<const uint8_t*>(data);
  CLog::instance()->Access("%s [%d] -> %s, L:%d, %s", RtxLine::kModuleLabel, m_line.Module(),
                           RtxLine::kStationLabel, length,
                           HexText(data, static_cast<size_t>(length)).c_str());
  const CLock lock(m_UartDataLock);
  if (m_deqUartRecvList.size() >= kMaxQueuedChunks) {
    LOGE("Too much data from the module, %d bytes dropped!", length);
    return -1;
  }
  m_deqUartRecvList.emplace_back(bytes, bytes + length);
  m_cvUartRecvCtrl.NotifyAll();
  return length;
}

void RtxParser::OnStopRequested() {
  const CLock lock(m_UartDataLock);
  m_cvUartRecvCtrl.NotifyAll();
}

void RtxParser::ThreadProc() {
  LOGI("Start processing uart data from rtx.");
  CLock lock(m_UartDataLock);
  while (IsRunning()) {
    if (m_deqUartRecvList.empty()) {
      m_cvUartRecvCtrl.Wait(m_UartDataLock);
      continue;
    }
    const Bytes chunk = std::move(m_deqUartRecvList.front());
    m_deqUartRecvList.pop_front();
    m_bParsing = true;
    lock.Unlock();
    _ParseUartData(chunk);
    lock.Lock();
    m_bParsing = false;
    m_cvUartRecvCtrl.NotifyAll();
  }
}

void RtxParser::_ParseUartData(const Bytes& chunk) {
  if (chunk.empty()) {
    LOGE("Empty uart data!");
    return;
  }
  switch (m_emState) {
    case EM_STATE_IDLE:
    case EM_STATE_INIT:
    case EM_STATE_ENTER_BOOT:
      if (chunk.front() != EM_CFG_STX_CHAR || m_flags.Has(EM_FLAG_RECV_STX)) break;
      LOGI("Recv STX char, now RTX in boot mod.");
      m_flags.Set(EM_FLAG_RECV_STX);
      break;
    case EM_STATE_DL_PRE_LOADER:
      _ParsePreLoaderData(chunk);
      break;
    case EM_STATE_CHANGE_BAUD_RATE:
      _ParseBaudRateData(chunk);
      break;
    case EM_STATE_DL_FLASH_LOADER:
      // The last byte: what stands before it is noise.
      m_iFlCrcRecv = chunk.back();
      m_flags.Set(EM_FLAG_RECV_FL_CRC);
      break;
    case EM_STATE_WRITE_CFG_OF_FLASH:
    case EM_STATE_DL_FIRMWARE:
      _ProcFlPacketData(chunk);
      break;
    default:
      break;
  }
}

void RtxParser::_ParsePreLoaderData(const Bytes& chunk) {
  if (!m_flags.Has(EM_FLAG_RECV_PL_ACK)) {
    // A boot ROM that calls again and again may have done so once more before it.
    if (Contains(chunk, EM_CFG_PRE_LOADER_ACK)) _SendPreLoader();
    return;
  }
  const uint8_t crc = chunk.back();
  LOGI("Recv PL CRC.Crc:0x%02X", crc);
  uint32_t flags = EM_FLAG_RECV_PL_CRC;
  if (crc == m_iPlCrc) {
    // Before the flags: they let the state thread send.
    m_line._SendRaw({crc});
    flags |= EM_FLAG_RECV_CORRECT_CRC;
  } else {
    LOGE("Recv error CRC!RightVal:%02X, RecvVal:%02X", m_iPlCrc.load(), crc);
  }
  m_flags.Set(flags);
}

void RtxParser::_SendPreLoader() {
  std::shared_ptr<const Bytes> image;
  {
    const CLock lock(m_flags.Mutex());
    image = m_vecPreloader;
  }
  m_flags.Set(EM_FLAG_RECV_PL_ACK);
  LOGI("Try to send pre loader.");
  // For an image that did not go out no check value will come.
  if (!image || m_line._SendRaw(*image)) m_flags.Set(EM_FLAG_RECV_PL_CRC);
  LOGI("Send pre loader done.");
}

/// While the line changes its speed, noise may stand around the answers.
void RtxParser::_ParseBaudRateData(const Bytes& chunk) {
  if (!m_flags.Has(EM_FLAG_PL_READY)) {
    if (!Contains(chunk, EM_PRELOAD_READY)) return;
    LOGI("Recv EM_PRELOAD_READY");
    m_flags.Set(EM_FLAG_PL_READY);
  } else if (Contains(chunk, EM_PRELOAD_NEW_BAUDRATE_READY)) {
    m_flags.Set(EM_FLAG_BAUDREADY);
  }
}

void RtxParser::_ProcFlPacketData(const Bytes& chunk) {
  std::optional<FlPayload_t> payload;
  {
    const CLock lock(m_flags.Mutex());
    payload = m_joiner.Add(chunk);
  }
  if (payload) _ProcConfirmation(*payload);
}

/// A status of failure is told and lets the run go on: the verification decides.
void RtxParser::_ProcConfirmation(const FlPayload_t& payload) {
  const Confirmation* const confirmation = FindConfirmation(payload.m_iCmd);
  if (confirmation == nullptr) {
    LOGE("Unknown primitive!ErrVal:%u", payload.m_iCmd);
    return;
  }
  const Bytes& data = payload.m_vecData;
  if (data.size() != static_cast<size_t>(confirmation->size)) {
    LOGE("Error data lenth of [%s]!ErrVal:%zu", confirmation->name, data.size());
    return;
  }
  if (confirmation->hasStatus && data.back() == 0) LOGE("[%s] tells a failure!", confirmation->name);
  if (confirmation->cmd == EM_READ_SW_VERSION_CFM) {
    LOGI("Flash loader version:%u.%u.%u", data[0], data[1], data[2]);
  }
  if (confirmation->cmd == EM_CALC_CRC32_CFM) m_iCrcRecv = Crc32Of(payload);
  m_flags.Set(confirmation->flag);
}

void RtxParser::OfferPreLoader(Bytes image) {
  m_iPlCrc = CrcXor(image.data(), image.size());
  const CLock lock(m_flags.Mutex());
  m_vecPreloader = std::make_shared<const Bytes>(std::move(image));
}

void RtxParser::ClearAnswers(uint32_t flags) {
  const CLock lock(m_flags.Mutex());
  m_flags.Clear(flags);
  m_joiner.Reset();
}

void RtxParser::_CleanCache() {
  {
    // The line is closed: nothing comes behind what is in hand, and nothing holds that up.
    const CLock lock(m_UartDataLock);
    m_deqUartRecvList.clear();
    m_cvUartRecvCtrl.Wait(m_UartDataLock, [this]() REQUIRES(m_UartDataLock) { return !m_bParsing; });
  }
  const CLock lock(m_flags.Mutex());
  m_flags.ClearAttempt(kModuleFlags);
  m_joiner.Reset();
  m_vecPreloader.reset();
}

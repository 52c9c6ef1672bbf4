/// Port, sending and waiting of the radio exchange.
#include "UpgradeFrame/RtxSubmodules/RtxLine.h"

#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

using namespace Rtx;

RtxLine::RtxLine(const char* uartName, int waitTime, CFlags& flags)
    : m_waitTime(waitTime), m_flags(flags), m_pSerial(uartName, EM_CFG_MAX_UART_RECV_SIZE) {
  m_stUartInfo.strMasterType = kStationLabel;
  m_stUartInfo.strSlaverType = kModuleLabel;
}

Failure RtxLine::Open() {
  m_stUartInfo.eBaudRate = emSerialBaudRate_19200;
  if (m_flags.Ending()) return {Reason::Stopped, {}};
  if (!m_pSerial.CreateSerial(&m_stUartInfo)) {
    return Fail(Reason::PartDevice, "%s cannot be opened", m_stUartInfo.szDevName);
  }
  m_flags.Set(EM_FLAG_UART_OPEN);
  return {};
}

Failure RtxLine::SpeedUp() {
  m_stUartInfo.eBaudRate = emSerialBaudRate_230400;
  if (m_flags.Ending()) return {Reason::Stopped, {}};
  if (m_pSerial.RestartSerial(&m_stUartInfo)) return {};
  return Fail(Reason::PartDevice, "%s cannot change its speed", m_stUartInfo.szDevName);
}

void RtxLine::Close() {
  m_flags.Clear(EM_FLAG_UART_OPEN);
  // Whatever the flag said: a restart of the port may have crossed an earlier closing.
  m_pSerial.DestroySerial();
}

Failure RtxLine::_SendRaw(const Bytes& bytes) {
  const auto size = static_cast<int>(bytes.size());
  if (!m_flags.Ending() && m_pSerial.SendFrame(reinterpret_cast<const char*>(bytes.data()), size) == size) {
    return {};
  }
  if (m_flags.Ending()) return {Reason::Stopped, {}};
  LOGE("_SendRaw error");
  return Fail(Reason::PartWrite, "RTX[%d] does not take %d bytes", Module(), size);
}

Failure RtxLine::_SendPacket(const Bytes& payload) {
  const Bytes packet = PackFlPacket(payload);
  if (packet.empty()) return Fail(Reason::PartWrite, "a request of %zu bytes is no packet", payload.size());
  CLog::instance()->Access("%s -> %s [%d], L:%zu, %s", kStationLabel, kModuleLabel, Module(), packet.size(),
                           HexText(packet.data(), packet.size()).c_str());
  return _SendRaw(packet);
}

Failure RtxLine::WaitFor(FlagType flag, const std::string& onTimeout, int waits) {
  if (m_flags.WaitFor(flag, m_waitTime * waits)) return {};
  if (m_flags.Ending()) return {Reason::Stopped, {}};
  LOGE("%s", onTimeout.c_str());
  return Fail(Reason::PartAnswer, "%s", onTimeout.c_str());
}

/// Requests out, answers in.
#include "UpgradeFrame/McuSubmodules/McuLine.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "BSW/Log/CLog.h"

const std::array<McuLine::Response, 5> McuLine::m_Responses = {{
    {McuMessages::EM_CMD_ARM_REQ_VER, &McuLine::_HandleRspVer},
    {McuMessages::EM_CMD_ARM_REQ_START_UPG, &McuLine::_HandleRspStartUpg},
    {McuMessages::EM_CMD_ARM_SEND_FW_INFO, &McuLine::_HandleRspFwInfo},
    {McuMessages::EM_CMD_ARM_SEND_PACKAGE, &McuLine::_HandleRspPackage},
    {McuMessages::EM_CMD_ARM_SEND_UPG_DONE, &McuLine::_HandleRspUpgDone},
}};

const SerialProtocolMng::PayloadCfg_t McuLine::m_stPayloadCfg = {0x01, 0x90, 0x01, 0x02};

/// At 115200 8N1, a new record's settings.
const UART_MNG_INFO_S McuLine::m_stUartCfg = [] {
  UART_MNG_INFO_S info;
  info.SetDevName(m_strUartName);
  return info;
}();

McuMessages::Identity McuLine::LastIdentity() {
  const CLock lock(m_flags.Mutex());
  return m_identity;
}

bool McuLine::Open() {
  std::shared_ptr<SerialProtocolMng> line;
  try {
    line = std::make_shared<SerialProtocolMng>(m_strDevId, McuFrame::EM_UART_MSG_MAX_LEN, m_stPayloadCfg);
  } catch (const std::exception&) {
    LOGE("Create obj m_ProtocolMng err!");
    return false;
  }
  line->RegFrameRecvCb([this](const ProtocolData_t& data) { return _ProtocolDataRecvCb(data); });
  line->RegisterUartEventCallback(
      [port = line.get()](const void* data, short length) { return port->_UartRecvCallback(data, length); });
  if (!line->CreateSerial(&m_stUartCfg)) {
    LOGE("Creat serial failed!");
    return false;
  }
  const CLock lock(m_flags.Mutex());
  m_ProtocolMng = std::move(line);
  return true;
}

void McuLine::Close() {
  std::shared_ptr<SerialProtocolMng> line;
  {
    const CLock lock(m_flags.Mutex());
    line.swap(m_ProtocolMng);
  }
  // Closed here, without the lock: the parser thread, which the closing waits for, may want it.
}

std::shared_ptr<SerialProtocolMng> McuLine::_Line() {
  const CLock lock(m_flags.Mutex());
  return m_ProtocolMng;
}

bool McuLine::_SendCmd(CmdCode code, const Bytes& data) {
  const std::shared_ptr<SerialProtocolMng> line = _Line();
  if (!line) {
    LOGE("Error obj m_ProtocolMng!");
    return false;
  }
  ProtocolData_t request;
  request.m_iCmd = code;
  request.m_emCmdType = McuFrame::EM_CMD_REQUEST;
  request.m_vecDataField = data;
  return line->PackAndSendFrame(request);
}

bool McuLine::Request(CmdCode code, FlagType flag, const Bytes& data) {
  m_flags.Clear(flag);
  return _SendCmd(code, data) && m_flags.WaitFor(flag, std::chrono::milliseconds(m_iWaitTime));
}

Failure McuLine::Ask(CmdCode code, FlagType flag, const std::string& onTimeout, const Bytes& data) {
  if (Request(code, flag, data)) return {};
  if (m_flags.Ending()) return {Reason::Stopped, {}};
  LOGE("%s", onTimeout.c_str());
  return Fail(Reason::PartAnswer, "%s", onTimeout.c_str());
}

bool McuLine::_ProtocolDataRecvCb(const ProtocolData_t& data) {
  // What the line echoes is a request.
  if (data.m_emCmdType != McuFrame::EM_CMD_RESPONE) return false;
  const auto* const response =
      std::find_if(m_Responses.begin(), m_Responses.end(),
                   [&data](const Response& candidate) { return candidate.code == data.m_iCmd; });
  if (response == m_Responses.end()) return false;
  (this->*response->handler)(data.m_vecDataField);
  return true;
}

void McuLine::_HandleRspVer(const Bytes& data) {
  const std::optional<McuMessages::Identity> mcu = McuMessages::ReadVersion(data);
  if (!mcu) {
    LOGE("MCU ack get version failed! Size:%zu, ErrVal:%d", data.size(), data.empty() ? -1 : data.front());
    return;
  }
  LOGI("MCU Ver:%s", mcu->version.Text().c_str());
  const CLock lock(m_flags.Mutex());
  m_identity = *mcu;
  m_flags.SetHeld(EM_FLAG_GET_VER);
}

void McuLine::_HandleRspStatus(const Bytes& data, FlagType flag, const char* success, const char* failure) {
  if (data.size() == McuMessages::EM_SZIE_UNIVERSAL && data.front() == McuMessages::kStatusSuccess) {
    LOGD("%s", success);
    m_flags.Set(flag);
    return;
  }
  LOGE("%s Size:%zu, ErrVal:%d", failure, data.size(), data.empty() ? -1 : data.front());
}

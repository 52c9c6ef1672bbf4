/// Ports and frames of portable parts: opening and closing, sending, then the answers. PpMessages
/// knows what a command carries.
#include "UpgradePp/PpLink.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <utility>

#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/Serial/HexText.h"
#include "UpgradePp/PpMessages.h"

using namespace UpgPp;

namespace {

constexpr const char* kPortName = "UpgradePp";
constexpr const char* kPartLabel = "PP";

/// Model numbers as hexadecimal digits: the base station is a 9031, the part an 04.
constexpr SerialProtocolMng::PayloadCfg_t m_stPayloadCfg = {0x01, 0x90, 0x31, 0x04};

/// What differs between the protocols, in the order of ProtocolType.
struct Protocol {
  const char* name;
  uint16_t versionRequest;
  FlagType isOpen;
  const char* opening;  ///< for the log, as the next
  const char* closing;
};
constexpr std::array<Protocol, 2> kProtocols = {{
    {"EM_PROT_73_OLD", EM_OLD_CMD_GET_PP_VERSION_INFO, EM_FLAG_OLD_UART_OPEN,
     "_OpenOldUart=========", "_CloseOldUart========="},
    {"EM_PROT_72_NEW", EM_NEW_CMD_REQ_PP_VERSION, EM_FLAG_NEW_UART_OPEN,
     "_OpenUart=========", "_CloseUart========="},
}};

/// Of an acknowledgement.
constexpr uint8_t kAccepted = 0;

/// Acknowledgements that are one status byte; the name is of the log.
struct Ack {
  NewCmdType cmd;
  FlagType flag;
  const char* handler;
};
constexpr std::array<Ack, 5> kAcks = {{
    {EM_NEW_CMD_REQ_START_UPG, EM_FLAG_START_UPG_ACK, "_ProcStartUpgAck"},
    {EM_NEW_CMD_REQ_SEND_DATA_PACK, EM_FLAG_SEND_PACK_ACK, "_ProcSendPackageAck"},
    {EM_NEW_CMD_REQ_SEND_FW_DONE, EM_FLAG_SEND_PACK_DONE_ACK, "_ProcSendFwDoneAck"},
    {EM_NEW_CMD_REQ_UPG_RTX, EM_FLAG_REQ_UPG_RTX_ACK, "_ProcReqUpgRtxAck"},
    {EM_NEW_CMD_NOTIFY_PP_RTX_RESULT, EM_FLAG_NOTIFY_PP_RTX_RESULT_ACK, "_ProcNotiFyUpgResultAck"},
}};

}  // namespace

PpLink::PpLink(CFlags& flags, std::function<void()> onReady)
    : m_flags(flags),
      m_onReady(std::move(onReady)),
      m_pOldProtocol(std::make_shared<OldProtocol>(
          [this](const OldProtocol::Frame_t& frame) { return _OldProtocolRecvCb(frame); })),
      m_pNewProtocol(
          std::make_shared<SerialProtocolMng>(kPortName, McuFrame::EM_UART_MSG_MAX_LEN, m_stPayloadCfg)) {
  m_pNewProtocol->RegFrameRecvCb([this](const ProtocolData_t& data) { return _ProtocolDataRecvCb(data); });
  m_pNewProtocol->RegisterUartEventCallback([port = m_pNewProtocol.get()](const void* data, short length) {
    return port->_UartRecvCallback(data, length);
  });
  m_UartInfo.strSlaverType = kPartLabel;
}

void PpLink::SetStationName(const std::string& name) {
  const CLock lock(m_portMutex);
  m_UartInfo.strMasterType = name;
}

void PpLink::CleanUp() {
  CloseUarts();
  m_pNewProtocol->DestroyThread(true, true);
}

// ------------------------------------------------------------------------------------------------- ports

bool PpLink::OpenUart(ProtocolType type, const std::string& device) {
  const CLock lock(m_portMutex);
  _PrintPorts("try to open uart! New:");
  if (m_flags.Has(kProtocols.at(type).isOpen)) {
    LOGI("Uart has been open!");
    return true;
  }
  // Whoever clears the flag closes the ports afterwards, so that none stays open on a device that went.
  if (m_flags.Ending() || !m_flags.Has(EM_FLAG_PLUG_IN)) return false;
  LOGI("%s", kProtocols.at(type).opening);
  if (!m_UartInfo.SetDevName(device) || !_Port(type).CreateSerial(&m_UartInfo)) return false;
  m_flags.Set(kProtocols.at(type).isOpen);
  return true;
}

bool PpLink::CloseUart(ProtocolType type) {
  const CLock lock(m_portMutex);
  return _CloseUart(type);
}

void PpLink::CloseUarts() {
  const CLock lock(m_portMutex);
  _CloseBoth();
}

void PpLink::CloseUartsOf(const std::string& device) {
  const CLock lock(m_portMutex);
  if (device == m_UartInfo.szDevName) _CloseBoth();
}

void PpLink::_CloseBoth() {
  for (const ProtocolType type : {EM_PROT_72_NEW, EM_PROT_73_OLD}) _CloseUart(type);
}

bool PpLink::_CloseUart(ProtocolType type) {
  _PrintPorts("try to close uart! New:");
  if (!m_flags.Has(kProtocols.at(type).isOpen)) return true;
  LOGI("%s", kProtocols.at(type).closing);
  m_flags.Clear(kProtocols.at(type).isOpen);
  return _Port(type).DestroySerial();
}

CSerialLink& PpLink::_Port(ProtocolType type) {
  if (type == EM_PROT_73_OLD) return *m_pOldProtocol;
  return *m_pNewProtocol;
}

void PpLink::_PrintPorts(const char* action) const {
  std::printf("%s%d, Old:%d, m_iFlags:%d\n", action, m_flags.Has(EM_FLAG_NEW_UART_OPEN),
              m_flags.Has(EM_FLAG_OLD_UART_OPEN), m_flags.Flags());
}

const char* PpLink::TraceProtocolType(ProtocolType type) {
  const auto row = static_cast<size_t>(type);
  return row < kProtocols.size() ? kProtocols.at(row).name : "NOT SUPPORT";
}

// ----------------------------------------------------------------------------------------------- sending

bool PpLink::SendCmd(uint16_t cmd, const Bytes& data) {
  if (m_emProtoclType == EM_PROT_72_NEW) {
    ProtocolData_t request;
    request.m_iCmd = cmd;
    request.m_emCmdType = McuFrame::EM_CMD_REQUEST;
    request.m_vecDataField = data;
    return m_pNewProtocol->PackAndSendFrame(request);
  }
  if (cmd != EM_OLD_CMD_GET_PP_VERSION_INFO) {
    LOGE("Unsupport cmd!ErrVal:0x%X", cmd);
    return false;
  }
  return m_pOldProtocol->SendFrame(EM_OLD_CMD_GET_PP_VERSION_INFO, nullptr, 0) >= 1;
}

bool PpLink::SendBuiltFrame(const Bytes& frame) {
  CLock lock(m_portMutex);
  const std::string station = m_UartInfo.strMasterType;
  lock.Unlock();
  LOGI("%s -> %s, L:%zu, %s", station.c_str(), kPartLabel, frame.size(),
       HexText(frame.data(), frame.size()).c_str());
  const auto size = static_cast<int>(frame.size());
  return m_pNewProtocol->SendFrame(reinterpret_cast<const char*>(frame.data()), size) == size;
}

PpLink::Answer PpLink::Request(uint16_t cmd, uint32_t flags, std::chrono::milliseconds time,
                               const Bytes& data) {
  m_flags.Clear(flags);
  if (!SendCmd(cmd, data)) return Answer::GivenUp;
  if (m_flags.WaitFor(flags, time)) return Answer::Came;
  return m_flags.Ending() ? Answer::GivenUp : Answer::TimedOut;
}

PpLink::Answer PpLink::RequestVersion(std::chrono::milliseconds time) {
  return Request(kProtocols.at(m_emProtoclType).versionRequest, EM_FLAG_GET_VER, time);
}

// --------------------------------------------------------------------------------------------- receiving

PpInfo_t PpLink::Info() {
  const CLock lock(m_flags.Mutex());
  return m_stPpInfo;
}

void PpLink::CleanInfo(UpgPp::PpType type) {
  // In one step: a report in between would be taken for another type's.
  const CLock lock(m_flags.Mutex());
  m_flags.Clear(EM_FLAG_GET_VER);
  m_stPpInfo.CleanInfo();
  m_stPpInfo.m_emPpType = type;
}

bool PpLink::_ProtocolDataRecvCb(const ProtocolData_t& data) {
  LOGD("recv cmd end time:%llu", static_cast<unsigned long long>(GetCurTimeMilliSec()));
  return _UnpackNewFrame(data);
}

bool PpLink::_UnpackNewFrame(const ProtocolData_t& data) {
  switch (data.m_iCmd) {
    case EM_NEW_CMD_REQ_PP_VERSION:
      return _ProcVerInfo(data);
    case EM_NEW_CMD_REQ_SEND_FW_INFO:
      return _ProcSendFwInfoAck(data.m_vecDataField);
    case EM_NEW_CMD_PP_REP_READY:
      m_onReady();
      return true;
    default:
      break;
  }
  const auto* const ack = std::find_if(
      kAcks.begin(), kAcks.end(), [&data](const Ack& candidate) { return candidate.cmd == data.m_iCmd; });
  if (ack != kAcks.end()) return _ProcAck(data.m_vecDataField, ack->flag, ack->handler);
  LOGE("Unsupport cmd!ErrVal:0x%X", data.m_iCmd);
  return false;
}

bool PpLink::_ProcVerInfo(const ProtocolData_t& data) {
  const unsigned family = data.m_iProNum * 256U + data.m_iDevType;
  const std::optional<PpInfo_t> info = PpMessages::ReadVersion(family, data.m_vecDataField);
  if (!info) {
    LOGE("Error len of version info!ErrVal:%ld", static_cast<long>(data.m_vecDataField.size()));
    return false;
  }
  return _TakeVersion(EM_PROT_72_NEW, *info);
}

bool PpLink::_ProcSendFwInfoAck(const Bytes& data) {
  if (data.empty() || data.front() == kAccepted) {
    return _ProcAck(data, EM_FLAG_SEND_FW_INFO_ACK, "_ProcSendFwInfoAck");
  }
  LOGI("User don't want to upg!Value:%d", data.front());
  m_flags.Set(EM_FLAG_DO_NOT_UPG);
  return true;
}

bool PpLink::_ProcAck(const Bytes& data, uint32_t flag, const char* handler) {
  if (data.empty()) {
    LOGE("Empty content size!");
    return false;
  }
  if (data.front() != kAccepted) {
    // Who waits goes on waiting: a refusal counts like no answer.
    LOGE("%s Failed!", handler);
    return false;
  }
  m_flags.Set(flag);
  return true;
}

bool PpLink::_OldProtocolRecvCb(const OldProtocol::Frame_t& frame) {
  if (frame.m_iCmd == EM_OLD_CMD_GET_PP_VERSION_INFO) return _UnpackOldFrame(frame);
  LOGE("error resopne cmd %02x ", frame.m_iCmd);
  return false;
}

bool PpLink::_UnpackOldFrame(const OldProtocol::Frame_t& frame) {
  const std::optional<PpMessages::LegacyVersion> version = PpMessages::ReadLegacyVersion(frame.m_vecPayload);
  if (!version) {
    LOGE("Error len of version info!ErrVal:%ld", static_cast<long>(frame.m_vecPayload.size()));
    return false;
  }
  if (!version->radioActive) {
    LOGW("The Dect module of PP is not activated!Make sure PP has a battery and power on.");
  }
  return _TakeVersion(EM_PROT_73_OLD, version->info);
}

/// A reply that was on its way while the port was closed must not pass for one in the protocol tried next.
bool PpLink::_TakeVersion(ProtocolType protocol, const PpInfo_t& info) {
  if (protocol != m_emProtoclType) {
    LOGW("Version in protocol %s came too late", TraceProtocolType(protocol));
    return false;
  }
  LOGI("PpType:%d, ModuleNum:%s, SwVersion:%s, HwVersion:%s, RtxVersion:%s", info.m_emPpType,
       info.strProductModuleNum.c_str(), info.strVerison.c_str(), info.strHwVerison.c_str(),
       info.strRtxVerison.c_str());
  const CLock lock(m_flags.Mutex());
  m_stPpInfo = info;
  m_flags.SetHeld(EM_FLAG_GET_VER);
  return true;
}

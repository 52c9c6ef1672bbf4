/// The MCU's upgrade: its states in the order in which an upgrade meets them, then the line. States, texts
/// and waits are fixed; a new state is a line in the table and a handler.
#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/McuSubmodules/McuPackage.h"
#include "UpgradeFrame/McuSubmodules/McuVersion.h"
#include "UpgradeFrame/QVUpgradeTool.h"

using McuMessages::RunMode;

/// Idle -> Init -> CheckVer -> EnterBoot -> UpgMcu -> ReCheckVer -> Success -> Idle; Failed from each.
/// CheckVer leaves out what is not needed. In the order of UpgradeStateType; the record uses the names too.
const std::array<McuSubmodules::State, McuSubmodules::EM_STATE_MAX> McuSubmodules::m_States = {{
    {McuUpgRecord::kStateIdle, &McuSubmodules::_HandleIdleState},
    {"Init", &McuSubmodules::_HandleInitState},
    {"CheckVer", &McuSubmodules::_HandleCheckVerState},
    {"EnterBoot", &McuSubmodules::_HandleEnterBootState},
    {McuUpgRecord::kStateUpgMcu, &McuSubmodules::_HandleUpgMcuState},
    {"ReCheckVer", &McuSubmodules::_HandleReCheckVerState},
    {"Success", &McuSubmodules::_HandleSuccessState},
    {"Failed", &McuSubmodules::_HandleFailedState},
    {"WaitRestart", &McuSubmodules::_HandleWaitRestartState},
}};

const std::array<McuSubmodules::Response, 5> McuSubmodules::m_Responses = {{
    {McuMessages::EM_CMD_ARM_REQ_VER, &McuSubmodules::_HandleRspVer},
    {McuMessages::EM_CMD_ARM_REQ_START_UPG, &McuSubmodules::_HandleRspStartUpg},
    {McuMessages::EM_CMD_ARM_SEND_FW_INFO, &McuSubmodules::_HandleRspFwInfo},
    {McuMessages::EM_CMD_ARM_SEND_PACKAGE, &McuSubmodules::_HandleRspPackage},
    {McuMessages::EM_CMD_ARM_SEND_UPG_DONE, &McuSubmodules::_HandleRspUpgDone},
}};

const SerialProtocolMng::PayloadCfg_t McuSubmodules::m_stPayloadCfg = {0x01, 0x90, 0x01, 0x02};

const UART_MNG_INFO_S McuSubmodules::m_stUartCfg = [] {
  UART_MNG_INFO_S info;
  info.SetDevName(m_strUartName);
  info.eBaudRate = emSerialBaudRate_115200;
  info.eDataBits = emSerialDataBits_8;
  info.eStopBits = emSerialStopBits_1;
  info.eParity = emSerialParity_None;
  info.eFlowControl = emSerialFlowControl_None;
  return info;
}();

namespace {

constexpr const char* kStopApplicationCommand = "systemctl stop quorvalen && echo $?";
constexpr const char* kStopControllerCommand = "pkill -9 -f 'QVSysCtrlMng' && echo $?";

constexpr int kVersionTries = 3;
/// The MCU's time from an answer to its other program being ready.
constexpr uint32_t kMcuRestartMs = 700;
/// Far beyond the MCU's flash; keeps the size within the four bytes that describe it.

}  // namespace

McuSubmodules::McuSubmodules() : CThread("McuSubmodules") {}

McuSubmodules::~McuSubmodules() {
  if (!HasCrashed()) McuSubmodules::CleanUp();
}

bool McuSubmodules::Init() {
  if ((m_iLongTermFlags & EM_FLAG_INIT_DONE) != 0) return true;
  if (_IsStopped() || !_OpenLine()) return false;
  if (!CreateThread(0)) {
    LOGE("state thread of the MCU upgrade cannot be started");
    _CloseLine();
    return false;
  }
  // Whether something had to be stopped does not matter.
  QVUpgradeTool::ExecCommand(kStopApplicationCommand);
  QVUpgradeTool::ExecCommand(kStopControllerCommand);
  m_iLongTermFlags |= EM_FLAG_INIT_DONE;
  return true;
}

bool McuSubmodules::StartUpgrade() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  if (!_CanStart()) return false;
  LOGI("Start upgrade MCU.");
  _Start(EM_STATE_INIT);
  return true;
}

bool McuSubmodules::ContinueUpg(UpgradeStateType state) {
  if (state != EM_STATE_CHECK_VER && state != EM_STATE_UPG_MCU) {
    const bool known = state >= EM_STATE_IDLE && state < EM_STATE_MAX;
    LOGE("Unsupport state!ErrVal:%d, %s", state, known ? m_States[state].name : "");
    return false;
  }
  const std::lock_guard<std::mutex> lock(m_SateLock);
  if (!_CanStart()) return false;
  if (!_LoadFwInfo()) {
    LOGE("_LoadFwInfo error, can't ContinueUpg");
    return false;
  }
  m_iLongTermFlags |= EM_FLAG_RESTART_AND_UPG_MCU;
  _Start(state);
  return true;
}

bool McuSubmodules::_CanStart() const {
  if ((m_iLongTermFlags & EM_FLAG_INIT_DONE) == 0) {
    LOGE("Can't start upgrade beacuse of init not done!");
    return false;
  }
  if (m_emState != EM_STATE_IDLE) {
    LOGE("Not IDLE, can't upg. now state:%s, %d", m_States[m_emState].name, m_emState);
    return false;
  }
  return true;
}

void McuSubmodules::_Start(UpgradeStateType state) {
  m_emState = state;
  m_iFlags |= EM_FLAG_START_UPG;
  m_cvStateMachineCtrl.notify_all();
}

void McuSubmodules::ThreadProc() {
  while (_HandleState() != EM_RET_END) {
  }
  _CloseLine();
}

McuSubmodules::RetValType McuSubmodules::_HandleState() {
  UpgradeStateType state = EM_STATE_IDLE;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    state = m_emState;
  }
  const UpgradeStateType next = (this->*m_States[state].handler)();
  if (_IsStopped()) return EM_RET_END;
  _ToggleState(next);
  return EM_RET_SUCESS;
}

void McuSubmodules::_ToggleState(UpgradeStateType state) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  if (state == m_emState) return;
  LOGI("UpgradeMcu StateMachine change [%s] ----> [%s]", m_States[m_emState].name, m_States[state].name);
  m_emState = state;
}

/// Whoever starts a run has chosen its first state.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleIdleState() {
  std::unique_lock<std::mutex> lock(m_SateLock);
  m_cvStateMachineCtrl.wait(lock, [this] { return m_bStopped || (m_iFlags & EM_FLAG_START_UPG) != 0; });
  m_iFlags &= ~EM_FLAG_START_UPG;
  return m_emState;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleInitState() {
  std::string package;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    package = m_stUpgInfo.m_upgradeFilePath;
  }
  if (!McuPackage::Unpack(package, m_stStoredPath, m_stFwInfo)) return EM_STATE_FAILED;
  if (!_SaveFwInfo()) {
    LOGE("_SaveFwInfo err!");
    return EM_STATE_FAILED;
  }
  return EM_STATE_CHECK_VER;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleCheckVerState() {
  bool answered = false;
  for (int i = 0; i < kVersionTries && !answered && !_IsStopped(); ++i) {
    answered = _Request(McuMessages::EM_CMD_ARM_REQ_VER, EM_FLAG_GET_VER);
  }
  if (!answered) {
    if (!_IsStopped()) LOGE("Get ver from MCU error.");
    return EM_STATE_FAILED;
  }
  const McuMessages::Identity mcu = LastIdentity();
  const std::string running = mcu.version.Text();
  LOGI("now ver:%s, fw ver:%s", running.c_str(), m_stFwInfo.m_strVersion.c_str());
  if (mcu.mode == RunMode::BootLoader) {
    // It has no application to compare with or to leave; skipped, it would never get one.
    LOGW("MCU boot status detected");
    return _SaveUpgState(EM_STATE_UPG_MCU) ? EM_STATE_UPG_MCU : EM_STATE_FAILED;
  }
  if (mcu.version < *McuVersion::Parse(m_strMinVer)) {
    LOGW("Mcu less than minimum version, can't upgrade! m_strMcuVer:%s, m_strMinVer:%s", running.c_str(),
         m_strMinVer);
    return EM_STATE_SUCCESS;
  }
  if (mcu.version == McuVersion::Parse(m_stFwInfo.m_strVersion)) return EM_STATE_SUCCESS;
  LOGI("Verison not same.");
  const bool afterRestart = (m_iLongTermFlags & EM_FLAG_RESTART_AND_UPG_MCU) != 0;
  const bool hasToWait = (m_iFlags & EM_FLAG_ESIXT_OTHER_MODULE) != 0;
  return hasToWait && !afterRestart ? EM_STATE_WAIT_RESTART : EM_STATE_ENTER_BOOT;
}

/// The record comes first: from the request on, only the boot loader may answer after a power cut.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleEnterBootState() {
  if (!_SaveUpgState(EM_STATE_UPG_MCU)) return EM_STATE_FAILED;
  if (!_Request(McuMessages::EM_CMD_ARM_REQ_START_UPG, EM_FLAG_START_UPG_ACK)) {
    if (!_IsStopped()) LOGE("Waiting for ACK of [START_UPG] timeout");
    return EM_STATE_FAILED;
  }
  LOGI("MCU enter boot.");
  Pause(kMcuRestartMs);
  return EM_STATE_UPG_MCU;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleUpgMcuState() {
  if (!_RrepareFwInfo() || !_RrepareFwDataPack()) return EM_STATE_FAILED;
  if (!_Request(McuMessages::EM_CMD_ARM_SEND_UPG_DONE, EM_FLAG_UPG_DONE_ACK)) {
    if (!_IsStopped()) LOGE("Waiting for ACK of [SEND_UPG_DONE] timeout");
    return EM_STATE_FAILED;
  }
  LOGI("MCU app will start.");
  Pause(kMcuRestartMs);
  return EM_STATE_RE_CHECK_VER;
}

bool McuSubmodules::_RrepareFwInfo() {
  const int64_t size = XGetFileSize(m_stFwInfo.m_strFwPath);
  const std::optional<McuVersion> version = McuVersion::Parse(m_stFwInfo.m_strVersion);
  if (size < 0 || size > static_cast<int64_t>(McuPackage::kMaxImageBytes) || !version) {
    LOGE("Get file size error!file:%s, iFileSize:%zu", m_stFwInfo.m_strFwPath.c_str(),
         static_cast<size_t>(size));
    return false;
  }
  const Bytes description =
      McuMessages::FirmwareDescription(static_cast<uint32_t>(size), *version, m_stFwInfo.m_strFileName);
  if (_Request(McuMessages::EM_CMD_ARM_SEND_FW_INFO, EM_FLAG_SEND_FW_INFO_ACK, description)) return true;
  if (!_IsStopped()) LOGE("Waiting for ACK of [SEND_FW_INFO] timeout");
  return false;
}

bool McuSubmodules::_RrepareFwDataPack() {
  std::string image;
  if (!ReadFileToString(m_stFwInfo.m_strFwPath, McuPackage::kMaxImageBytes, image)) {
    LOGE("Failed to open the [%s] file.", m_stFwInfo.m_strFwPath.c_str());
    return false;
  }
  if (image.empty()) {
    LOGE("Error pre loader file length!ErrVal:%ld", static_cast<long>(image.size()));
    return false;
  }
  const size_t count = McuMessages::PackageCount(image.size());
  for (size_t index = 0; index < count; ++index) {
    const Bytes package = McuMessages::Package(image, index);
    const int number = package.front();
    LOGD("Index:%zu, iCount:%d, iNum:%d, Size:%zu", index, static_cast<int>(count), number,
         package.size() - 1);
    if (!_Request(McuMessages::EM_CMD_ARM_SEND_PACKAGE, EM_FLAG_SEND_PACK_ACK, package)) {
      if (!_IsStopped()) LOGE("Waiting for ACK of [SEND_PACK] timeout.Index:%zu, iNum:%d", index, number);
      return false;
    }
    m_UploadProcessCb.ReportSteps(index + 1, count);
  }
  return true;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleReCheckVerState() {
  if (_Request(McuMessages::EM_CMD_ARM_REQ_VER, EM_FLAG_GET_VER)) {
    if (LastIdentity().mode == RunMode::BootLoader) LOGW("MCU boot status detected");
    return EM_STATE_SUCCESS;
  }
  if (!_IsStopped()) LOGE("Waiting for ACK of [RE_GET_VER] timeout");
  return EM_STATE_FAILED;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleSuccessState() {
  LOGI("MCU upgrade successfully.");
  _EndRun(EM_STATE_IDLE, true);
  return EM_STATE_IDLE;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleFailedState() {
  LOGE("Upgrade failed!");
  _EndRun(EM_STATE_IDLE, false);
  return EM_STATE_IDLE;
}

/// The firmware is on the disk; the record makes the next start write it.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleWaitRestartState() {
  _EndRun(EM_STATE_UPG_MCU, true);
  return EM_STATE_IDLE;
}

/// In this order: a report may end in the unit's restart.
void McuSubmodules::_EndRun(UpgradeStateType state, bool succeeded) {
  _SaveUpgState(state);
  m_iLongTermFlags &= ~EM_FLAG_INIT_DONE;
  _CloseLine();
  UploadPrecent(succeeded ? ProgressReporter::kSuccess : ProgressReporter::kFailure);
  RetUpgResultCb_T callback;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    callback = m_RetResultFunc;
  }
  if (callback) callback(succeeded);
}

bool McuSubmodules::_SaveFwInfo() {
  return m_record.Save(m_stFwInfo);
}

bool McuSubmodules::_LoadFwInfo() {
  return m_record.Load(m_stFwInfo);
}

bool McuSubmodules::_SaveUpgState(UpgradeStateType state) {
  return m_record.SaveState(m_States[state].name);
}

std::optional<McuMessages::Identity> McuSubmodules::LoadVersion() {
  const bool isOpen = _Line() != nullptr;
  if (!isOpen && !_OpenLine()) return std::nullopt;
  LOGI("Try to get mcu version.");
  const bool answered = _Request(McuMessages::EM_CMD_ARM_REQ_VER, EM_FLAG_GET_VER);
  if (!isOpen) _CloseLine();
  if (_IsStopped()) return std::nullopt;
  McuMessages::Identity mcu;
  if (answered) {
    mcu = LastIdentity();
  } else {
    LOGE("Get version timeout!");
  }
  if (mcu.mode == RunMode::BootLoader) LOGW("MCU boot status detected");
  LOGI("MCU LoadVersion done.");
  return mcu;
}

McuMessages::Identity McuSubmodules::LastIdentity() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  return m_identity;
}

bool McuSubmodules::_OpenLine() {
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
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_ProtocolMng = std::move(line);
  return true;
}

void McuSubmodules::_CloseLine() {
  std::shared_ptr<SerialProtocolMng> line;
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    line.swap(m_ProtocolMng);
  }
  // Closed here, without the lock: the parser thread, which the closing waits for, may want it.
}

std::shared_ptr<SerialProtocolMng> McuSubmodules::_Line() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  return m_ProtocolMng;
}

bool McuSubmodules::_SendCmd(CmdCode code) {
  return _SendCmd(code, {});
}

bool McuSubmodules::_SendCmd(CmdCode code, const Bytes& data) {
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

bool McuSubmodules::_Request(CmdCode code, FlagType flag, const Bytes& data) {
  m_iFlags &= ~flag;
  return _SendCmd(code, data) && _WaitFlag(flag);
}

bool McuSubmodules::_WaitFlag(FlagType flag) {
  std::unique_lock<std::mutex> lock(m_SateLock);
  m_cvStateMachineCtrl.wait_for(lock, std::chrono::milliseconds(m_iWaitTime),
                                [&] { return m_bStopped || (m_iFlags & flag) != 0; });
  return !m_bStopped && (m_iFlags & flag) != 0;
}

void McuSubmodules::_SetFlag(FlagType flag) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_iFlags |= flag;
  m_cvStateMachineCtrl.notify_all();
}

bool McuSubmodules::_ProtocolDataRecvCb(const ProtocolData_t& data) {
  // What the line echoes is a request.
  if (data.m_emCmdType != McuFrame::EM_CMD_RESPONE) return false;
  const auto* const response =
      std::find_if(m_Responses.begin(), m_Responses.end(),
                   [&data](const Response& candidate) { return candidate.code == data.m_iCmd; });
  if (response == m_Responses.end()) return false;
  (this->*response->handler)(data.m_vecDataField);
  return true;
}

void McuSubmodules::_HandleRspVer(const Bytes& data) {
  const std::optional<McuMessages::Identity> mcu = McuMessages::ReadVersion(data);
  if (!mcu) {
    LOGE("MCU ack get version failed! Size:%zu, ErrVal:%d", data.size(), data.empty() ? -1 : data.front());
    return;
  }
  LOGI("MCU Ver:%s", mcu->version.Text().c_str());
  {
    const std::lock_guard<std::mutex> lock(m_SateLock);
    m_identity = *mcu;
  }
  _SetFlag(EM_FLAG_GET_VER);
}

void McuSubmodules::_HandleRspStartUpg(const Bytes& data) {
  _HandleRspStatus(data, EM_FLAG_START_UPG_ACK, "MCU ack start upg", "MCU ack start upg failed!");
}

void McuSubmodules::_HandleRspFwInfo(const Bytes& data) {
  _HandleRspStatus(data, EM_FLAG_SEND_FW_INFO_ACK, "MCU ack send fw info", "MCU ack send fw info failed!");
}

void McuSubmodules::_HandleRspPackage(const Bytes& data) {
  _HandleRspStatus(data, EM_FLAG_SEND_PACK_ACK, "MCU ack send package", "MCU ack send package failed!");
}

void McuSubmodules::_HandleRspUpgDone(const Bytes& data) {
  _HandleRspStatus(data, EM_FLAG_UPG_DONE_ACK, "MCU ack upg done", "MCU ack upg done failed!");
}

void McuSubmodules::_HandleRspStatus(const Bytes& data, FlagType flag, const char* success,
                                     const char* failure) {
  if (data.size() == McuMessages::EM_SZIE_UNIVERSAL && data.front() == McuMessages::kStatusSuccess) {
    LOGD("%s", success);
    _SetFlag(flag);
    return;
  }
  LOGE("%s Size:%zu, ErrVal:%d", failure, data.size(), data.empty() ? -1 : data.front());
}

bool McuSubmodules::RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_UploadProcessCb.Register(cb, ctx);
}

bool McuSubmodules::UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_UploadProcessCb.Unregister(cb, ctx);
}

int McuSubmodules::UploadPrecent(int percent) {
  return m_UploadProcessCb.Report(percent);
}

bool McuSubmodules::setUpgradeInfo(QVUpgradingInfo info) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_stUpgInfo = std::move(info);
  return true;
}

bool McuSubmodules::FinishUpgrade() {
  LOGW("Undeveloped!");
  return false;
}

void McuSubmodules::GetUpgradeStatus(int& /*result*/, int /*seconds*/) {
  LOGW("Undeveloped!");
}

void McuSubmodules::SetUpgFlag(bool existOtherModule) {
  if (existOtherModule) {
    m_iFlags |= EM_FLAG_ESIXT_OTHER_MODULE;
  } else {
    m_iFlags &= ~EM_FLAG_ESIXT_OTHER_MODULE;
  }
}

void McuSubmodules::RegRetUpgResultCb(const RetUpgResultCb_T& callback) {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_RetResultFunc = callback;
}

void McuSubmodules::UnregRetUpgResultCb() {
  RegRetUpgResultCb(nullptr);
}

bool McuSubmodules::_IsStopped() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  return m_bStopped;
}

void McuSubmodules::RequestStop() {
  DestroyThread(true, false);
}

void McuSubmodules::OnStopRequested() {
  const std::lock_guard<std::mutex> lock(m_SateLock);
  m_bStopped = true;
  m_cvStateMachineCtrl.notify_all();
}

bool McuSubmodules::CleanUp() {
  const bool ended = DestroyThread(true, true);
  _CloseLine();
  m_iLongTermFlags &= ~EM_FLAG_INIT_DONE;
  m_iFlags |= EM_FLAG_CLEAN_DONE;
  return ended;
}

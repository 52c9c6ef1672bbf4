/// A portable part's way through the states: noticed, identified, compared, upgraded or paired. A new
/// state is a row in the table and a handler.
#include "UpgradePp/UpgradePp.h"

#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/PpStore.h"

using namespace UpgPp;

/// Idle -> Identify -> CheckVer -> UpgPp or ReqPair -> UpgSuccess, Failed, Interrupt -> Idle. In the order of
/// UpgradeStateType.
const std::array<UpgradePp::State, EM_STATE_MAX> UpgradePp::m_States = {{
    {"EM_STATE_IDLE", &UpgradePp::_HandleIdleState},
    {"EM_STATE_INIT", &UpgradePp::_HandleUnknownState},
    {"EM_STATE_IDENTIFY", &UpgradePp::_HandleIdentifyState},
    {"EM_STATE_CHECK_VER", &UpgradePp::_HandleCheckVerState},
    {"EM_STATE_UPG_PP", &UpgradePp::_HandleUpgPpState},
    {"EM_STATE_REQ_PAIR", &UpgradePp::_HandleReqPairState},
    {"EM_STATE_INTERRUPT", &UpgradePp::_HandleInterruptState},
    {"EM_STATE_UPG_SUCCESS", &UpgradePp::_HandleUpgSuccessState},
    {"EM_STATE_FAILED", &UpgradePp::_HandleFailedState},
}};

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds m_iCheckTime(200);  ///< for a version reply
constexpr int kIdentifyTries = 2;                       ///< one for each protocol
constexpr int kVersionTries = 3;

/// How long a silent 7204 may report that it is ready, before another that is silent gets its turn.
constexpr std::chrono::seconds kListenTime(5);

}  // namespace

// ---------------------------------------------------------------------------------------------- lifecycle

UpgradePp::UpgradePp()
    : CThread("UpgradePp"),
      m_link(m_flags, [this] { _ProcPpReady(); }),
      m_7308(m_flags, m_link),
      m_7204(m_flags, m_devices),
      m_hotPlug(m_flags, m_devices, m_emState, m_link, m_7308) {}

UpgradePp::~UpgradePp() {
  if (!HasCrashed()) CleanUp();
}

bool UpgradePp::Init(const std::string& deviceId) {
  m_link.SetStationName(deviceId);
  m_hotPlug.Init();
  if (!_LoadFwInfo()) {
    LOGW("[WARMING]Error occurred while loading info of PP fw. The upgrade function will be disable!");
  }
  if (!m_7308.Init()) {
    LOGD("Init m_pUpgPpRtx failed");
    return false;
  }
  if (CreateThread(0)) return true;
  LOGE("state thread of the PP upgrade cannot be started");
  return false;
}

void UpgradePp::RequestStop() {
  DestroyThread(true, false);
}

void UpgradePp::OnStopRequested() {
  const CLock lock(m_flags.Mutex());
  m_flags.SetHeld(EM_FLAG_CLEAN_UP);
  m_flags.EndHeld();
}

void UpgradePp::CleanUp() {
  RequestStop();
  m_link.CloseUarts();  // ends a transfer that the line holds up
  m_7308.CleanUp();
  DestroyThread(true, true);
  m_link.CleanUp();
}

void UpgradePp::ReloadVeriosn() {
  const CLock lock(m_flags.Mutex());
  m_bReload = true;
  m_flags.Notify();
}

PpFwMap UpgradePp::GetPpPackageInfo() {
  const CLock lock(m_flags.Mutex());
  return m_mapPpFwInfo;
}

bool UpgradePp::Debug() {
  LOGI("Send cmd req ver!");
  const bool sent = m_link.SendCmd(EM_NEW_CMD_REQ_PP_VERSION);
  LOGI("State:%s, m_bUsbInsert:%d, m_iFlags:%d, m_iLongTermFlags:%d", _TraceState(_State()),
       m_hotPlug.IsAnyIn(), m_flags.Flags(), m_flags.LongTermFlags());
  return sent;
}

bool UpgradePp::_LoadFwInfo() {
  PpFwMap held = PpStore::Load();
  const CLock lock(m_flags.Mutex());
  m_mapPpFwInfo = std::move(held);
  bool isAnyHeld = false;
  for (const PpType type : {EM_PP_7308, EM_PP_7204, EM_PP_7204_EVT}) {
    m_flags.Clear(PackageFlag(type));
    if (!HasPackage(m_mapPpFwInfo, type)) continue;
    m_flags.SetHeld(PackageFlag(type));
    isAnyHeld = true;
  }
  return isAnyHeld;
}

// ------------------------------------------------------------------------------------------ state machine

void UpgradePp::ThreadProc() {
  LOGI("Enter UpgradePp Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  while (!m_flags.Ending()) _HandleState();
}

void UpgradePp::_HandleState() {
  const UpgradeStateType state = _State();
  LOGD("Enter %s, %d state", _TraceState(state), state);
  const UpgradeStateType next = (this->*m_States.at(state).handler)();
  const CLock lock(m_flags.Mutex());
  if (!m_flags.Ending()) _ToggleState(next);
}

void UpgradePp::_ToggleState(UpgradeStateType state) {
  if (state == m_emState) {
    LOGD("[%s]State no change!State:%s", "UPG_PP", _TraceState(state));
  } else if (m_emState == EM_STATE_INTERRUPT && state != EM_STATE_IDLE) {
    LOGW("Dev pulg out, no need change state.");
  } else {
    LOGI("UPG_PP StateMachine change [%s] ----> [%s]", _TraceState(m_emState), _TraceState(state));
    m_emState = state;
  }
}

const char* UpgradePp::_TraceState(UpgradeStateType state) {
  return state >= EM_STATE_IDLE && state < EM_STATE_MAX ? m_States.at(state).name : "NOT SUPPORT";
}

/// A 7204 that did not answer stays open here, so that it can report that it is ready.
UpgradeStateType UpgradePp::_HandleIdleState() {
  _CleanCache();
  CLock lock(m_flags.Mutex());
  while (!m_flags.Ending() && m_emState == EM_STATE_IDLE) {
    switch (_NextTask()) {
      case Task::Wait:
        _WaitForTask();
        break;
      case Task::Reload:
        m_bReload = false;
        lock.Unlock();
        _LoadFwInfo();
        lock.Lock();
        break;
      case Task::TakeTurn:
        _TakeTurn();
        lock.Unlock();
        m_link.CloseUarts();
        return EM_STATE_IDENTIFY;
      case Task::AskAgain:
        return EM_STATE_IDENTIFY;
    }
  }
  return m_emState;
}

UpgradePp::Task UpgradePp::_NextTask() {
  if (m_bReload) return Task::Reload;
  if (!m_hotPlug.IsClockInSync()) return Task::Wait;
  const std::optional<PpDevices::Time> due = m_devices.NextDue();
  if (due && *due <= Clock::now()) return Task::TakeTurn;
  return m_bReadyMeanwhile && _IsListening() ? Task::AskAgain : Task::Wait;
}

void UpgradePp::_WaitForTask() {
  const std::optional<PpDevices::Time> due = m_devices.NextDue();
  if (due && m_hotPlug.IsClockInSync()) {
    m_flags.WaitOnce(*due);
  } else {
    m_flags.WaitOnce();
  }
}

void UpgradePp::_TakeTurn() {
  if (_IsListening()) m_devices.AddTurn(m_devices.Current(), Clock::now() + kListenTime);
  m_devices.TakeNext();
  m_flags.ClearAttempt(kPortFlags);
  m_link.SetProtocol(EM_PROT_72_NEW);
  m_flags.SetHeld(EM_FLAG_PLUG_IN);
}

bool UpgradePp::_IsListening() const {
  return m_flags.Has(EM_FLAG_PLUG_IN) && m_flags.Has(EM_FLAG_NEW_UART_OPEN);
}

/// Opens the port of the part in the protocol that it speaks: the one in which it answers, the newer one for
/// what may be a 7204.
UpgradeStateType UpgradePp::_HandleIdentifyState() {
  CLock lock(m_flags.Mutex());
  const std::string device = m_devices.Current();
  m_bReadyMeanwhile = false;
  lock.Unlock();
  const bool is7204 = PpDevices::MayHaveStorage(device);
  m_link.CleanInfo(is7204 ? EM_PP_7204 : EM_PP_MAX);
  if (is7204) m_link.SetProtocol(EM_PROT_72_NEW);
  for (int i = 0; i < kIdentifyTries && !m_flags.Ending(); ++i) {
    const ProtocolType protocol = m_link.Protocol();
    if (!m_link.OpenUart(protocol, device)) {
      LOGE("Open uart error!");
      return EM_STATE_FAILED;
    }
    if (is7204) return EM_STATE_CHECK_VER;
    LOGI("Assuming protocol 0x%X, %s.", protocol, PpLink::TraceProtocolType(protocol));
    if (m_link.RequestVersion(m_iCheckTime) == PpLink::Answer::Came) {
      LOGI("Identify type of pp done!Type:0x%X, %s", m_link.Info().m_emPpType,
           PpLink::TraceProtocolType(protocol));
      return EM_STATE_CHECK_VER;
    }
    if (!m_link.CloseUart(protocol)) LOGE("Close uart error!");
    m_link.SetProtocol(protocol == EM_PROT_72_NEW ? EM_PROT_73_OLD : EM_PROT_72_NEW);
  }
  return EM_STATE_FAILED;
}

UpgradeStateType UpgradePp::_HandleCheckVerState() {
  for (int i = 0; i < kVersionTries && !m_flags.Has(EM_FLAG_GET_VER) && !m_flags.Ending(); ++i) {
    m_link.RequestVersion(m_iCheckTime);
  }
  const bool hasAnswered = m_flags.Has(EM_FLAG_GET_VER);
  const PpInfo_t info = m_link.Info();
  if (!hasAnswered) return Is7204Pp(info.m_emPpType) ? EM_STATE_IDLE : EM_STATE_FAILED;

  m_emCheckedType = info.m_emPpType;
  CLock lock(m_flags.Mutex());
  const auto found = m_mapPpFwInfo.find(m_emCheckedType);
  if (found == m_mapPpFwInfo.end()) {
    LOGE("Can't find fw info of pptype:%d", m_emCheckedType);
    return EM_STATE_FAILED;
  }
  m_firmware = found->second;
  lock.Unlock();
  switch (m_emCheckedType) {
    case EM_PP_7308:
      return _Check7308(info.strVerison);
    case EM_PP_7302_03:
      m_link.CloseUart(EM_PROT_73_OLD);
      return EM_STATE_REQ_PAIR;
    case EM_PP_7204:
    case EM_PP_7204_EVT:
      return _Check7204(info.strVerison);
    default:
      LOGE("Not support PP type:0x%X", m_emCheckedType);
      return EM_STATE_FAILED;
  }
}

/// One that is up to date is done: unlike a 7204 it is not paired from here.
UpgradeStateType UpgradePp::_Check7308(const std::string& version) {
  if (!m_flags.Has(EM_FLAG_7308_VER_INFO_LOADED)) {
    LOGE("Can't upg beacause of ver info not load");
    m_link.CloseUart(EM_PROT_72_NEW);
    return EM_STATE_FAILED;
  }
  if (!_IsStored(version)) return EM_STATE_UPG_PP;
  LOGI("Same version, no need upgrade");
  m_link.CloseUart(EM_PROT_72_NEW);
  return EM_STATE_UPG_SUCCESS;
}

/// One that is up to date, or for which there is no firmware, is paired.
UpgradeStateType UpgradePp::_Check7204(const std::string& version) {
  if (!_IsStored(version) && m_flags.Has(PackageFlag(m_emCheckedType))) return EM_STATE_UPG_PP;
  m_link.CloseUart(EM_PROT_72_NEW);
  LOGI("No need upg, destroy new protocol Serial.");
  return EM_STATE_REQ_PAIR;
}

bool UpgradePp::_IsStored(const std::string& version) const {
  LOGI("ReadVer:%s, StoreVer:%s,m_iFlags:%d ", version.c_str(), m_firmware.m_strVerison.c_str(),
       m_flags.Flags());
  return version == m_firmware.m_strVerison;
}

UpgradeStateType UpgradePp::_HandleUpgPpState() {
  LOGI("====================PP upgrading...=====================");
  // What is known of a family's versions alone is no firmware.
  if (m_firmware.m_strFileName.empty()) {
    LOGE("No firmware file of pptype:%d", m_emCheckedType);
    return EM_STATE_FAILED;
  }
  if (Is7204Pp(m_emCheckedType)) return m_7204._Upg7204(m_firmware);
  if (m_emCheckedType != EM_PP_7308) return EM_STATE_FAILED;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(UI_STATUS_STARTED, 0, Json::Value(), DataDef::EM_UPG_PP);
  return m_7308._Upg7308(m_emCheckedType, m_firmware, _CurrentDevice());
}

UpgradeStateType UpgradePp::_HandleReqPairState() {
  const PpInfo_t info = m_link.Info();
  Json::Value message(Json::objectValue);
  message["PpType"] = static_cast<int>(info.m_emPpType);
  message["SwVersion"] = info.strVerison;
  message["HwVersion"] = info.strHwVerison;
  message["RtxVersion"] = info.strRtxVerison;
  message["UartPath"] = _CurrentDevice();
  LOGI("Pair msg:%s", JsonUtils::ToCompactText(message).c_str());
  if (!UpgradeIpcMsg::GetUpgradeIpc()->SendCtrlMsg(message, SysCtrlIpc::EM_CODE_REQ_PAIR)) {
    return EM_STATE_FAILED;
  }
  _CleanCache();
  return EM_STATE_IDLE;
}

UpgradeStateType UpgradePp::_HandleInterruptState() {
  LOGW("Warming! PP removed.");
  return _EndAttempt();
}

UpgradeStateType UpgradePp::_HandleUpgSuccessState() {
  LOGI("Success");
  return _EndAttempt();
}

UpgradeStateType UpgradePp::_HandleFailedState() {
  LOGE("Failed!");
  return _EndAttempt();
}

UpgradeStateType UpgradePp::_HandleUnknownState() {
  LOGE("State Not Support!Err Val:%02X", static_cast<unsigned>(_State()));
  return EM_STATE_FAILED;
}

UpgradeStateType UpgradePp::_EndAttempt() {
  m_link.CloseUarts();
  _CleanCache();
  return EM_STATE_IDLE;
}

void UpgradePp::_CleanCache() {
  m_flags.ClearAttempt(kPortFlags);
  m_link.CleanInfo();
}

std::string UpgradePp::_CurrentDevice() {
  const CLock lock(m_flags.Mutex());
  return m_devices.Current();
}

UpgradeStateType UpgradePp::_State() {
  const CLock lock(m_flags.Mutex());
  return m_emState;
}

void UpgradePp::_ProcPpReady() {
  const CLock lock(m_flags.Mutex());
  if (m_emState != EM_STATE_IDLE && m_emState != EM_STATE_INTERRUPT) {
    LOGI("upg in progress, no need process ready");
    m_bReadyMeanwhile = true;  // unless it answers as well, it is asked once more
    return;
  }
  LOGI("PP report ready.");
  m_bReadyMeanwhile = true;
  // What comes first, or a clock that is out of sync, lets it wait in the idle state.
  if (m_emState == EM_STATE_INTERRUPT || _NextTask() == Task::AskAgain) _ToggleState(EM_STATE_IDENTIFY);
  m_flags.Notify();
}

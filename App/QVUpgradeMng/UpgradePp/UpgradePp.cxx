/// A portable part's way through the states: noticed, identified, compared, upgraded or paired. States, waits
/// and texts are fixed; a new state is a line in the table and a handler.
#include "UpgradePp/UpgradePp.h"

#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <regex>
#include <utility>
#include <vector>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/PhyInterface/PhyInterface.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/PpFirmwareStore.h"

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

constexpr const char* m_strUsbDeviceFile = "/dev/tty(ACM[0-9]|USB[1-8])";
constexpr const char* m_strStorageDev = "/dev/sd.*";
/// The nodes among these that are disks and partitions.
constexpr const char* kDiskNode = "/dev/sd[a-z]+[0-9]*";

constexpr std::chrono::milliseconds m_iCheckTime(200);  ///< for a version reply
constexpr int kIdentifyTries = 2;                       ///< one for each protocol
constexpr int kVersionTries = 3;

/// How long a silent 7204 may report that it is ready, before another that is silent gets its turn.
constexpr std::chrono::seconds kListenTime(5);

bool Matches(const std::string& path, const char* pattern) {
  return std::regex_match(path, std::regex(pattern));
}

}  // namespace

// ---------------------------------------------------------------------------------------------- lifecycle

UpgradePp::UpgradePp()
    : CThread("UpgradePp"),
      m_link(m_signals, [this] { _ProcPpReady(); }),
      m_7308(m_signals, m_link),
      m_7204(m_signals, m_devices) {}

UpgradePp::~UpgradePp() {
  if (!HasCrashed()) CleanUp();
}

bool UpgradePp::Init(const std::string& deviceId) {
  m_link.SetStationName(deviceId);
  PhyInterface* const monitor = PhyInterface::instance();
  monitor->RegisterInterface(m_strUsbDeviceFile, [this](const std::string& device, bool plugged) {
    return _UsbHotPlugProcessCallback(device, plugged);
  });
  monitor->RegisterInterface(m_strStorageDev, [this](const std::string& node, bool present) {
    return _LoadStorageDevCallback(node, present);
  });
  if (!_LoadFwInfo()) {
    LOGW("[WARMING]Error occurred while loading info of PP fw. The upgrade function will be disable!");
  }
  m_importCallback = [this](const AllVersion& /*versions*/) { ReloadVeriosn(); };
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
  m_signals.Set(EM_FLAG_CLEAN_UP);
}

/// The callbacks stay registered, since another owner's share a pattern with them: they do nothing from now
/// on.
void UpgradePp::CleanUp() {
  RequestStop();
  m_link.CloseUarts();  // ends a transfer that the line holds up
  m_7308.CleanUp();
  DestroyThread(true, true);
  m_link.CleanUp();
}

void UpgradePp::ReloadVeriosn() {
  const PpSignals::Lock lock = m_signals.Hold();
  m_bReload = true;
  m_signals.Notify();
}

UpgPp::PpFwMap UpgradePp::GetPpPackageInfo() {
  const PpSignals::Lock lock = m_signals.Hold();
  return m_mapPpFwInfo;
}

bool UpgradePp::Debug() {
  LOGI("Send cmd req ver!");
  const bool sent = m_link.SendCmd(EM_NEW_CMD_REQ_PP_VERSION);
  LOGI("State:%s, m_bUsbInsert:%d, m_iFlags:%d, m_iLongTermFlags:%d", _TraceState(_State()),
       m_bUsbInsert.load(), m_signals.Flags(), m_signals.LongTermFlags());
  return sent;
}

bool UpgradePp::_LoadFwInfo() {
  PpFirmwareStore::Found found;
  const bool loaded = PpFirmwareStore::Load(found);
  const PpSignals::Lock lock = m_signals.Hold();
  m_mapPpFwInfo = std::move(found.firmware);
  m_signals.Clear(EM_FLAG_7308_VER_INFO_LOADED | EM_FLAG_LOAD_7204_DVT_PACKAGE |
                  EM_FLAG_LOAD_7204_EVT_PACKAGE);
  m_signals.Set(lock, (found.has7308 ? EM_FLAG_7308_VER_INFO_LOADED : 0U) |
                          (found.has7204Dvt ? EM_FLAG_LOAD_7204_DVT_PACKAGE : 0U) |
                          (found.has7204Evt ? EM_FLAG_LOAD_7204_EVT_PACKAGE : 0U));
  return loaded;
}

// ----------------------------------------------------------------------------------------------- hot plug

void UpgradePp::SetClockStatus(bool bStatus) {
  LOGI("SetClockStatus bStatus = %d", bStatus);
  const std::lock_guard<std::mutex> events(m_plugMutex);
  m_bCascadeClockSync = bStatus;
  if (!bStatus) return;
  std::vector<PpDevices::UsbHotPlugInfo> known;
  {
    const PpSignals::Lock lock = m_signals.Hold();
    known = m_devices.Known();
  }
  for (const PpDevices::UsbHotPlugInfo& info : known) {
    LOGI("SetClockStatus strDevFile = %s, bState =%d", info.strDevFile.c_str(), info.bState);
    _HandleHotPlug(info);
  }
  // Devices that wait for their turn had to wait for the clock as well.
  const PpSignals::Lock lock = m_signals.Hold();
  m_signals.Notify();
}

int UpgradePp::_UsbHotPlugProcessCallback(const std::string& device, bool plugged) {
  const std::lock_guard<std::mutex> events(m_plugMutex);
  _HandleHotPlug({device, plugged});
  return 0;
}

void UpgradePp::_HandleHotPlug(const PpDevices::UsbHotPlugInfo& info) {
  if (m_signals.Stopping()) return;
  PpDevices::Event event = PpDevices::Event::NoChange;
  {
    const PpSignals::Lock lock = m_signals.Hold();
    event = m_devices.Report(info, m_bCascadeClockSync, Clock::now());
    m_bUsbInsert = m_devices.AnyPresent();
  }
  switch (event) {
    case PpDevices::Event::NoChange:
      LOGW("USB state no change ,no need process");
      return;
    case PpDevices::Event::HeldBack:
      LOGI("m_bCascadeClockSync is false, strDevFile = %s, bState =%d", info.strDevFile.c_str(), info.bState);
      return;
    case PpDevices::Event::Handle:
      break;
  }
  if (info.bState) {
    _PlugIn(info.strDevFile);
  } else {
    _PlugOut(info.strDevFile);
  }
  LOGI("_UsbHotPlugProcessCallback out");
}

void UpgradePp::_PlugIn(const std::string& device) {
  if (PpDevices::MayHaveStorage(device)) LOGI("Identified to 7204");
  LOGI("%s usb plug in ", device.c_str());
  if (_EndTurn(device)) {  // its going was held back
    m_7308.OnPlugOut();
    m_link.CloseUartsOf(device);
  }
  LOGI("Normal plug in state:%d, type:%d, m_iFlags:%d", _State(), m_link.Info().m_emPpType,
       m_signals.Flags());
  const PpSignals::Lock lock = m_signals.Hold();
  m_devices.AddTurn(device, Clock::now());
  if (device == m_devices.Current()) m_signals.Set(lock, EM_FLAG_7204_RE_INSERT);
  m_signals.Notify();
}

void UpgradePp::_PlugOut(const std::string& device) {
  LOGI("%s usb plug out ", device.c_str());
  const bool wasUnderWay = _EndTurn(device);
  LOGI("plug out state:%d, type:%d, m_iFlags:%d", _State(), m_link.Info().m_emPpType, m_signals.Flags());
  if (wasUnderWay) m_7308.OnPlugOut();
  LOGI("m_iLongTermFlags:%d", m_signals.LongTermFlags());
  if (wasUnderWay) m_link.CloseUartsOf(device);
}

bool UpgradePp::_EndTurn(const std::string& device) {
  const PpSignals::Lock lock = m_signals.Hold();
  if (device != m_devices.Current()) return false;
  const bool wasUnderWay = m_signals.Has(EM_FLAG_PLUG_IN);
  m_signals.Clear(EM_FLAG_PLUG_IN | EM_FLAG_7204_RE_INSERT);
  return wasUnderWay;
}

UpgradeStateType UpgradePp::_State() {
  const PpSignals::Lock lock = m_signals.Hold();
  return m_emState;
}

int UpgradePp::_LoadStorageDevCallback(const std::string& node, bool present) {
  if (!Matches(node, kDiskNode)) return 0;
  const PpSignals::Lock lock = m_signals.Hold();
  if (present) {
    LOGI("Load storage dev, dev:%s", node.c_str());
    m_devices.StorageCame(node, Clock::now());
    m_signals.Set(lock, EM_FLAG_LOAD_STORAGE);
  } else {
    LOGI("Storage dev disconnect.Dev:%s", node.c_str());
    m_devices.StorageWent(node);
    if (!m_devices.AnyStorage()) m_signals.Clear(EM_FLAG_LOAD_STORAGE);
  }
  return 0;
}

// ------------------------------------------------------------------------------------------ state machine

void UpgradePp::ThreadProc() {
  LOGI("Enter UpgradePp Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  while (!m_signals.Stopping()) _HandleState();
}

void UpgradePp::_HandleState() {
  const UpgradeStateType state = _State();
  LOGD("Enter %s, %d state", _TraceState(state), state);
  const UpgradeStateType next = (this->*m_States.at(state).handler)();
  if (!m_signals.Stopping()) _ToggleState(m_signals.Hold(), next);
}

void UpgradePp::_ToggleState(const PpSignals::Lock& /*held*/, UpgradeStateType state) {
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
  PpSignals::Lock lock = m_signals.Hold();
  while (!m_signals.Stopping() && m_emState == EM_STATE_IDLE) {
    switch (_NextTask()) {
      case Task::Wait:
        _WaitForTask(lock);
        break;
      case Task::Reload:
        m_bReload = false;
        lock.unlock();
        _LoadFwInfo();
        lock.lock();
        break;
      case Task::TakeTurn:
        _TakeTurn(lock);
        lock.unlock();
        m_link.CloseUarts();
        return EM_STATE_IDENTIFY;
      case Task::AskAgain:
        return EM_STATE_IDENTIFY;
    }
  }
  return m_emState;
}

UpgradePp::Task UpgradePp::_NextTask() const {
  if (m_bReload) return Task::Reload;
  if (!m_bCascadeClockSync) return Task::Wait;
  const std::optional<PpDevices::Time> due = m_devices.NextDue();
  if (due && *due <= Clock::now()) return Task::TakeTurn;
  return m_bReadyMeanwhile && _IsListening() ? Task::AskAgain : Task::Wait;
}

void UpgradePp::_WaitForTask(PpSignals::Lock& lock) {
  const std::optional<PpDevices::Time> due = m_devices.NextDue();
  if (due && m_bCascadeClockSync) {
    m_signals.WaitOnce(lock, *due);
  } else {
    m_signals.WaitOnce(lock);
  }
}

void UpgradePp::_TakeTurn(const PpSignals::Lock& lock) {
  if (_IsListening()) m_devices.AddTurn(m_devices.Current(), Clock::now() + kListenTime);
  m_devices.TakeNext();
  m_signals.ClearAttempt();
  m_link.SetProtocol(EM_PROT_72_NEW);
  m_signals.Set(lock, EM_FLAG_PLUG_IN);
}

bool UpgradePp::_IsListening() const {
  return m_signals.Has(EM_FLAG_PLUG_IN) && m_signals.Has(EM_FLAG_NEW_UART_OPEN);
}

/// Which protocol the part speaks: the one in which it answers.
UpgradeStateType UpgradePp::_HandleIdentifyState() {
  std::string device;
  {
    const PpSignals::Lock lock = m_signals.Hold();
    device = m_devices.Current();
    m_bReadyMeanwhile = false;
  }
  const bool is7204 = PpDevices::MayHaveStorage(device);
  m_link.CleanInfo(is7204 ? UpgPp::EM_PP_7204 : UpgPp::EM_PP_MAX);
  if (is7204) {
    m_link.SetProtocol(EM_PROT_72_NEW);
    if (m_link.OpenUart(EM_PROT_72_NEW, device)) return EM_STATE_CHECK_VER;
    LOGE("Open uart error!");
    return EM_STATE_FAILED;
  }
  for (int i = 0; i < kIdentifyTries && !m_signals.Stopping(); ++i) {
    const ProtocolType protocol = m_link.Protocol();
    if (!m_link.OpenUart(protocol, device)) {
      LOGE("Open uart error!");
      return EM_STATE_FAILED;
    }
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
  for (int i = 0; i < kVersionTries && !m_signals.Has(EM_FLAG_GET_VER) && !m_signals.Stopping(); ++i) {
    m_link.RequestVersion(m_iCheckTime);
  }
  const std::optional<PpInfo_t> info = m_link.Reported();
  if (!info) return Is7204Pp(m_link.Info().m_emPpType) ? EM_STATE_IDLE : EM_STATE_FAILED;

  m_emCheckedType = info->m_emPpType;
  const auto found = m_mapPpFwInfo.find(m_emCheckedType);
  if (found == m_mapPpFwInfo.end()) {
    LOGE("Can't find fw info of pptype:%d", m_emCheckedType);
    return EM_STATE_FAILED;
  }
  switch (m_emCheckedType) {
    case UpgPp::EM_PP_7308:
      return _Check7308(*info, found->second);
    case UpgPp::EM_PP_7302_03:
      m_link.CloseUart(EM_PROT_73_OLD);
      return EM_STATE_REQ_PAIR;
    case UpgPp::EM_PP_7204:
    case UpgPp::EM_PP_7204_EVT:
      return _Check7204(*info, found->second);
    default:
      LOGE("Not support PP type:0x%X", m_emCheckedType);
      return EM_STATE_FAILED;
  }
}

/// One that is up to date is done: unlike a 7204 it is not paired from here.
UpgradeStateType UpgradePp::_Check7308(const PpInfo_t& info, const UpgPp::PpFw_t& firmware) {
  if (!m_signals.Has(EM_FLAG_7308_VER_INFO_LOADED)) {
    LOGE("Can't upg beacause of ver info not load");
    m_link.CloseUart(EM_PROT_72_NEW);
    return EM_STATE_FAILED;
  }
  LOGI("ReadVer:%s, StoreVer:%s,m_iFlags:%d ", info.strVerison.c_str(), firmware.m_strVerison.c_str(),
       m_signals.Flags());
  if (info.strVerison != firmware.m_strVerison) return EM_STATE_UPG_PP;
  LOGI("Same version, no need upgrade");
  m_link.CloseUart(EM_PROT_72_NEW);
  return EM_STATE_UPG_SUCCESS;
}

/// One that is up to date, or for which there is no firmware, is paired.
UpgradeStateType UpgradePp::_Check7204(const PpInfo_t& info, const UpgPp::PpFw_t& firmware) {
  const bool hasFirmware =
      m_signals.Has(info.m_emPpType == UpgPp::EM_PP_7204_EVT ? EM_FLAG_LOAD_7204_EVT_PACKAGE
                                                             : EM_FLAG_LOAD_7204_DVT_PACKAGE);
  LOGI("ReadVer:%s, StoreVer:%s,m_iFlags:%d ", info.strVerison.c_str(), firmware.m_strVerison.c_str(),
       m_signals.Flags());
  if (hasFirmware && info.strVerison != firmware.m_strVerison) return EM_STATE_UPG_PP;
  m_link.CloseUart(EM_PROT_72_NEW);
  LOGI("No need upg, destroy new protocol Serial.");
  return EM_STATE_REQ_PAIR;
}

UpgradeStateType UpgradePp::_HandleUpgPpState() {
  LOGI("====================PP upgrading...=====================");
  const auto firmware = m_mapPpFwInfo.find(m_emCheckedType);
  // What is known of a family's versions alone is no firmware.
  if (firmware == m_mapPpFwInfo.end() || firmware->second.m_strFileName.empty()) {
    LOGE("No firmware file of pptype:%d", m_emCheckedType);
    return EM_STATE_FAILED;
  }
  if (Is7204Pp(m_emCheckedType)) return m_7204._Upg7204(firmware->second);
  if (m_emCheckedType != UpgPp::EM_PP_7308) return EM_STATE_FAILED;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(UI_STATUS_STARTED, 0, Json::Value(), DataDef::EM_UPG_PP);
  return m_7308._Upg7308(m_emCheckedType, firmware->second, _CurrentDevice());
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
  m_link.CloseUarts();
  _CleanCache();
  return EM_STATE_IDLE;
}

UpgradeStateType UpgradePp::_HandleUpgSuccessState() {
  LOGI("Success");
  m_link.CloseUarts();
  _CleanCache();
  return EM_STATE_IDLE;
}

UpgradeStateType UpgradePp::_HandleFailedState() {
  LOGE("Failed!");
  m_link.CloseUarts();
  _CleanCache();
  return EM_STATE_IDLE;
}

UpgradeStateType UpgradePp::_HandleUnknownState() {
  LOGE("State Not Support!Err Val:%02X", static_cast<unsigned>(_State()));
  return EM_STATE_FAILED;
}

void UpgradePp::_CleanCache() {
  m_signals.ClearAttempt();
  m_link.CleanInfo();
}

std::string UpgradePp::_CurrentDevice() {
  const PpSignals::Lock lock = m_signals.Hold();
  return m_devices.Current();
}

void UpgradePp::_ProcPpReady() {
  const PpSignals::Lock lock = m_signals.Hold();
  if (m_emState != EM_STATE_IDLE && m_emState != EM_STATE_INTERRUPT) {
    LOGI("upg in progress, no need process ready");
    m_bReadyMeanwhile = true;  // unless it answers as well, it is asked once more
    return;
  }
  LOGI("PP report ready.");
  m_bReadyMeanwhile = true;
  // What comes first, or a clock that is out of sync, lets it wait in the idle state.
  if (m_emState == EM_STATE_INTERRUPT || _NextTask() == Task::AskAgain) _ToggleState(lock, EM_STATE_IDENTIFY);
  m_signals.Notify();
}

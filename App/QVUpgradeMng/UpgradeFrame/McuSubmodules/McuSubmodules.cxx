/// The MCU's upgrade: its states in the order in which an upgrade meets them. A new state is a line in the
/// table and a handler.
#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"

#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/McuSubmodules/McuPackage.h"
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

namespace {

constexpr const char* kStopApplicationCommand = "systemctl stop quorvalen && echo $?";
constexpr const char* kStopControllerCommand = "pkill -9 -f 'QVSysCtrlMng' && echo $?";

constexpr int kVersionTries = 3;
/// The MCU's time from an answer to its other program being ready.
constexpr uint32_t kMcuRestartMs = 700;

}  // namespace

McuSubmodules::McuSubmodules() : UpgraderBase(UP_MCU, 0), CThread("McuSubmodules") {}

McuSubmodules::~McuSubmodules() {
  if (!HasCrashed()) McuSubmodules::CleanUp();
}

bool McuSubmodules::Init() {
  if (m_flags.Has(McuLine::EM_FLAG_INIT_DONE)) return true;
  if (m_flags.Ending() || !m_line.Open()) return false;
  if (!CreateThread(0)) {
    LOGE("state thread of the MCU upgrade cannot be started");
    m_line.Close();
    return false;
  }
  // Whether something had to be stopped does not matter.
  QVUpgradeTool::ExecCommand(kStopApplicationCommand);
  QVUpgradeTool::ExecCommand(kStopControllerCommand);
  m_flags.Set(McuLine::EM_FLAG_INIT_DONE);
  return true;
}

bool McuSubmodules::StartUpgrade() {
  const CLock lock(m_flags.Mutex());
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
  const CLock lock(m_flags.Mutex());
  if (!_CanStart()) return false;
  if (!_LoadFwInfo()) {
    LOGE("_LoadFwInfo error, can't ContinueUpg");
    return false;
  }
  m_flags.SetHeld(McuLine::EM_FLAG_RESTART_AND_UPG_MCU);
  _Start(state);
  return true;
}

bool McuSubmodules::_CanStart() const {
  if (!m_flags.Has(McuLine::EM_FLAG_INIT_DONE)) {
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
  m_flags.SetHeld(McuLine::EM_FLAG_START_UPG);
}

void McuSubmodules::ThreadProc() {
  while (_HandleState() != EM_RET_END) {
  }
  m_line.Close();
}

McuSubmodules::RetValType McuSubmodules::_HandleState() {
  UpgradeStateType state = EM_STATE_IDLE;
  {
    const CLock lock(m_flags.Mutex());
    state = m_emState;
  }
  const UpgradeStateType next = (this->*m_States[state].handler)();
  // A stop ends the pauses first and the waits a moment later: neither may pass for the part's own failure.
  if (!IsRunning() || m_flags.Ending()) return EM_RET_END;
  _ToggleState(next);
  return EM_RET_SUCESS;
}

void McuSubmodules::_ToggleState(UpgradeStateType state) {
  const CLock lock(m_flags.Mutex());
  if (state == m_emState) return;
  LOGI("UpgradeMcu StateMachine change [%s] ----> [%s]", m_States[m_emState].name, m_States[state].name);
  m_emState = state;
}

/// Whoever starts a run has chosen its first state.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleIdleState() {
  const CLock lock(m_flags.Mutex());
  while (!m_flags.Ending() && !m_flags.Has(McuLine::EM_FLAG_START_UPG)) m_flags.WaitOnce();
  m_flags.Clear(McuLine::EM_FLAG_START_UPG);
  return m_emState;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleInitState() {
  if (Failure failure = McuPackage::Unpack(_Info().m_upgradeFilePath, m_stStoredPath, m_stFwInfo)) {
    return _Fail(std::move(failure));
  }
  if (_SaveFwInfo()) return EM_STATE_CHECK_VER;
  LOGE("_SaveFwInfo err!");
  return _Fail(Fail(Reason::PartRecord, "of the unpacked firmware"));
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleCheckVerState() {
  bool answered = false;
  for (int i = 0; i < kVersionTries && !answered && !m_flags.Ending(); ++i) {
    answered = m_line.Request(McuMessages::EM_CMD_ARM_REQ_VER, McuLine::EM_FLAG_GET_VER);
  }
  if (!answered) {
    if (m_flags.Ending()) return _Fail({Reason::Stopped, {}});
    LOGE("Get ver from MCU error.");
    return _Fail(Fail(Reason::PartAnswer, "no version in %d tries", kVersionTries));
  }
  const McuMessages::Identity mcu = LastIdentity();
  const std::string running = mcu.version.Text();
  LOGI("now ver:%s, fw ver:%s", running.c_str(), m_stFwInfo.m_strVersion.c_str());
  if (mcu.mode == RunMode::BootLoader) {
    // It has no application to compare with or to leave; skipped, it would never get one.
    LOGW("MCU boot status detected");
    if (_SaveUpgState(EM_STATE_UPG_MCU)) return EM_STATE_UPG_MCU;
    return _Fail(Fail(Reason::PartRecord, "before the boot loader gets the image"));
  }
  if (mcu.version < *McuVersion::Parse(m_strMinVer)) {
    LOGW("Mcu less than minimum version, can't upgrade! m_strMcuVer:%s, m_strMinVer:%s", running.c_str(),
         m_strMinVer);
    return EM_STATE_SUCCESS;
  }
  if (mcu.version == McuVersion::Parse(m_stFwInfo.m_strVersion)) return EM_STATE_SUCCESS;
  LOGI("Verison not same.");
  const bool hasToWait =
      m_flags.Has(McuLine::EM_FLAG_ESIXT_OTHER_MODULE) && !m_flags.Has(McuLine::EM_FLAG_RESTART_AND_UPG_MCU);
  return hasToWait ? EM_STATE_WAIT_RESTART : EM_STATE_ENTER_BOOT;
}

/// The record comes first: from the request on, only the boot loader may answer after a power cut.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleEnterBootState() {
  if (!_SaveUpgState(EM_STATE_UPG_MCU)) {
    return _Fail(Fail(Reason::PartRecord, "before the MCU leaves its application"));
  }
  if (Failure failure = m_line.Ask(McuMessages::EM_CMD_ARM_REQ_START_UPG, McuLine::EM_FLAG_START_UPG_ACK,
                                   "Waiting for ACK of [START_UPG] timeout")) {
    return _Fail(std::move(failure));
  }
  LOGI("MCU enter boot.");
  Pause(kMcuRestartMs);
  return EM_STATE_UPG_MCU;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleUpgMcuState() {
  if (Failure failure = _RrepareFwInfo()) return _Fail(std::move(failure));
  if (Failure failure = _RrepareFwDataPack()) return _Fail(std::move(failure));
  if (Failure failure = m_line.Ask(McuMessages::EM_CMD_ARM_SEND_UPG_DONE, McuLine::EM_FLAG_UPG_DONE_ACK,
                                   "Waiting for ACK of [SEND_UPG_DONE] timeout")) {
    return _Fail(std::move(failure));
  }
  LOGI("MCU app will start.");
  Pause(kMcuRestartMs);
  return EM_STATE_RE_CHECK_VER;
}

Failure McuSubmodules::_RrepareFwInfo() {
  const std::string& path = m_stFwInfo.m_strFwPath;
  const int64_t size = XGetFileSize(path);
  const std::optional<McuVersion> version = McuVersion::Parse(m_stFwInfo.m_strVersion);
  if (size < 0 || size > static_cast<int64_t>(McuPackage::kMaxImageBytes) || !version) {
    LOGE("Get file size error!file:%s, iFileSize:%zu", path.c_str(), static_cast<size_t>(size));
    return Fail(Reason::PartImage, "%s, version %s", path.c_str(), m_stFwInfo.m_strVersion.c_str());
  }
  return m_line.Ask(
      McuMessages::EM_CMD_ARM_SEND_FW_INFO, McuLine::EM_FLAG_SEND_FW_INFO_ACK,
      "Waiting for ACK of [SEND_FW_INFO] timeout",
      McuMessages::FirmwareDescription(static_cast<uint32_t>(size), *version, m_stFwInfo.m_strFileName));
}

Failure McuSubmodules::_RrepareFwDataPack() {
  const std::string& path = m_stFwInfo.m_strFwPath;
  std::string image;
  if (!ReadFileToString(path, McuPackage::kMaxImageBytes, image)) {
    LOGE("Failed to open the [%s] file.", path.c_str());
    return Fail(Reason::PartImage, "%s cannot be read", path.c_str());
  }
  if (image.empty()) {
    LOGE("Error pre loader file length!ErrVal:%ld", static_cast<long>(image.size()));
    return Fail(Reason::PartImage, "%s is empty", path.c_str());
  }
  const size_t count = McuMessages::PackageCount(image.size());
  for (size_t index = 0; index < count; ++index) {
    const McuLine::Bytes package = McuMessages::Package(image, index);
    const int number = package.front();
    LOGD("Index:%zu, iCount:%d, iNum:%d, Size:%zu", index, static_cast<int>(count), number,
         package.size() - 1);
    const std::string onTimeout =
        FormatText("Waiting for ACK of [SEND_PACK] timeout.Index:%zu, iNum:%d", index, number);
    if (Failure failure = m_line.Ask(McuMessages::EM_CMD_ARM_SEND_PACKAGE, McuLine::EM_FLAG_SEND_PACK_ACK,
                                     onTimeout, package)) {
      return failure;
    }
    _ReportSteps(index + 1, count);
  }
  return {};
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleReCheckVerState() {
  if (Failure failure = m_line.Ask(McuMessages::EM_CMD_ARM_REQ_VER, McuLine::EM_FLAG_GET_VER,
                                   "Waiting for ACK of [RE_GET_VER] timeout")) {
    return _Fail(std::move(failure));
  }
  if (LastIdentity().mode == RunMode::BootLoader) LOGW("MCU boot status detected");
  return EM_STATE_SUCCESS;
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleSuccessState() {
  LOGI("MCU upgrade successfully.");
  return _EndRun(EM_STATE_IDLE, {});
}

McuSubmodules::UpgradeStateType McuSubmodules::_HandleFailedState() {
  LOGE("Upgrade failed!");
  return _EndRun(EM_STATE_IDLE, m_failure);
}

/// The firmware is on the disk; the record makes the next start write it.
McuSubmodules::UpgradeStateType McuSubmodules::_HandleWaitRestartState() {
  return _EndRun(EM_STATE_UPG_MCU, {});
}

McuSubmodules::UpgradeStateType McuSubmodules::_Fail(Failure failure) {
  m_failure = std::move(failure);
  return EM_STATE_FAILED;
}

/// In this order: a report may end in the unit's restart.
McuSubmodules::UpgradeStateType McuSubmodules::_EndRun(UpgradeStateType state, const Failure& failure) {
  _SaveUpgState(state);
  m_flags.Clear(McuLine::EM_FLAG_INIT_DONE);
  m_line.Close();
  _ReportEnd(failure);
  RetUpgResultCb_T callback;
  {
    const CLock lock(m_flags.Mutex());
    callback = m_RetResultFunc;
  }
  if (callback) callback(!failure);
  return EM_STATE_IDLE;
}

std::optional<McuMessages::Identity> McuSubmodules::LoadVersion() {
  const bool isOpen = m_line.IsOpen();
  if (!isOpen && !m_line.Open()) return std::nullopt;
  LOGI("Try to get mcu version.");
  const bool answered = m_line.Request(McuMessages::EM_CMD_ARM_REQ_VER, McuLine::EM_FLAG_GET_VER);
  if (!isOpen) m_line.Close();
  if (m_flags.Ending()) return std::nullopt;
  if (!answered) LOGE("Get version timeout!");
  const McuMessages::Identity mcu = answered ? LastIdentity() : McuMessages::Identity{};
  if (mcu.mode == RunMode::BootLoader) LOGW("MCU boot status detected");
  LOGI("MCU LoadVersion done.");
  return mcu;
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
    m_flags.Set(McuLine::EM_FLAG_ESIXT_OTHER_MODULE);
  } else {
    m_flags.Clear(McuLine::EM_FLAG_ESIXT_OTHER_MODULE);
  }
}

void McuSubmodules::RegRetUpgResultCb(const RetUpgResultCb_T& callback) {
  const CLock lock(m_flags.Mutex());
  m_RetResultFunc = callback;
}

bool McuSubmodules::CleanUp() {
  const bool ended = DestroyThread(true, true);
  m_line.Close();
  m_flags.Clear(McuLine::EM_FLAG_INIT_DONE);
  m_flags.Set(McuLine::EM_FLAG_CLEAN_DONE);
  return ended;
}

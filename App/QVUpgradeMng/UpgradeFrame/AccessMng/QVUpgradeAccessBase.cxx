/// The states in the order in which a package meets them, and its one end when it is not started.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"

#include <cstdint>
#include <utility>

#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/PackageCheck.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/PackageEnd.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/RebootCommands.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

/// Between two tries to hand a package to a frame that is still busy.
constexpr uint32_t kNotifyRetryPauseMs = 1000;

constexpr const char* kIdle = "Idle";
constexpr const char* kPreprocess = "Areprocess";
constexpr const char* kCheck = "Check";
constexpr const char* kNotify = "Notify";
constexpr const char* kSuccess = "Success";
constexpr const char* kFaild = "Faild";

/// All seven interrupts on all four cores.
constexpr const char* kFreeCommand =
    "echo 15 > /proc/irq/70/smp_affinity &&echo 15 > /proc/irq/71/smp_affinity &&"
    "echo 15 > /proc/irq/79/smp_affinity &&echo 15 > /proc/irq/80/smp_affinity &&"
    "echo 15 > /proc/irq/66/smp_affinity &&echo 15 > /proc/irq/67/smp_affinity &&"
    "echo 15 > /proc/irq/46/smp_affinity";
/// Core 3 for 70, 71, 79, 80 and 46, core 0 for 66, core 2 for 67.
constexpr const char* kPinnedCommand =
    "echo 8 > /proc/irq/70/smp_affinity &&echo 8 > /proc/irq/71/smp_affinity &&"
    "echo 8 > /proc/irq/79/smp_affinity &&echo 8 > /proc/irq/80/smp_affinity &&"
    "echo 1 > /proc/irq/66/smp_affinity &&echo 4 > /proc/irq/67/smp_affinity &&"
    "echo 8 > /proc/irq/46/smp_affinity";

}  // namespace

const QVUpgradeAccessBase::Table QVUpgradeAccessBase::m_MapStateMachineFunc = {
    {kIdle, &QVUpgradeAccessBase::_IdleState},       {kPreprocess, &QVUpgradeAccessBase::_Preprocess},
    {kCheck, &QVUpgradeAccessBase::_CheckState},     {kNotify, &QVUpgradeAccessBase::_NotifyState},
    {kSuccess, &QVUpgradeAccessBase::_SuccessState}, {kFaild, &QVUpgradeAccessBase::_FaildState},
};

std::string QVUpgradeAccessBase::_IdleState() {
  if (!_WaitForPackage()) return kIdle;
  if (Failure failure = _FetchPackage()) return _Refuse(std::move(failure));
  return kPreprocess;
}

std::string QVUpgradeAccessBase::_Preprocess() {
  if (Failure failure = _CheckBattery()) return _Refuse(std::move(failure));
  _SetSmpAffinityToCpu0(false);
  if (Failure failure = _UnpackPackage()) return _Refuse(std::move(failure));
  m_access.frame->setUpgradeType(m_accessType);
  return kCheck;
}

std::string QVUpgradeAccessBase::_CheckState() {
  Failure failure = PackageCheck::CheckPack(m_access, m_access.versions.getAllVersion());
  switch (_ResultOf(failure)) {
    case EM_RET_NO_NEED:
      LOGI("Version same no need upg.");
      PackagePage::Remove();
      return _Refuse(std::move(failure));
    case EM_RET_FAILED:
      LOGE("Check and move file error!");
      return _Refuse(std::move(failure));
    case EM_RET_SUCCESS:
      break;
  }
  failure = PackageCheck::MovePack();
  if (failure) {
    LOGE("MovePack error!");
    return _Refuse(std::move(failure));
  }
  LOGI("check and move ota is ok");
  return kNotify;
}

std::string QVUpgradeAccessBase::_NotifyState() {
  if (_StartFrame()) return kSuccess;
  LOGE("notify error try agian");
  Pause(kNotifyRetryPauseMs);
  return kNotify;
}

bool QVUpgradeAccessBase::_StartFrame() {
  return m_callback && m_callback.pCbFun(m_accessType, m_callback.pContext) == 0;
}

// The frame has the package now: the claim stays until the unit reboots.
std::string QVUpgradeAccessBase::_SuccessState() {
  return kIdle;
}

std::string QVUpgradeAccessBase::_Refuse(Failure failure) {
  m_failure = std::move(failure);
  return kFaild;
}

std::string QVUpgradeAccessBase::_FaildState() {
  _EndWithoutStart(std::exchange(m_failure, {}));
  return kIdle;
}

void QVUpgradeAccessBase::_EndWithoutStart(const Failure& failure) {
  const Reasons::Row& row = Reasons::Of(failure.reason);
  _TellPanel(row.panel);
  PackageEnd::Tell(failure);
  _PackageEnded(failure);
  if (row.reboots) _FailAndReboot(failure.reason);
  m_access.claim.ReleaseClaim();
}

void QVUpgradeAccessBase::_TellPanel(Reasons::Panel panel) {
  switch (panel) {
    case Reasons::Panel::Nothing:
      return;
    case Reasons::Panel::Failed:
      return _ReportStatus(UI_STATUS_FAILED);
    case Reasons::Panel::SameVersion:
      return _ReportStatus(UI_STATUS_SAME_VERSION);
    case Reasons::Panel::NoTask:
      return _ReportStatus(UI_STATUS_NO_TASK);
    case Reasons::Panel::BatteryLow:
      UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_BATTERY_LOW);
  }
}

void QVUpgradeAccessBase::_ReportStatus(UiUpgradeStatus status, int percent) {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(status, percent, kNoVersion, DataDef::EM_UPG_RRU);
}

void QVUpgradeAccessBase::_FailAndReboot(Reason reason) {
  QVUpgradeTool::ExecUnlessStopped(kStopDisplayWatchdogCommand);
  const bool isMove =
      reason == Reason::PagesManifest || reason == Reason::PagesEntry || reason == Reason::PagesMove;
  if (isMove) LOGE("mv pack error  reboot");
  QVUpgradeTool::ExecUnlessStopped(kRebootCommand);
}

QVUpgradeAccessBase::RetType QVUpgradeAccessBase::_ResultOf(const Failure& failure) {
  if (!failure) return EM_RET_SUCCESS;
  return failure.reason == Reason::PackageSameVersion ? EM_RET_NO_NEED : EM_RET_FAILED;
}

bool QVUpgradeAccessBase::_Claim() {
  if (m_access.claim.TryClaim()) return true;
  LOGE("beingTask is have current upgrade  unpack failed.");
  PackageEnd::Tell(Fail(Reason::Busy, "another package is under way"));
  return false;
}

Failure QVUpgradeAccessBase::_CheckBattery() {
  if (!m_access.battery.IsBatteryLow()) return {};
  LOGW("Low battery can't upg!");
  return Fail(Reason::BatteryLow, "%d %% are left, more than %d %% are needed", m_access.battery.GetBattery(),
              BatteryLevel::EM_CFG_MIN_BATTERY_VAL);
}

void QVUpgradeAccessBase::_SetSmpAffinityToCpu0(bool change) {
  LOGI("djh _SetSmpAffinityToCpu0 bChange:%d", static_cast<int>(change));
  const int result =
      change ? QVUpgradeTool::ExecUnlessStopped(kFreeCommand) : QVUpgradeTool::ExecCommand(kPinnedCommand);
  if (result != 0) LOGE("interrupts cannot be moved: %d", result);
}

QVUpgradeAccessBase::QVUpgradeAccessBase(const char* threadName, UPGRADEACCESSTYPE accessType,
                                         AccessContext access)
    : StateMachine(threadName, m_MapStateMachineFunc, kIdle),
      m_accessType(accessType),
      m_access(std::move(access)) {}

bool QVUpgradeAccessBase::RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) {
  if (m_callback || callback == nullptr) return false;
  m_callback = {callback, userData};
  return true;
}

bool QVUpgradeAccessBase::UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) {
  if (!(m_callback == CCallbackInfo<START_UPGRADE_CALLBACK>{callback, userData})) return false;
  m_callback = {};
  return true;
}

bool QVUpgradeAccessBase::Start() {
  m_bListening = _Listen();
  if (m_bListening && CreateThread(0)) return true;
  LOGE("package source %d cannot start", static_cast<int>(m_accessType));
  CleanUp();
  return false;
}

void QVUpgradeAccessBase::RequestStop() {
  DestroyThread(true, false);
}

void QVUpgradeAccessBase::CleanUp() {
  if (std::exchange(m_bListening, false)) _Unlisten();
  DestroyThread(true, true);
}

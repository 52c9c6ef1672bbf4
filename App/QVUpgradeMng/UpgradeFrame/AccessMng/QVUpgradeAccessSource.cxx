/// The way of a package from its arrival to the start of the frame: the table, and the states in the order in
/// which a package meets them.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessSource.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"
#include "UpgradeFrame/UpgradePaths.h"
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

}  // namespace

const QVUpgradeAccessSource::Table QVUpgradeAccessSource::m_MapStateMachineFunc = {
    {kIdle, &QVUpgradeAccessSource::_IdleState},       {kPreprocess, &QVUpgradeAccessSource::_Preprocess},
    {kCheck, &QVUpgradeAccessSource::_CheckState},     {kNotify, &QVUpgradeAccessSource::_NotifyState},
    {kSuccess, &QVUpgradeAccessSource::_SuccessState}, {kFaild, &QVUpgradeAccessSource::_FaildState},
};

std::string QVUpgradeAccessSource::_IdleState() {
  if (!_WaitForPackage()) return kIdle;
  m_bReported = false;
  return _FetchPackage() ? kPreprocess : kFaild;
}

std::string QVUpgradeAccessSource::_Preprocess() {
  if (_RefuseLowBattery()) {
    m_bReported = true;
    return kFaild;
  }
  _SetSmpAffinityToCpu0(false);
  if (!_UnpackPackage()) return kFaild;
  QVUpgradeAccessFrame::getAccessFrame()->setUpgradeType(m_accessType);
  return kCheck;
}

std::string QVUpgradeAccessSource::_CheckState() {
  switch (CheckPack(QVUpgradeAccessFrame::getAccessFrame()->getAllVersion())) {
    case EM_RET_NO_NEED:
      LOGI("Version same no need upg.");
      if (!XRemoveDirectory(UpgradePaths::kPage)) {
        LOGE("cannot remove %s: %s", UpgradePaths::kPage, std::strerror(errno));
      }
      _EndWithoutStart();
      return kIdle;
    case EM_RET_SUCCESS:
      if (!MovePack()) {
        LOGE("MovePack error!");
        return kFaild;
      }
      LOGI("check and move ota is ok");
      return kNotify;
    default:
      LOGE("Check and move file error!");
      return kFaild;
  }
}

std::string QVUpgradeAccessSource::_NotifyState() {
  if (_StartFrame()) return kSuccess;
  LOGE("notify error try agian");
  Pause(kNotifyRetryPauseMs);
  return kNotify;
}

bool QVUpgradeAccessSource::_StartFrame() {
  return m_callback && m_callback.pCbFun(m_accessType, m_callback.pContext) == 0;
}

// The frame has the package now: the claim stays until the unit reboots.
std::string QVUpgradeAccessSource::_SuccessState() {
  return kIdle;
}

std::string QVUpgradeAccessSource::_FaildState() {
  if (!m_bReported) _ReportStatus(UI_STATUS_FAILED);
  _EndWithoutStart();
  return kIdle;
}

void QVUpgradeAccessSource::_EndWithoutStart() {
  _PackageEnded();
  QVUpgradeAccessFrame::getAccessFrame()->ReleaseClaim();
}

QVUpgradeAccessSource::QVUpgradeAccessSource(const char* threadName, UPGRADEACCESSTYPE accessType)
    : StateMachine(threadName, m_MapStateMachineFunc, kIdle), m_accessType(accessType) {}

bool QVUpgradeAccessSource::RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) {
  if (m_callback || callback == nullptr) return false;
  m_callback = {callback, userData};
  return true;
}

bool QVUpgradeAccessSource::UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) {
  if (!(m_callback == CCallbackInfo<START_UPGRADE_CALLBACK>{callback, userData})) return false;
  m_callback = {};
  return true;
}

bool QVUpgradeAccessSource::Start() {
  m_bListening = _Listen();
  if (m_bListening && CreateThread(0)) return true;
  LOGE("package source %d cannot start", static_cast<int>(m_accessType));
  if (m_bListening) _Unlisten();
  m_bListening = false;
  return false;
}

void QVUpgradeAccessSource::RequestStop() {
  DestroyThread(true, false);
}

void QVUpgradeAccessSource::CleanUp() {
  if (m_bListening) _Unlisten();
  m_bListening = false;
  DestroyThread(true, true);
}

bool QVUpgradeAccessSource::_Claim() {
  if (QVUpgradeAccessFrame::getAccessFrame()->TryClaim()) return true;
  LOGE("beingTask is have current upgrade  unpack failed.");
  return false;
}

bool QVUpgradeAccessSource::_RefuseLowBattery() {
  if (!QVUpgradeAccessFrame::getAccessFrame()->IsBatteryLow()) return false;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_BATTERY_LOW);
  LOGW("Low battery can't upg!");
  return true;
}

void QVUpgradeAccessSource::_ReportStatus(int status) {
  if (status != UI_STATUS_STARTED) m_bReported = true;
  QVUpgradeAccessBase::_ReportStatus(status);
}

/// The four states of a SoC upgrader and its status. Called by the frame and by the base's own thread.
#include "UpgradeFrame/SocUpgraderBase.h"

#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/ErrorNum/ErrorNum.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

constexpr uint32_t kIdlePauseMs = 2000;
constexpr uint32_t kFailPauseMs = 2000;
constexpr uint32_t kPollPauseMs = 1000;

}  // namespace

SocUpgraderBase::Table SocUpgraderBase::MakeTable(const Kind& kind) {
  return {
      {kind.idle, &SocUpgraderBase::_IdleState},
      {kind.check, &SocUpgraderBase::_CheckState},
      {kind.success, &SocUpgraderBase::_SuccessState},
      {kind.fail, &SocUpgraderBase::_FailState},
  };
}

SocUpgraderBase::SocUpgraderBase(const Kind& kind, const Table& table)
    : StateMachine(kind.threadName, table, kind.idle), m_kind(kind), m_progress(kind.type) {}

void SocUpgraderBase::StopBeforeDestruction() {
  if (!HasCrashed()) DestroyThread(true, true);
}

// The table holds handlers that may change the object.
// NOLINTNEXTLINE(readability-make-member-function-const)
std::string SocUpgraderBase::_IdleState() {
  Pause(kIdlePauseMs);
  return m_kind.idle;
}

std::string SocUpgraderBase::_CheckState() {
  QVUpgradingInfo info;
  {
    const std::lock_guard<std::mutex> lock(m_infoMutex);
    info = m_upgradingInfo;
  }
  return _CheckUpgrade(info) ? m_kind.success : m_kind.fail;
}

std::string SocUpgraderBase::_SuccessState() {
  m_iStatus = kDone;
  m_iProgress = ProgressReporter::kSuccess;
  _OnEnd(true);
  UploadPrecent(ProgressReporter::kSuccess);
  return m_kind.idle;
}

std::string SocUpgraderBase::_FailState() {
  m_iStatus = kFailed;
  m_iProgress = ProgressReporter::kFailure;
  _OnEnd(false);
  UploadPrecent(ProgressReporter::kFailure);
  if (m_kind.errorCode != kNoErrorCode) ErrorNum::instance()->Record(SubMod_MainBoard, m_kind.errorCode);
  Pause(kFailPauseMs);
  return m_kind.idle;
}

void SocUpgraderBase::_OnEnd(bool /*succeeded*/) {}

bool SocUpgraderBase::Init() {
  return CreateThread(0);
}

bool SocUpgraderBase::RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_progress.Register(cb, ctx);
}

bool SocUpgraderBase::UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_progress.Unregister(cb, ctx);
}

bool SocUpgraderBase::setUpgradeInfo(QVUpgradingInfo info) {
  const std::lock_guard<std::mutex> lock(m_infoMutex);
  m_upgradingInfo = std::move(info);
  return true;
}

bool SocUpgraderBase::StartUpgrade() {
  if (!m_bStarted.exchange(true)) _QueueFromIdle(m_kind.idle, m_kind.check, [] {});
  return true;
}

int SocUpgraderBase::UploadPrecent(int percent) {
  return m_progress.Report(percent);
}

void SocUpgraderBase::GetUpgradeStatus(int& result, int seconds) {
  result = kFailed;
  for (int poll = 0; poll < seconds; ++poll) {
    const int status = m_iStatus;
    if (status == kDone) {
      LOGI("upgrade WiFI ok.");
      result = kDone;
      return;
    }
    if (status < 0) {
      LOGE("upgrade WiFi error.");
      return;
    }
    if (!Pause(kPollPauseMs)) return;
  }
  LOGE("upgrade SOC  apps timeout.");
}

bool SocUpgraderBase::FinishUpgrade() {
  LOGI("FinishUpgrade");
  return true;
}

void SocUpgraderBase::RequestStop() {
  DestroyThread(true, false);
}

bool SocUpgraderBase::CleanUp() {
  return DestroyThread(true, true);
}

int SocUpgraderBase::_Exec(const std::string& command) {
  return StopRequested() ? -1 : QVUpgradeTool::ExecCommand(command);
}

bool SocUpgraderBase::_MustExec(const std::string& command) {
  const int code = _Exec(command);
  if (code == 0) return true;
  if (!StopRequested()) LOGE("command failed with %d: %s", code, command.c_str());
  return false;
}

bool SocUpgraderBase::_IsTargetMounted(const std::string& path) {
  if (IsMountPoint(path)) return true;
  LOGE("%s is not mounted, nothing is written there", path.c_str());
  return false;
}

/// An upgrader's side of the frame's contract. The log texts are what service looks for, odd ones included.
#include "UpgradeFrame/UpgraderBase.h"

#include <algorithm>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

constexpr uint32_t kPollPauseMs = 1000;

}  // namespace

bool UpgraderBase::RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  const CLock lock(m_infoMutex);
  if (cb == nullptr || m_UploadProcessCb) return false;
  m_UploadProcessCb = {cb, ctx};
  LOGI("Register UploadPrecentCallback OK.");
  return true;
}

bool UpgraderBase::UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  const CLock lock(m_infoMutex);
  const CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> stored{cb, ctx};
  if (!m_UploadProcessCb || !(m_UploadProcessCb == stored)) return false;
  m_UploadProcessCb = {};
  LOGI("Unregister UploadPrecentCallback.");
  return true;
}

int UpgraderBase::UploadPrecent(int percent) {
  CLock lock(m_infoMutex);
  const CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> callback = m_UploadProcessCb;
  if (!callback) {
    LOGW("Not Register UartEvent Callback!");
    return m_iResultWithoutCallback;
  }
  if (m_bEnded) {
    LOGW("report %d after the end ignored type:%d", percent, m_type);
    return m_iResultWithoutCallback;
  }
  m_bEnded = percent < 0 || percent == kSuccess;
  lock.Unlock();
  return callback.pCbFun(percent, m_type, callback.pContext);
}

void UpgraderBase::_ReportSteps(size_t done, size_t total) {
  if (total == 0) return;
  CLock lock(m_infoMutex);
  const auto reached = static_cast<int>(std::min(done, total) * kMaxIncrements / total);
  const int increment = reached - m_iIncrements;
  if (increment <= 0) return;
  m_iIncrements = reached;
  lock.Unlock();
  UploadPrecent(increment);
}

bool UpgraderBase::setUpgradeInfo(QVUpgradingInfo info) {
  const CLock lock(m_infoMutex);
  m_stUpgInfo = std::move(info);
  return true;
}

QVUpgradingInfo UpgraderBase::_Info() {
  const CLock lock(m_infoMutex);
  return m_stUpgInfo;
}

bool UpgraderBase::FinishUpgrade() {
  LOGI("FinishUpgrade");
  return true;
}

void UpgraderBase::GetUpgradeStatus(int& result, int seconds) {
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
    if (!CThread::Pause(kPollPauseMs)) return;
  }
  LOGE("upgrade SOC  apps timeout.");
}

Failure UpgraderBase::GetFailure() {
  const CLock lock(m_infoMutex);
  return m_failure;
}

void UpgraderBase::_ReportEnd(const Failure& failure) {
  {
    const CLock lock(m_infoMutex);
    m_failure = failure;
  }
  m_iStatus = failure ? kFailed : kDone;
  UploadPrecent(failure ? kFailure : kSuccess);
}

Failure MustExec(Reason reason, const std::string& command) {
  const int code = QVUpgradeTool::ExecUnlessStopped(command);
  if (code == 0) return {};
  if (CThread::StopRequested()) return {Reason::Stopped, {}};
  return Fail(reason, "command failed with %d: %s", code, command.c_str());
}

Failure CheckMounted(const std::string& path) {
  if (IsMountPoint(path)) return {};
  return Fail(Reason::PartTarget, "%s is not mounted, nothing is written there", path.c_str());
}

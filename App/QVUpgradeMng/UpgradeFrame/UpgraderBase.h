/// What every upgrader keeps of IQVUpgrade's contract: the record, the progress callback, one start, how the
/// part ended and why. OneShotUpgrader, the radio modules' and the MCU's upgrader derive from it.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "UpgradeFrame/IQVUpgrade.h"
#include "UpgradeFrame/ProgressReporter.h"
#include "common/Mutex.h"

/// Any thread may call any member, unless said otherwise.
class UpgraderBase : public IQVUpgrade {
 public:
  bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) final {
    return m_UploadProcessCb.Register(cb, ctx);
  }
  bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) final {
    return m_UploadProcessCb.Unregister(cb, ctx);
  }
  int UploadPrecent(int percent) final { return m_UploadProcessCb.Report(percent); }
  bool setUpgradeInfo(QVUpgradingInfo info) final;
  bool FinishUpgrade() override;
  /// Looks once a second. A stop of the calling thread ends the wait.
  void GetUpgradeStatus(int& result, int seconds) override;
  Failure GetFailure() final;

 protected:
  UpgraderBase(UPGRADETYPE type, int resultWithoutCallback)
      : m_UploadProcessCb(type, resultWithoutCallback) {}

  /// True for the first call alone: one upgrader serves one upgrade.
  bool _IsFirstStart() { return !m_bStarted.exchange(true); }
  QVUpgradingInfo _Info();
  /// Reports to the frame that `done` of `total` steps of the work are behind.
  void _ReportSteps(size_t done, size_t total) { m_UploadProcessCb.ReportSteps(done, total); }
  /// Keeps how the part ended and reports it. No lock is held by the caller.
  void _ReportEnd(const Failure& failure);

 private:
  enum Status : int { kFailed = -1, kDone = 0, kBusy = 1 };

  std::atomic<bool> m_bStarted{false};
  std::atomic<int> m_iStatus{kBusy};  ///< busy from construction until the upgrade's own end
  ProgressReporter m_UploadProcessCb;
  CMutex m_infoMutex;
  QVUpgradingInfo m_stUpgInfo GUARDED_BY(m_infoMutex);
  Failure m_failure GUARDED_BY(m_infoMutex);
};

/// Runs a command that must succeed, else fails for `reason` with the command as context. After a stop of the
/// calling thread it runs nothing and fails as stopped.
Failure MustExec(Reason reason, const std::string& command);
/// Fails when `path` is no mount point: the payload would fill the file system below it.
Failure CheckMounted(const std::string& path);

/// What every upgrader keeps of IQVUpgrade's contract: the record, the progress callback, one start, how the
/// part ended and why. OneShotUpgrader, the radio modules' and the MCU's upgrader derive from it.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "UpgradeFrame/IQVUpgrade.h"
#include "common/CallbackInfo.h"
#include "common/Mutex.h"

/// Any thread may call any member, unless said otherwise. The callback is called on the calling thread.
class UpgraderBase : public IQVUpgrade {
 public:
  /// All increments of an upgrader together, so that the percentage over all parts never passes 100.
  static constexpr int kMaxIncrements = 20;

  bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) final;
  bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) final;
  /// Without a callback the value is lost, with a warning. After a final value reached one, no more goes out.
  int UploadPrecent(int percent) final;
  bool setUpgradeInfo(QVUpgradingInfo info) final;
  bool FinishUpgrade() override;
  /// Looks once a second. A stop of the calling thread ends the wait.
  void GetUpgradeStatus(int& result, int seconds) override;
  Failure GetFailure() final;

 protected:
  /// `type` goes out with every report; `resultWithoutCallback` is UploadPrecent's while nobody listens.
  UpgraderBase(UPGRADETYPE type, int resultWithoutCallback)
      : m_type(type), m_iResultWithoutCallback(resultWithoutCallback) {}

  /// True for the first call alone: one upgrader serves one upgrade.
  bool _IsFirstStart() { return !m_bStarted.exchange(true); }
  QVUpgradingInfo _Info();
  /// Reports that `done` of `total` steps are behind, as the increments that this adds to what was reported;
  /// a step back reports nothing.
  void _ReportSteps(size_t done, size_t total);
  /// Keeps how the part ended and reports it. No lock is held by the caller.
  void _ReportEnd(const Failure& failure);

 private:
  enum Status : int { kFailed = -1, kDone = 0, kBusy = 1 };

  const UPGRADETYPE m_type;
  const int m_iResultWithoutCallback;
  std::atomic<bool> m_bStarted{false};
  std::atomic<int> m_iStatus{kBusy};  ///< busy from construction until the upgrade's own end
  CMutex m_infoMutex;
  CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> m_UploadProcessCb GUARDED_BY(m_infoMutex);
  int m_iIncrements GUARDED_BY(m_infoMutex) = 0;  ///< sum of what _ReportSteps has reported
  bool m_bEnded GUARDED_BY(m_infoMutex) = false;  ///< a final value went out
  QVUpgradingInfo m_stUpgInfo GUARDED_BY(m_infoMutex);
  Failure m_failure GUARDED_BY(m_infoMutex);
};

/// Runs a command that must succeed, else fails for `reason` with the command as context. After a stop of the
/// calling thread it runs nothing and fails as stopped.
Failure MustExec(Reason reason, const std::string& command);
/// Fails when `path` is no mount point: the payload would fill the file system below it.
Failure CheckMounted(const std::string& path);

/// What the upgraders share that do their part in one go, those of the SoC's file systems, the FPGA and the
/// USB audio chip: each runs the same four states on a thread of its own and differs only in names and in how
/// it puts its payload in place. A new one supplies a Kind and _CheckUpgrade.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "UpgradeFrame/IQVUpgrade.h"
#include "UpgradeFrame/ProgressReporter.h"
#include "UpgradeFrame/StateMachine.h"

/// One upgrader serves one upgrade: a second StartUpgrade finds it busy or done and changes neither.
class SocUpgraderBase : public IQVUpgrade, public StateMachine<SocUpgraderBase> {
 public:
  bool Init() override;
  bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) override;
  bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) override;
  bool CleanUp() override;
  /// Always true.
  bool StartUpgrade() override;
  bool FinishUpgrade() override;
  bool setUpgradeInfo(QVUpgradingInfo info) override;
  void GetUpgradeStatus(int& result, int seconds) override;
  int UploadPrecent(int percent) override;
  void RequestStop() override;

 protected:
  static constexpr int kNoErrorCode = 0;

  /// What tells one upgrader from another. The texts are literals.
  struct Kind {
    const char* threadName;
    UPGRADETYPE type;
    int errorCode;  ///< recorded on failure, unless kNoErrorCode
    const char* idle;
    const char* check;
    const char* success;
    const char* fail;
  };

  /// `kind` and `table`, made from it with MakeTable, outlive the object. A derived destructor calls
  /// StopBeforeDestruction, because the thread uses the derived part.
  SocUpgraderBase(const Kind& kind, const Table& table);
  static Table MakeTable(const Kind& kind);
  void StopBeforeDestruction();

  /// Puts the payload in place, on the upgrader's thread; false, logged, on failure. After a stop it starts
  /// no further command, but undoes what it mounted.
  virtual bool _CheckUpgrade(const QVUpgradingInfo& info) = 0;
  /// Called on the upgrader's thread with the end of the work, before that is reported; not after a stop.
  virtual void _OnEnd(bool succeeded);

  /// Reports to the frame that `done` of `total` steps of the work are behind.
  void _ReportSteps(size_t done, size_t total) { m_progress.ReportSteps(done, total); }

  /// Runs a command and gives its exit code; -1, without running it, after a stop.
  static int _Exec(const std::string& command);
  /// Runs a command that must succeed. False, logged, when it does not; false after a stop.
  static bool _MustExec(const std::string& command);
  /// False, logged, when `path` is no mount point: the payload would fill the file system below it.
  static bool _IsTargetMounted(const std::string& path);

 private:
  enum Status : int { kFailed = -1, kDone = 0, kBusy = 1 };

  std::string _IdleState();
  std::string _CheckState();
  std::string _SuccessState();
  std::string _FailState();

  const Kind& m_kind;
  std::atomic<int> m_iStatus{kBusy};  ///< busy from construction until the upgrade's own end
  std::atomic<int> m_iProgress{0};    ///< percent, -1 after a failure
  std::atomic<bool> m_bStarted{false};
  ProgressReporter m_progress;
  std::mutex m_infoMutex;  ///< guards m_upgradingInfo
  QVUpgradingInfo m_upgradingInfo;
};

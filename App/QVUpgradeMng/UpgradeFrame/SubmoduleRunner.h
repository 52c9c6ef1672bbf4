/// Runs the upgraders of one upgrade: creates one per part, starts them in their order, counts what they
/// report and judges the whole. Owned by the frame, whose thread calls it; the upgraders report into it on
/// their own threads.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "UpgradeFrame/IQVUpgrade.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member, unless said otherwise. No lock is held while an upgrader is called.
class SubmoduleRunner {
 public:
  /// Gives a new upgrader, or an empty pointer for a part that has none.
  using Factory = std::function<std::shared_ptr<IQVUpgrade>(UPGRADETYPE)>;
  using Records = std::map<UPGRADETYPE, QVUpgradingInfo>;

  /// Every upgrader gets `callback` with `ctx`; the callback hands the report to ProgressSum.
  SubmoduleRunner(Factory factory, UPGRADE_UPLOADPROCESS_CALLBACK callback, void* ctx);

  /// Takes the parts to upgrade; the percentage is of them. Frame thread, once, before Start.
  void SetRecords(Records records);
  /// Creates and prepares an upgrader per part and starts them: with radio modules those first and the others
  /// when they end, without them all at once. A part that cannot be prepared or started has failed. Frame
  /// thread, once.
  void Start();

  /// Takes a report: a part's increment of 1 to 99, its success, or its failure (any negative value), whose
  /// reason is asked of the upgrader and logged. Reports of a part that has ended are not counted. Then
  /// starts what waits for this part.
  void ProgressSum(int progress, UPGRADETYPE type);

  /// Logs every part and the sums; `useTime` is the number of passes so far.
  void LogProgress(int useTime) const;
  bool AllFinished() const;
  /// The average over the parts, from 0; beyond 100 by the increments of parts that have succeeded.
  int Percent() const;
  /// Asks every upgrader that has not reported its end how it stands, up to 100 s each, and marks its part
  /// failed or succeeded. Frame thread.
  void _QueryProgress();
  /// True when every part succeeded; also when there is none.
  bool _CheckModeUpgrade() const;
  /// Why the part failed that failed first.
  Failure FirstFailure() const;
  /// Enters the version of every part that succeeded into `versions`. False when one did not.
  bool CollectVersions(QVUpgradeVersionInfo& versions) const;

  /// Asks all upgraders to stop and returns at once. None is started afterwards.
  void RequestStop();
  /// Stops and releases every upgrader but the radio modules' and the USB audio chip's. Frame thread.
  void CleanUpQVupgrade();
  /// Stops and releases every upgrader. The frame thread must have ended.
  bool CleanUp();

 private:
  Failure _Prepare(const QVUpgradingInfo& record);
  std::shared_ptr<IQVUpgrade> _RegisterSubmodules(UPGRADETYPE type);
  /// Starts a part; what starts behind it starts in its place when it has no upgrader.
  void _RunOneSub(UPGRADETYPE type);
  void _RunBehind(UPGRADETYPE type);
  void _TakeReport(int progress, UPGRADETYPE type, const Failure& failure);
  /// True when the report ends its part.
  bool _AddReport(int progress, UPGRADETYPE type, const Failure& failure);
  void _NoteFailure(UPGRADETYPE type, Failure failure) REQUIRES(m_upgradeinfoMutex);
  int _QueryStatus(UPGRADETYPE type);
  void _MarkRecord(UPGRADETYPE type, UPGRADESTATUS status);
  bool _HasEnded(UPGRADETYPE type) const;
  Records _Records() const;

  /// Where the type's upgrader is kept; an empty pointer when there is none.
  std::shared_ptr<IQVUpgrade>& _Slot(UPGRADETYPE type) REQUIRES(m_upgraderMutex);
  std::shared_ptr<IQVUpgrade> _FindUpgrader(UPGRADETYPE type);
  bool _Release(UPGRADETYPE type);

  const Factory m_factory;
  const UPGRADE_UPLOADPROCESS_CALLBACK m_callback;
  void* const m_ctx;
  std::atomic<bool> m_bStopped{false};

  CMutex m_upgraderMutex;  ///< never held while an upgrader is called
  std::shared_ptr<IQVUpgrade> m_pIQVUpgradeRtx GUARDED_BY(m_upgraderMutex);
  std::unordered_map<UPGRADETYPE, std::shared_ptr<IQVUpgrade>> m_pIQVUpgradeMap
      GUARDED_BY(m_upgraderMutex);  ///< all the others

  mutable CMutex m_upgradeinfoMutex;
  Records m_upgradingInfo GUARDED_BY(m_upgradeinfoMutex);
  int m_upgradeProgress GUARDED_BY(m_upgradeinfoMutex) = 0;     ///< sum of all points reported
  int m_upgradeProgressAll GUARDED_BY(m_upgradeinfoMutex) = 0;  ///< 100 for each part
  int m_subModuelsFinish GUARDED_BY(m_upgradeinfoMutex) = 0;    ///< parts that have ended
  Failure m_firstFailure GUARDED_BY(m_upgradeinfoMutex);
};

/// The interface of every part's upgrader. The frame creates one, hands it the record of the running upgrade,
/// starts it, and hears of its progress through one callback.
#pragma once

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"

/// Called on the upgrader's thread: an increment of 1 to 99, 100 once on success, or -1 once on failure. No
/// lock of the upgrader is held. The result is ignored.
using UPGRADE_UPLOADPROCESS_CALLBACK = int (*)(int percent, UPGRADETYPE type, void* ctx);

/// Called by the frame's thread, StartUpgrade also by another upgrader's thread when one part starts the
/// next.
class IQVUpgrade {
 public:
  /// What the callback hears at the end.
  static constexpr int kSuccess = 100;
  static constexpr int kFailure = -1;

  IQVUpgrade() = default;
  virtual ~IQVUpgrade() = default;
  IQVUpgrade(const IQVUpgrade&) = delete;
  IQVUpgrade& operator=(const IQVUpgrade&) = delete;

  /// Prepares devices and threads. False: this part cannot be upgraded now.
  virtual bool Init() = 0;
  /// Stores the one progress callback. False when one is stored already or `cb` is null.
  virtual bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) = 0;
  /// Removes the stored callback; false when it is another one.
  virtual bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) = 0;
  /// Stops the thread and releases what Init took. No callback comes after it. Idempotent.
  virtual bool CleanUp() = 0;
  /// Begins the upgrade and returns. One upgrader serves one upgrade: a second start changes nothing, and is
  /// true but for the MCU's, which refuses it.
  virtual bool StartUpgrade() = 0;
  /// Only logs; false for the MCU's.
  virtual bool FinishUpgrade() = 0;
  /// Copies the record of the upgrade to come.
  virtual bool setUpgradeInfo(QVUpgradingInfo info) = 0;
  /// Waits at most `seconds` for the end: `result` 0 on success, -1 on failure or when it has not ended by
  /// then. The radio modules' and the MCU's only log and leave `result` as it is: theirs end with the report.
  virtual void GetUpgradeStatus(int& result, int seconds) = 0;
  /// Reports progress through the stored callback and gives its result; without a callback 0, the radio
  /// modules' -1.
  virtual int UploadPrecent(int percent) = 0;
  /// Asks the thread to stop and returns at once, so that several upgraders can stop side by side before
  /// CleanUp waits for each. The command that runs is let finish; no further one starts.
  virtual void RequestStop() = 0;
  /// Why the part failed, its `part` not filled in; empty while it has not. Known before -1 is reported.
  virtual Failure GetFailure() = 0;
};

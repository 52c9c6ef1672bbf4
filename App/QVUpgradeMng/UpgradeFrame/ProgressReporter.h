/// How an upgrader tells the frame of its progress: the one stored callback, increments within their bound,
/// and one final value. UpgraderBase owns one for every upgrader.
#pragma once

#include <cstddef>

#include "UpgradeFrame/IQVUpgrade.h"
#include "common/CallbackInfo.h"
#include "common/Mutex.h"

/// Any thread may call any member. The callback is called on the calling thread with no lock held.
class ProgressReporter {
 public:
  static constexpr int kSuccess = 100;
  static constexpr int kFailure = -1;
  /// All increments of a device upgrader together, so that the percentage over all parts never passes 100.
  static constexpr int kMaxIncrements = 20;

  /// `type` goes out with every report; `resultWithoutCallback` is what Report gives while nobody listens.
  explicit ProgressReporter(UPGRADETYPE type, int resultWithoutCallback = 0)
      : m_type(type), m_iResultWithoutCallback(resultWithoutCallback) {}

  /// Stores the callback; false when `cb` is null or one is stored already.
  bool Register(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx);
  /// Removes the callback; false when another one, or none, is stored.
  bool Unregister(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx);

  /// Hands `percent` to the callback and gives its result. Without a callback the value is lost, with a
  /// warning. After a final value reached the callback, nothing more goes out.
  int Report(int percent);

  /// Reports that `done` of `total` steps are behind, as the increments that this adds to what was reported;
  /// a step back reports nothing.
  void ReportSteps(size_t done, size_t total);

 private:
  const UPGRADETYPE m_type;
  const int m_iResultWithoutCallback;
  CMutex m_mutex;
  CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> m_UploadProcessCb GUARDED_BY(m_mutex);
  int m_iIncrements GUARDED_BY(m_mutex) = 0;  ///< sum of what ReportSteps has reported
  bool m_bEnded GUARDED_BY(m_mutex) = false;  ///< a final value went out
};

/// The one thread on which all transfers of a program run, with curl's multi interface: it sleeps until a
/// socket, a timer or another thread wants something. QuorvalenBackendServer and QuorvalenDownloadManager
/// share it; the program owns it, starts it once and stops it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "BSW/MultiTask/CThread.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace Quorvalen {

/// A request that the loop carries out.
class ITransfer {
 public:
  virtual void* Handle() const = 0;  ///< CURL; CURLOPT_PRIVATE leads back to the ITransfer
  /// curl is done with it, with this CURLcode; not called from inside curl.
  virtual void Finish(int curlCode) = 0;

 protected:
  ~ITransfer() = default;
};

/// Waits, limits and trust. The defaults are what a device uses; tests shorten the waits.
struct TransferSettings {
  using Milliseconds = std::chrono::milliseconds;

  Milliseconds silence = std::chrono::seconds(60);          ///< without a byte: counts as a break
  Milliseconds paceTime = std::chrono::minutes(5);          ///< in which paceBytes of a download come, ...
  uint64_t paceBytes = 300U * 1024U;                        ///< ... 1 KiB/s, or it counts as a break
  Milliseconds firstWait = std::chrono::seconds(1);         ///< of a download after a break
  Milliseconds longestWait = std::chrono::seconds(60);      ///< of a download after many
  Milliseconds firstQueryWait = std::chrono::minutes(1);    ///< between automatic queries, at least
  Milliseconds longestQueryWait = std::chrono::hours(1);    ///< the same, at most
  Milliseconds longestRetryAfter = std::chrono::hours(1);   ///< a server that asks for more gets this
  Milliseconds queryTime = std::chrono::seconds(60);        ///< one query, from look-up to last byte
  Milliseconds progressInterval = std::chrono::seconds(1);  ///< between two reports of bytes
  int triesWithoutByte = 8;  ///< in a row, or as slow; then a download gives up
  int queryRetries = 8;      ///< automatic ones after a failed query
  std::string caFile;        ///< PEM; "": the system's certificates
};

class TransferLoop final : private CThread {
 public:
  using Job = std::function<void()>;
  using TimerId = uint64_t;

  explicit TransferLoop(TransferSettings settings = {});
  /// Stops. QuorvalenBackendServer and QuorvalenDownloadManager are gone by then.
  ~TransferLoop() override;

  /// Starts the thread; what was asked for before begins now. False when it was started before, or the system
  /// refuses.
  bool Start();
  /// Ends every transfer, also in a name look-up, and the thread; within 300 ms unless a callback takes
  /// longer. What has arrived of a download stays on the disk; no callback comes once this has returned.
  /// Final and idempotent; not from a callback.
  void Stop();

  // The rest is for the classes of this folder.

  const TransferSettings& Settings() const { return m_settings; }

  /// Runs `job` on the transfer thread, in the order of posting and with no lock held. False after the stop:
  /// it never runs. Any thread.
  bool Post(Job job);
  /// Runs `job` on the transfer thread, or in its place when that does not run, and returns when it is done.
  /// `job` must not post. Any thread; do not hold a lock that a callback takes.
  void RunAndWait(const Job& job);

  /// Runs `job` once after `delay`. Transfer thread only.
  TimerId StartTimer(std::chrono::milliseconds delay, Job job);
  /// Forgets a timer; nothing when it is none any more. Transfer thread only.
  void CancelTimer(TimerId id);

  /// A transfer is here while it is under way; false during the stop. Transfer thread only.
  bool Add(ITransfer& transfer);
  void Remove(ITransfer& transfer);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase { NotStarted, Running, Stopped };

  void ThreadProc() override;
  void OnStopRequested() override;
  void _RunJobs();
  void _RunTimers();
  void _EndFinished();
  void _CloseDown();
  int _PollTimeout() const;

  const TransferSettings m_settings;
  void* const m_pMulti;  ///< CURLM; waking it is the one thing that other threads do with it

  CMutex m_mutex;
  Phase m_phase GUARDED_BY(m_mutex) = Phase::NotStarted;
  std::deque<Job> m_jobs GUARDED_BY(m_mutex);

  // Transfer thread only.
  std::map<std::pair<Clock::time_point, TimerId>, Job> m_timers;
  TimerId m_lastTimer = 0;
  std::set<ITransfer*> m_transfers;
  bool m_bClosing = false;
};

}  // namespace Quorvalen

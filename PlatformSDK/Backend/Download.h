/// One download at work: what it does with each answer, break and byte. Made and driven by
/// QuorvalenDownloadManager.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Backend/BackOff.h"
#include "Backend/DownloadTask.h"
#include "Backend/HttpTransfer.h"
#include "Backend/Pace.h"
#include "Backend/PartFile.h"
#include "Backend/TransferLoop.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace Quorvalen {

class Download;

/// The queue that a download stands in.
class IDownloadQueue {
 public:
  /// Any thread: runs the job on the transfer thread, unless the queue is gone.
  virtual void Post(TransferLoop::Job job) = 0;
  /// Transfer thread: the download ended, paused, or waits for its turn again. Nothing is done before the
  /// caller has returned.
  virtual void OnTurnChanged() = 0;

 protected:
  ~IDownloadQueue() = default;
};

class Download final : public DownloadTask,
                       public std::enable_shared_from_this<Download>,
                       public IHttpReceiver {
 public:
  Download(TransferLoop& loop, std::weak_ptr<IDownloadQueue> queue, const DownloadRequest& request,
           Callback callback);

  Status GetStatus() const override;
  void Pause() override;
  void Resume() override;
  void Cancel() override;

  // The rest is the queue's.

  const DownloadRequest& Request() const { return m_request; }
  static bool HasEnded(State state) {
    return state == State::Done || state == State::Failed || state == State::Cancelled;
  }
  static bool IsAtWork(State state) {
    return state == State::Transferring || state == State::Waiting || state == State::Verifying;
  }

  // Transfer thread only.

  /// Its turn has come.
  void Begin();
  /// Leaves everything as it is; no callback comes any more.
  void Halt();

 private:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  bool OnHead(const HttpHead& head) override;
  bool OnBody(const char* data, size_t length) override;
  void OnEnd(const HttpEnd& end) override;

  void _Post(void (Download::*action)());
  void _DoPause();
  void _DoResume();
  void _DoCancel();

  void _Continue();
  bool _Open(std::string& error);
  void _HashStep();
  void _Ask();
  void _Break(std::string error, bool mayPass);
  void _Verify();
  void _SyncStep();

  // These judge an answer; false ends it.
  bool _TakeFirst(const HttpHead& head);
  bool _TakeRest(const HttpHead& head);
  bool _TakeWholeInstead(const HttpHead& head);
  bool _TakeNothing(const HttpHead& head);
  bool _Refuse(const std::string& why, bool discard);
  bool _RefuseOther(const std::string& why);
  bool _RefuseLength(uint64_t length);
  bool _PassOver(const char*& data, size_t& length);
  bool _AskAgain();
  /// True for the first time: there is an empty file again.
  bool _StartOver(bool& once, const std::string& why);

  void _Succeed();
  void _Fail(const std::string& why, bool discard);
  void _End(State state, const std::string& message, bool discard);
  void _StopWork();
  void _TurnChanged();
  void _Later(Milliseconds delay, void (Download::*action)());
  void _EndTransfer();
  void _WatchPace();
  void _OnPaceTimer();
  std::string _Expire();
  std::string _Where() const;
  void _WatchProgress();
  void _SetState(State state, const std::string& message);
  void _SetReceived();
  void _Notify();

  /// What is known of the answer to the running request.
  struct Answer {
    HttpHead head;
    bool hasBytes = false;
    bool askAgain = false;  ///< it is no use; ask for the whole
    uint64_t repeats = 0;   ///< so many of its next bytes are there already
    std::string broken;     ///< it is not this file: counts as a break
    std::string failure;    ///< it ends the download
    bool discard = false;   ///< and what has arrived is worthless
  };

  TransferLoop& m_loop;
  const std::weak_ptr<IDownloadQueue> m_queue;
  const DownloadRequest m_request;
  const Callback m_callback;

  mutable CMutex m_statusMutex;
  Status m_status GUARDED_BY(m_statusMutex);  ///< changed by the transfer thread alone

  // Transfer thread only.
  PartFile m_file;
  BackOff m_backOff;
  Pace m_pace;
  std::unique_ptr<HttpTransfer> m_pTransfer;
  TransferLoop::TimerId m_timer = 0;  ///< the next step or try
  TransferLoop::TimerId m_progressTimer = 0;
  TransferLoop::TimerId m_paceTimer = 0;
  bool m_bHalted = false;
  bool m_bLookedForFinished = false;
  uint64_t m_reported = 0;    ///< bytes in the last report
  int m_iFruitlessTries = 0;  ///< in a row; without a byte, or too slow
  std::string m_strNote;      ///< why it started over

  uint64_t m_offset = 0;  ///< the running request asks for the bytes from here on
  Answer m_answer;

  // Each happens once; a second time ends the download.
  bool m_bWholeInstead = false;
  bool m_bChanged = false;
  bool m_bWrongMd5 = false;
};

}  // namespace Quorvalen

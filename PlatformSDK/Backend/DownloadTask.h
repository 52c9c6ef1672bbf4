/// One download: what is wanted, how far it is, and the handle with which its owner pauses, resumes or
/// cancels it. Made by QuorvalenDownloadManager.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Quorvalen {

struct DownloadRequest {
  std::string url;
  std::string directory;  ///< exists
  std::string fileName;   ///< plain; arrives as "<fileName>.part" and gets its name when the md5 matches;
                          ///< "<fileName>.meta.part" beside it tells what it is a part of
  uint64_t size = 0;      ///< bytes, as announced
  std::string md5;        ///< 32 lower-case hex digits
};

class DownloadTask {
 public:
  /// Waiting: for the next try after a break. Verifying: every byte is there, its md5 and the disk are not
  /// yet certain.
  enum class State { Queued, Transferring, Waiting, Paused, Verifying, Done, Failed, Cancelled };
  struct Status {
    State state = State::Queued;
    uint64_t received = 0;  ///< bytes on the disk; falls to 0 when the download starts over
    uint64_t total = 0;
    std::string message;  ///< why it waits, failed or started over; "" otherwise
  };
  /// Called on the transfer thread with no lock held: at every change of state, when the download starts
  /// over, and at most once a second while bytes arrive. Done, Failed and Cancelled come once and last;
  /// the same file may be added again from then on.
  using Callback = std::function<void(const Status&)>;

  virtual ~DownloadTask() = default;
  DownloadTask(const DownloadTask&) = delete;
  DownloadTask& operator=(const DownloadTask&) = delete;

  /// Any thread may call these, also from the callback; they return at once, and the callback tells when it
  /// has happened. Once the manager is gone or the loop has stopped they do nothing.
  virtual Status GetStatus() const = 0;
  /// Closes the connection and lets the next download in the queue go on.
  virtual void Pause() = 0;
  /// Queues it again; it goes on where it was.
  virtual void Resume() = 0;
  /// Ends the download and removes what has arrived. Nothing once it is Done or Failed.
  virtual void Cancel() = 0;

 protected:
  DownloadTask() = default;
};

}  // namespace Quorvalen

/// Downloads files one after the other, and survives what happens to downloads: breaks, a slow or lying
/// server, a restart of the program. Any program may use it; it knows nothing of upgrades.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Backend/DownloadTask.h"

namespace Quorvalen {

class TransferLoop;

class QuorvalenDownloadManager {
 public:
  /// `loop` outlives this object.
  explicit QuorvalenDownloadManager(TransferLoop& loop);
  /// Stops the downloads; what has arrived stays on the disk and is resumed by the next Add of the same file.
  /// No callback comes afterwards. Do not hold a lock that a callback takes.
  ~QuorvalenDownloadManager();
  QuorvalenDownloadManager(const QuorvalenDownloadManager&) = delete;
  QuorvalenDownloadManager& operator=(const QuorvalenDownloadManager&) = delete;

  /// Queues a download. Null, with the reason in `error`, when it is refused before the first byte: a file
  /// name that leaves the directory or ends in ".part" or ".meta", an address that is not allowed (https, or
  /// http to a loopback host), too little space (the message has the needed and the free size), the same file
  /// is in the queue, or the loop has stopped. Any thread; the callback may come before this returns.
  std::shared_ptr<DownloadTask> Add(const DownloadRequest& request, DownloadTask::Callback callback,
                                    std::string& error);

  /// How many bytes of the file are on the disk already: what a download of it begins with. Any thread.
  static uint64_t BytesThere(const DownloadRequest& request);

 private:
  class Impl;
  std::shared_ptr<Impl> m_pImpl;  ///< shared with its tasks and with what runs on the transfer thread
};

}  // namespace Quorvalen

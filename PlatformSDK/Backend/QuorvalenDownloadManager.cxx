/// The queue of downloads: refuses what cannot work before the first byte, and lets one at a time have its
/// turn.
#include "Backend/QuorvalenDownloadManager.h"

#include <algorithm>
#include <limits>
#include <list>
#include <utility>

#include "BSW/BasicFun/Md5.h"
#include "Backend/AllowedAddress.h"
#include "Backend/Download.h"
#include "Backend/PartFile.h"
#include "Backend/TransferLoop.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace Quorvalen {
namespace {

constexpr auto kLargestFile = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

}  // namespace

class QuorvalenDownloadManager::Impl final : public IDownloadQueue,
                                             public std::enable_shared_from_this<Impl> {
 public:
  explicit Impl(TransferLoop& loop) : m_pLoop(&loop) {}

  std::shared_ptr<DownloadTask> Add(const DownloadRequest& request, DownloadTask::Callback callback,
                                    std::string& error);
  void Close();

  void Post(TransferLoop::Job job) override;
  void OnTurnChanged() override;

 private:
  using Queue = std::list<std::shared_ptr<Download>>;

  bool _IsQueued(const DownloadRequest& request) const REQUIRES(m_mutex);
  void _GiveTurn();

  CMutex m_mutex;
  /// Null once the manager is gone: tasks may outlive it, and the loop.
  TransferLoop* m_pLoop GUARDED_BY(m_mutex);
  Queue m_queue GUARDED_BY(m_mutex);
};

QuorvalenDownloadManager::QuorvalenDownloadManager(TransferLoop& loop)
    : m_pImpl(std::make_shared<Impl>(loop)) {}

QuorvalenDownloadManager::~QuorvalenDownloadManager() {
  m_pImpl->Close();
}

std::shared_ptr<DownloadTask> QuorvalenDownloadManager::Add(const DownloadRequest& request,
                                                            DownloadTask::Callback callback,
                                                            std::string& error) {
  return m_pImpl->Add(request, std::move(callback), error);
}

uint64_t QuorvalenDownloadManager::BytesThere(const DownloadRequest& request) {
  return PartFile::BytesThere(request);
}

std::shared_ptr<DownloadTask> QuorvalenDownloadManager::Impl::Add(const DownloadRequest& request,
                                                                  DownloadTask::Callback callback,
                                                                  std::string& error) {
  if (!PartFile::IsUsableName(request.fileName)) {
    error = "the file name \"" + request.fileName + "\" is not allowed";
  } else if (request.size == 0 || request.size > kLargestFile || !md5::IsDigest(request.md5)) {
    error = "\"" + request.fileName + "\" is announced without size or md5";
  } else if (IsAllowedAddress(request.url, error) &&
             (PartFile::MayBeFinished(request) || PartFile::HasRoom(request, error))) {
    const CLock lock(m_mutex);
    if (_IsQueued(request)) {
      error = "\"" + request.fileName + "\" is in the queue already";
      return nullptr;
    }
    if (!m_pLoop->Post([self = shared_from_this()] { self->_GiveTurn(); })) {
      error = "\"" + request.fileName + "\" comes too late: the transfers have been stopped";
      return nullptr;
    }
    return m_queue.emplace_back(
        std::make_shared<Download>(*m_pLoop, weak_from_this(), request, std::move(callback)));
  }
  return nullptr;
}

bool QuorvalenDownloadManager::Impl::_IsQueued(const DownloadRequest& request) const {
  return std::any_of(m_queue.begin(), m_queue.end(), [&request](const std::shared_ptr<Download>& other) {
    return other->Request().directory == request.directory && other->Request().fileName == request.fileName &&
           !Download::HasEnded(other->GetStatus().state);
  });
}

void QuorvalenDownloadManager::Impl::Post(TransferLoop::Job job) {
  const CLock lock(m_mutex);
  if (m_pLoop != nullptr) m_pLoop->Post(std::move(job));
}

void QuorvalenDownloadManager::Impl::OnTurnChanged() {
  Post([self = shared_from_this()] { self->_GiveTurn(); });
}

void QuorvalenDownloadManager::Impl::_GiveTurn() {
  Queue ended;  // its owners' callbacks go with it, after the lock
  std::shared_ptr<Download> next;
  {
    const CLock lock(m_mutex);
    for (auto download = m_queue.begin(); download != m_queue.end();) {
      const auto current = download++;
      if (Download::HasEnded((*current)->GetStatus().state)) ended.splice(ended.end(), m_queue, current);
    }
    if (std::any_of(m_queue.begin(), m_queue.end(),
                    [](const auto& download) { return Download::IsAtWork(download->GetStatus().state); })) {
      return;
    }
    const auto waiting = std::find_if(m_queue.begin(), m_queue.end(), [](const auto& download) {
      return download->GetStatus().state == DownloadTask::State::Queued;
    });
    if (waiting != m_queue.end()) next = *waiting;
  }
  if (next) next->Begin();
}

void QuorvalenDownloadManager::Impl::Close() {
  TransferLoop* loop = nullptr;
  Queue queue;
  {
    const CLock lock(m_mutex);
    std::swap(loop, m_pLoop);
    queue.swap(m_queue);
  }
  loop->RunAndWait([&queue] {
    for (const std::shared_ptr<Download>& download : queue) download->Halt();
  });
}

}  // namespace Quorvalen

/// A download from its turn in the queue to its end: look at what is on the disk, ask for the rest, judge the
/// answer, wait after a break, verify. _Continue decides from the file alone what is next, so that a pause, a
/// break and a restart of the program all go on in the same way.
#include "Backend/Download.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "Backend/AllowedAddress.h"

namespace Quorvalen {
namespace {

constexpr long kHttpOk = 200;
constexpr long kPartialContent = 206;
constexpr long kRangeNotSatisfiable = 416;

/// "bytes FIRST-LAST/TOTAL" (RFC 9110).
struct ContentRange {
  uint64_t first = 0;
  uint64_t last = 0;
  uint64_t total = 0;  ///< 0: the server does not say
};

bool Take(std::string_view& text, std::string_view expected) {
  if (text.substr(0, expected.size()) != expected) return false;
  text.remove_prefix(expected.size());
  return true;
}

bool Take(std::string_view& text, uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

bool Parse(std::string_view text, ContentRange& range) {
  return Take(text, "bytes ") && Take(text, range.first) && Take(text, "-") && Take(text, range.last) &&
         Take(text, "/") && (text == "*" || (Take(text, range.total) && text.empty()));
}

/// "bytes */TOTAL"
bool ParseTotal(std::string_view text, uint64_t& total) {
  return Take(text, "bytes */") && Take(text, total) && text.empty();
}

FileVersion VersionOf(const HttpHead& head) {
  return FileVersion::Of(head.etag, head.lastModified);
}

std::string Count(uint64_t number) {
  return std::to_string(number);
}

}  // namespace

Download::Download(TransferLoop& loop, std::weak_ptr<IDownloadQueue> queue, const DownloadRequest& request,
                   Callback callback)
    : m_loop(loop),
      m_queue(std::move(queue)),
      m_request(request),
      m_callback(std::move(callback)),
      m_file(request),
      m_backOff(loop.Settings().firstWait, loop.Settings().longestWait),
      m_pace(loop.Settings().paceBytes, loop.Settings().paceTime, loop.Settings().firstWait) {
  m_status.total = request.size;
}

DownloadTask::Status Download::GetStatus() const {
  const CLock lock(m_statusMutex);
  return m_status;
}

void Download::Pause() {
  _Post(&Download::_DoPause);
}

void Download::Resume() {
  _Post(&Download::_DoResume);
}

void Download::Cancel() {
  _Post(&Download::_DoCancel);
}

void Download::Begin() {
  LOGI("download of %s from %s: %s bytes", m_request.fileName.c_str(), AddressForLog(m_request.url).c_str(),
       Count(m_request.size).c_str());
  _Continue();
}

void Download::_Continue() {
  std::string error;
  if (!_Open(error)) return _Fail(error, false);
  const bool complete = m_file.Length() == m_request.size;
  _SetState(complete ? State::Verifying : State::Transferring, m_strNote);
  if (!m_file.IsHashed()) return _Later(Milliseconds(0), &Download::_HashStep);
  if (complete) return _Verify();
  _Ask();
}

bool Download::_Open(std::string& error) {
  if (m_file.IsOpen()) return true;
  if (!std::exchange(m_bLookedForFinished, true) && m_file.OpenFinished()) return true;
  return m_file.OpenPart(error);
}

void Download::_HashStep() {
  std::string error;
  if (!m_file.HashSlice(error)) return _Fail(error, false);
  if (m_file.IsHashed()) return _Continue();
  _Later(Milliseconds(0), &Download::_HashStep);
}

void Download::_Ask() {
  HttpRequest request;
  request.url = m_request.url;
  request.offset = m_offset = m_file.Length();
  request.ifRange = m_file.Version().Condition();
  m_answer = {};
  m_pTransfer = std::make_unique<HttpTransfer>(m_loop, std::move(request), *this);
  m_pTransfer->Start();
  _WatchProgress();
}

bool Download::OnHead(const HttpHead& head) {
  m_answer.head = head;
  switch (head.status) {
    case kHttpOk:
      if (head.contentLength && *head.contentLength != m_request.size) {
        return _RefuseLength(*head.contentLength);
      }
      return m_offset > 0 ? _TakeWholeInstead(head) : _TakeFirst(head);
    case kPartialContent:
      return _TakeRest(head);
    case kRangeNotSatisfiable:
      return _TakeNothing(head);
    default:
      return false;
  }
}

bool Download::_TakeFirst(const HttpHead& head) {
  std::string error;
  return m_file.SetVersion(VersionOf(head), error) || _Refuse(error, false);
}

bool Download::_TakeRest(const HttpHead& head) {
  ContentRange range;
  if (m_offset == 0 || !Parse(head.contentRange, range) || range.first != m_offset) {
    return _StartOver(m_bWholeInstead, "the server answers another range than was asked for") && _AskAgain();
  }
  if (range.total != 0 && range.total != m_request.size) return _RefuseLength(range.total);
  if (m_file.Version().DiffersFrom(VersionOf(head))) {
    return _StartOver(m_bChanged, "the file has changed on the server") && _AskAgain();
  }
  return true;
}

/// The whole file where its rest was asked for. Of the right length it is the new start; one that does not
/// tell its length may be a gateway's page and must first repeat what is there.
bool Download::_TakeWholeInstead(const HttpHead& head) {
  if (!head.contentLength) {
    m_answer.repeats = m_offset;
    return true;
  }
  const bool changed = m_file.Version().DiffersFrom(VersionOf(head));
  return (changed ? _StartOver(m_bChanged, "the file has changed on the server")
                  : _StartOver(m_bWholeInstead, "the server cannot resume")) &&
         _TakeFirst(head);
}

bool Download::_TakeNothing(const HttpHead& head) {
  if (m_offset == 0) return false;
  uint64_t total = 0;
  if (ParseTotal(head.contentRange, total) && total != m_request.size) return _RefuseLength(total);
  return _StartOver(m_bChanged, "the server has no byte " + Count(m_offset)) && _AskAgain();
}

bool Download::OnBody(const char* data, size_t length) {
  if (m_pace.Take(length, Clock::now())) _WatchPace();
  if (!_PassOver(data, length)) return false;
  if (length > m_request.size - m_file.Length()) {
    return _RefuseOther("the server sends more than the announced " + Count(m_request.size) + " bytes");
  }
  if (length == 0) return true;
  std::string error;
  const bool written = m_file.Append(data, length, error);
  m_answer.hasBytes = true;
  _SetReceived();
  return written || _Refuse(error, false);
}

bool Download::_PassOver(const char*& data, size_t& length) {
  const auto count = static_cast<size_t>(std::min<uint64_t>(length, m_answer.repeats));
  if (count == 0) return true;
  if (!m_file.Holds(m_offset - m_answer.repeats, data, count)) {
    return _RefuseOther("the server answers with something else than the file");
  }
  m_answer.repeats -= count;
  data += count;
  length -= count;
  return true;
}

/// What answers is not the announced file: a gateway's page, a server that is being filled. What is there
/// already waits for a better answer.
bool Download::_RefuseOther(const std::string& why) {
  if (m_offset == 0) return _Refuse(why, true);
  m_answer.broken = why;
  return false;
}

bool Download::_RefuseLength(uint64_t length) {
  return _RefuseOther("the server has " + Count(length) + " bytes, announced were " + Count(m_request.size));
}

bool Download::_Refuse(const std::string& why, bool discard) {
  m_answer.failure = why;
  m_answer.discard = discard;
  return false;
}

bool Download::_AskAgain() {
  m_answer.askAgain = true;
  return false;
}

bool Download::_StartOver(bool& once, const std::string& why) {
  if (std::exchange(once, true)) return _Refuse(why + ", for the second time", false);
  std::string error;
  if (!m_file.StartOver(error)) return _Refuse(error, false);
  LOGW("download of %s starts over: %s", m_request.fileName.c_str(), why.c_str());
  m_strNote = "starts over: " + why;
  _SetState(State::Transferring, m_strNote);
  return true;
}

void Download::OnEnd(const HttpEnd& end) {
  _EndTransfer();
  const HttpHead& head = m_answer.head;
  if (!m_answer.failure.empty()) return _Fail(m_answer.failure, m_answer.discard);
  if (m_answer.askAgain || m_file.Length() == m_request.size) return _Continue();
  if (!m_answer.broken.empty()) return _Break(_Where() + m_answer.broken, true);
  if (head.status != 0 && head.status != kHttpOk && head.status != kPartialContent) {
    return _Break(_Where() + "HTTP " + std::to_string(head.status), head.MayPass());
  }
  if (!end.error.empty()) return _Break(end.error, end.mayPass);
  _Break(_Where() + "the answer ended after " + Count(m_file.Length()) + " of " + Count(m_request.size) +
             " bytes",
         true);
}

void Download::_Break(std::string error, bool mayPass) {
  if (!mayPass) return _Fail(error, false);
  const bool expired = m_pace.Left(Clock::now()) == Milliseconds(0);
  if (expired) error += ", " + _Expire();
  const bool isFruitless = expired || !m_answer.hasBytes;
  if (isFruitless && ++m_iFruitlessTries >= m_loop.Settings().triesWithoutByte) {
    const char* const what =
        m_pace.IsTooSlow() ? " tries that brought too little: " : " tries without a byte: ";
    return _Fail("gave up after " + std::to_string(m_iFruitlessTries) + what + error, false);
  }
  // Bytes that only trickle do not give the tries back.
  if (!isFruitless && !m_pace.IsTooSlow()) {
    m_iFruitlessTries = 0;
    m_backOff.Reset();
  }
  const Milliseconds wait = m_backOff.Next(m_answer.head.retryAfter);
  constexpr double kMsPerSecond = 1000;
  const std::string message =
      error + FormatText("; next try in %.1f s", static_cast<double>(wait.count()) / kMsPerSecond);
  LOGW("download of %s waits after %s bytes: %s", m_request.fileName.c_str(), Count(m_file.Length()).c_str(),
       message.c_str());
  _SetState(State::Waiting, message);
  _Later(wait, &Download::_Continue);
}

void Download::_Verify() {
  if (m_file.Md5() == m_request.md5) {
    if (m_file.IsFinished()) return _Succeed();
    return _SyncStep();
  }
  if (m_file.IsFinished()) {  // something else of that name: the download will replace it
    m_file.Close();
    std::string error;
    if (!PartFile::HasRoom(m_request, error)) return _Fail(error, false);
    return _Continue();
  }
  const std::string why = "the md5 is " + m_file.Md5() + ", announced was " + m_request.md5;
  if (!_StartOver(m_bWrongMd5, why)) return _Fail(m_answer.failure, true);
  _Continue();
}

void Download::_SyncStep() {
  std::string error;
  bool synced = false;
  if (!m_file.SyncSlice(synced, error)) return _Fail(error, !m_file.IsSound());
  if (!synced) return _Later(Milliseconds(0), &Download::_SyncStep);
  if (!m_file.Commit(error)) return _Fail(error, !m_file.IsSound());
  _Succeed();
}

void Download::_Succeed() {
  LOGI("download of %s is complete", m_request.fileName.c_str());
  _End(State::Done, "", true);
}

void Download::_Fail(const std::string& why, bool discard) {
  LOGE("download of %s failed: %s", m_request.fileName.c_str(), why.c_str());
  _End(State::Failed, why, discard);
}

void Download::_DoPause() {
  const State state = GetStatus().state;
  if (HasEnded(state) || state == State::Paused) return;
  _StopWork();
  _SetState(State::Paused, "");
  _TurnChanged();
}

void Download::_DoResume() {
  if (GetStatus().state != State::Paused) return;
  _SetState(State::Queued, "");
  _TurnChanged();
}

void Download::_DoCancel() {
  if (HasEnded(GetStatus().state)) return;
  LOGI("download of %s is cancelled", m_request.fileName.c_str());
  _End(State::Cancelled, "", true);
}

void Download::Halt() {
  m_bHalted = true;
  _StopWork();
  m_file.Close();
}

/// `discard` removes part and side file; a finished file is none of them.
void Download::_End(State state, const std::string& message, bool discard) {
  _StopWork();
  if (discard) {
    m_file.Discard();
  } else {
    m_file.Close();
  }
  // Last: from here on the same file may be queued again.
  _SetState(state, message);
  _TurnChanged();
}

void Download::_StopWork() {
  _EndTransfer();
  m_loop.CancelTimer(m_timer);
}

void Download::_EndTransfer() {
  m_pTransfer.reset();
  m_pace.Leave(Clock::now());
  m_loop.CancelTimer(m_paceTimer);
  m_loop.CancelTimer(m_progressTimer);
}

void Download::_WatchPace() {
  m_paceTimer = m_loop.StartTimer(m_pace.Left(Clock::now()), [this] { _OnPaceTimer(); });
}

void Download::_OnPaceTimer() {
  if (m_pace.Left(Clock::now()) > Milliseconds(0)) return _WatchPace();
  OnEnd({_Where() + "the transfer only trickles", true});
}

/// Tells what came in the time that is over.
std::string Download::_Expire() {
  const double seconds = std::chrono::duration<double>(m_loop.Settings().paceTime).count();
  return Count(m_pace.Expire()) + FormatText(" bytes in %g s", seconds);
}

/// How a message on the server begins.
std::string Download::_Where() const {
  return "\"" + AddressForLog(m_request.url) + "\": ";
}

void Download::_Post(void (Download::*action)()) {
  const std::shared_ptr<IDownloadQueue> queue = m_queue.lock();
  if (!queue) return;
  queue->Post([self = shared_from_this(), action] {
    if (!self->m_bHalted) (self.get()->*action)();
  });
}

void Download::_TurnChanged() {
  if (const std::shared_ptr<IDownloadQueue> queue = m_queue.lock()) queue->OnTurnChanged();
}

void Download::_Later(Milliseconds delay, void (Download::*action)()) {
  m_timer = m_loop.StartTimer(delay, [this, action] { (this->*action)(); });
}

void Download::_WatchProgress() {
  m_progressTimer = m_loop.StartTimer(m_loop.Settings().progressInterval, [this] {
    if (GetStatus().received != m_reported) _Notify();
    _WatchProgress();
  });
}

void Download::_SetState(State state, const std::string& message) {
  bool news = false;
  {
    const CLock lock(m_statusMutex);
    news = state != m_status.state || message != m_status.message;
    m_status.state = state;
    m_status.message = message;
    if (m_file.IsOpen()) m_status.received = m_file.Length();
  }
  if (news) _Notify();
}

void Download::_SetReceived() {
  const CLock lock(m_statusMutex);
  m_status.received = m_file.Length();
}

/// Posted, because this is also reached from inside curl, and because the callback may end anything.
void Download::_Notify() {
  const Status status = GetStatus();
  m_reported = status.received;
  const std::shared_ptr<IDownloadQueue> queue = m_queue.lock();
  if (!queue || !m_callback) return;
  queue->Post([self = shared_from_this(), status] {
    if (!self->m_bHalted) self->m_callback(status);
  });
}

}  // namespace Quorvalen

/// The transfer thread. Each turn runs what other threads posted, then due timers, then curl, then tells
/// finished transfers; user code runs in none of curl's own callbacks, so that it may end any transfer.
#include "Backend/TransferLoop.h"

#include <curl/curl.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <memory>

#include "BSW/Log/CLog.h"

namespace Quorvalen {
namespace {

/// With nothing to do, the thread looks up this often.
constexpr std::chrono::milliseconds kIdle = std::chrono::hours(1);

thread_local const TransferLoop* t_pLoop = nullptr;

/// curl's global state is made once and stays: the thread of an abandoned name look-up may still be using it.
CURLM* MakeMulti() {
  static const bool s_ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return s_ready ? curl_multi_init() : nullptr;
}

/// A peer that closes while TLS writes must not kill the program.
void BlockSigpipe() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

TransferLoop::TransferLoop(TransferSettings settings)
    : CThread("Transfers"), m_settings(std::move(settings)), m_pMulti(MakeMulti()) {}

TransferLoop::~TransferLoop() {
  Stop();
  if (!HasCrashed()) curl_multi_cleanup(m_pMulti);
}

bool TransferLoop::Start() {
  const CLock lock(m_mutex);
  if (m_phase != Phase::NotStarted || m_pMulti == nullptr || !CreateThread(0)) {
    LOGE("the transfer thread cannot start");
    return false;
  }
  m_phase = Phase::Running;
  return true;
}

void TransferLoop::Stop() {
  DestroyThread(true, true);
  const CLock lock(m_mutex);
  if (m_phase == Phase::NotStarted) m_phase = Phase::Stopped;
}

void TransferLoop::ThreadProc() {
  BlockSigpipe();
  t_pLoop = this;
  while (IsRunning()) {
    _RunJobs();
    _RunTimers();
    int running = 0;
    curl_multi_perform(m_pMulti, &running);
    _EndFinished();
    curl_multi_poll(m_pMulti, nullptr, 0, _PollTimeout(), nullptr);
  }
  _CloseDown();
}

void TransferLoop::OnStopRequested() {
  curl_multi_wakeup(m_pMulti);
}

bool TransferLoop::Post(Job job) {
  {
    const CLock lock(m_mutex);
    if (m_phase == Phase::Stopped) return false;
    m_jobs.push_back(std::move(job));
  }
  curl_multi_wakeup(m_pMulti);
  return true;
}

void TransferLoop::RunAndWait(const Job& job) {
  if (HasCrashed()) return;
  if (t_pLoop == this) return job();
  const auto done = std::make_shared<std::promise<void>>();
  {
    const CLock lock(m_mutex);
    // Under the mutex: the thread cannot start meanwhile.
    if (m_phase != Phase::Running) return job();
    m_jobs.emplace_back([&job, done] {
      job();
      done->set_value();
    });
  }
  curl_multi_wakeup(m_pMulti);
  done->get_future().wait();
}

void TransferLoop::_RunJobs() {
  std::deque<Job> jobs;
  {
    const CLock lock(m_mutex);
    jobs.swap(m_jobs);
  }
  for (const Job& job : jobs) job();
}

TransferLoop::TimerId TransferLoop::StartTimer(std::chrono::milliseconds delay, Job job) {
  const TimerId id = ++m_lastTimer;
  if (!m_bClosing) m_timers.emplace(std::make_pair(Clock::now() + delay, id), std::move(job));
  return id;
}

void TransferLoop::CancelTimer(TimerId id) {
  const auto timer = std::find_if(m_timers.begin(), m_timers.end(),
                                  [id](const auto& entry) { return entry.first.second == id; });
  if (timer != m_timers.end()) m_timers.erase(timer);
}

void TransferLoop::_RunTimers() {
  const Clock::time_point now = Clock::now();
  while (!m_timers.empty() && m_timers.begin()->first.first <= now) {
    const Job job = std::move(m_timers.begin()->second);
    m_timers.erase(m_timers.begin());
    job();
  }
}

int TransferLoop::_PollTimeout() const {
  if (m_timers.empty()) return static_cast<int>(kIdle.count());
  // Rounded up: a timer that is due in half a millisecond is waited for, not asked for again and again.
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(m_timers.begin()->first.first - Clock::now());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kIdle).count());
}

bool TransferLoop::Add(ITransfer& transfer) {
  if (m_bClosing || curl_multi_add_handle(m_pMulti, transfer.Handle()) != CURLM_OK) return false;
  m_transfers.insert(&transfer);
  return true;
}

void TransferLoop::Remove(ITransfer& transfer) {
  if (m_transfers.erase(&transfer) > 0) curl_multi_remove_handle(m_pMulti, transfer.Handle());
}

void TransferLoop::_EndFinished() {
  int left = 0;
  while (const CURLMsg* const message = curl_multi_info_read(m_pMulti, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;  // the message goes with its transfer
    char* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    reinterpret_cast<ITransfer*>(transfer)->Finish(code);
  }
}

void TransferLoop::_CloseDown() {
  m_bClosing = true;
  m_timers.clear();
  while (!m_transfers.empty()) Remove(**m_transfers.begin());
  for (;;) {
    _RunJobs();
    const CLock lock(m_mutex);
    if (!m_jobs.empty()) continue;
    m_phase = Phase::Stopped;
    return;
  }
}

}  // namespace Quorvalen

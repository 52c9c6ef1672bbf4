/// Threads, pauses and the stop flag. Every long-lived object of the daemon stands on this; the order in
/// which a stop clears the flag, ends the pause and calls OnStopRequested is relied upon.
#include "BSW/MultiTask/CThread.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "BSW/BasicFun/TimeUtils.h"

namespace {

/// Every thread may log, and each log call takes an 80 KiB buffer on the stack.
constexpr size_t kMinStackBytes = 256U * 1024U;

std::atomic<bool> g_bCrashed{false};
thread_local CThread* t_pCurrent = nullptr;

/// Thread attributes with room for `stackBytes`; 0 keeps the system's default.
class ThreadAttributes {
 public:
  explicit ThreadAttributes(int stackBytes) {
    pthread_attr_init(&m_attributes);
    if (stackBytes > 0) {
      pthread_attr_setstacksize(&m_attributes, std::max(static_cast<size_t>(stackBytes), kMinStackBytes));
    }
  }
  ~ThreadAttributes() { pthread_attr_destroy(&m_attributes); }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;

  const pthread_attr_t* Get() const { return &m_attributes; }

 private:
  pthread_attr_t m_attributes{};
};

}  // namespace

CThread::CThread(std::string name) : m_strThreadName(std::move(name)) {}

CThread::~CThread() {
  if (!m_bCreated || HasCrashed()) return;
  std::fprintf(stderr, "thread %s destroyed while it runs\n", m_strThreadName.c_str());
  std::abort();
}

bool CThread::CreateThread(int stackBytes) {
  const CLock lock(m_threadMutex);
  if (m_bCreated) return false;
  while (m_semStop.WaitFor(0)) {
    // what an earlier stop left behind
  }
  m_bRun = true;
  const ThreadAttributes attributes(stackBytes);
  m_bCreated = pthread_create(&m_thread, attributes.Get(), &CThread::_Run, this) == 0;
  if (!m_bCreated) m_bRun = false;
  return m_bCreated;
}

bool CThread::DestroyThread(bool requestStop, bool join) {
  if (HasCrashed()) return true;
  if (requestStop) {
    if (m_bRun.exchange(false)) m_semStop.Post();
    OnStopRequested();
  }
  if (!join) return true;
  if (t_pCurrent == this) return false;
  const CLock lock(m_threadMutex);
  if (m_bCreated) {
    pthread_join(m_thread, nullptr);
    m_bCreated = false;
  }
  return true;
}

void CThread::SetThreadName(const char* name) {
  prctl(PR_SET_NAME, name);
}

bool CThread::Pause(uint32_t milliseconds) {
  CThread* const self = t_pCurrent;
  if (self == nullptr) {
    XSleep(milliseconds);
    return true;
  }
  if (self->m_semStop.WaitFor(milliseconds)) self->m_semStop.Post();  // so that later pauses end at once too
  return self->IsRunning();
}

bool CThread::StopRequested() {
  return t_pCurrent != nullptr && !t_pCurrent->IsRunning();
}

void CThread::MarkCrashed() {
  g_bCrashed = true;
}

bool CThread::HasCrashed() {
  return g_bCrashed;
}

void* CThread::_Run(void* self) {
  t_pCurrent = static_cast<CThread*>(self);
  SetThreadName(t_pCurrent->m_strThreadName.c_str());
  t_pCurrent->ThreadProc();
  return nullptr;
}

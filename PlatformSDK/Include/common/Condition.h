/// The platform's condition variable: waits with a `CMutex` until another thread has changed what that
/// guards. Change and notification both happen with the mutex held, else a wake-up is lost.
#pragma once

#include <pthread.h>

#include <chrono>
#include <ctime>

#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member. A wait gives the mutex up meanwhile and holds it again when it returns; it
/// may return without a notification. Times are of the monotonic clock.
class CCondition {
 public:
  using Clock = std::chrono::steady_clock;

  CCondition() = default;
  ~CCondition() { pthread_cond_destroy(&m_cond); }
  CCondition(const CCondition&) = delete;
  CCondition& operator=(const CCondition&) = delete;

  void NotifyOne() { pthread_cond_signal(&m_cond); }
  void NotifyAll() { pthread_cond_broadcast(&m_cond); }

  void Wait(CMutex& mutex) REQUIRES(mutex) { pthread_cond_wait(&m_cond, &mutex.m_mutex); }
  /// False when `until` was reached.
  bool WaitUntil(CMutex& mutex, Clock::time_point until) REQUIRES(mutex) {
    const auto sinceStart = until.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceStart);
    const std::chrono::nanoseconds rest = sinceStart - seconds;
    const timespec deadline = {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
    return pthread_cond_clockwait(&m_cond, &mutex.m_mutex, CLOCK_MONOTONIC, &deadline) == 0;
  }

  /// Waits until `done`, which is asked with the mutex held and says so: `[this]() REQUIRES(m_mutex) {…}`.
  template <class Done>
  void Wait(CMutex& mutex, Done done) REQUIRES(mutex) NO_THREAD_SAFETY_ANALYSIS {
    while (!done()) Wait(mutex);
  }
  /// The same until a point in time, or for a while: whether `done` in the end.
  template <class Done>
  bool WaitUntil(CMutex& mutex, Clock::time_point until, Done done)
      REQUIRES(mutex) NO_THREAD_SAFETY_ANALYSIS {
    while (!done()) {
      if (!WaitUntil(mutex, until)) return done();
    }
    return true;
  }
  template <class Done>
  bool WaitFor(CMutex& mutex, Clock::duration time, Done done) REQUIRES(mutex) {
    return WaitUntil(mutex, Clock::now() + time, done);
  }

 private:
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
};

/// The platform's mutex. Used by every class whose shared state is guarded by a `CMutex m_...` member.
/// It meets the Lockable requirements, so hold it with std::lock_guard or std::unique_lock.
#pragma once

#include <pthread.h>

#include <cstdio>
#include <cstdlib>

/// A non-recursive mutex. A failure to create one stops the process: nothing above could work without it.
class CMutex {
 public:
  CMutex() {
    const int ret = pthread_mutex_init(&m_mutex, nullptr);
    if (ret != 0) {
      std::fputs("Assertion `0 == ret' failed: pthread_mutex_init\n", stderr);
      std::abort();
    }
  }
  ~CMutex() { pthread_mutex_destroy(&m_mutex); }
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;

  void lock() { pthread_mutex_lock(&m_mutex); }
  bool try_lock() { return pthread_mutex_trylock(&m_mutex) == 0; }
  void unlock() { pthread_mutex_unlock(&m_mutex); }

 private:
  pthread_mutex_t m_mutex{};
};

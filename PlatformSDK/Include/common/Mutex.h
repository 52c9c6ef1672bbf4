/// The platform's mutex and the lock that holds it. Every class with shared state has a `CMutex`, says with
/// GUARDED_BY what it guards, and holds it with a `CLock`.
#pragma once

#include <pthread.h>

#include <cstdio>
#include <cstdlib>

#include "common/ThreadAnnotations.h"

/// A non-recursive mutex. A failure to create one stops the process: nothing above could work without it.
class CAPABILITY("mutex") CMutex {
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

  void Lock() ACQUIRE() { pthread_mutex_lock(&m_mutex); }
  void Unlock() RELEASE() { pthread_mutex_unlock(&m_mutex); }

 private:
  friend class CCondition;  // waits with it

  pthread_mutex_t m_mutex{};
};

/// Holds a mutex for a scope. Unlock and Lock open a gap in it, for a call that must not be made with the
/// lock held; only the scope's own thread uses it.
class SCOPED_CAPABILITY CLock {
 public:
  explicit CLock(CMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~CLock() RELEASE() {
    if (m_bHeld) m_mutex.Unlock();
  }
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

  void Unlock() RELEASE() {
    m_mutex.Unlock();
    m_bHeld = false;
  }
  void Lock() ACQUIRE() {
    m_mutex.Lock();
    m_bHeld = true;
  }

 private:
  CMutex& m_mutex;
  bool m_bHeld = true;
};

/// What the daemon's singletons share: creation on first use and deletion at process exit. `class CLog :
/// public CSingleton<CLog>` makes CSingleton<CLog> a friend and keeps its constructor private.
#pragma once

#include <atomic>

#include "BSW/MultiTask/CThread.h"
#include "common/Mutex.h"

template <class T>
class CSingleton {
 public:
  CSingleton(const CSingleton&) = delete;
  CSingleton& operator=(const CSingleton&) = delete;

  /// The one instance, made by the first caller. Any thread. Singletons are deleted at exit in the reverse
  /// order of their creation; one that another uses must be created first.
  static T* instance() {
    T* made = _instance.load(std::memory_order_acquire);
    if (made == nullptr) {
      const CLock lock(m_SingletonMutex);
      made = _instance.load(std::memory_order_relaxed);
      if (made == nullptr) {
        made = new T();
        _instance.store(made, std::memory_order_release);
        static const CGarbo garbo;
      }
    }
    return made;
  }

 protected:
  CSingleton() = default;
  ~CSingleton() = default;

 private:
  /// Frees the instance at exit, and only frees: every thread was stopped before. After a crash threads still
  /// run, so nothing is freed.
  class CGarbo {
   public:
    CGarbo() = default;
    ~CGarbo() {
      if (!CThread::HasCrashed()) delete _instance.exchange(nullptr);
    }
    CGarbo(const CGarbo&) = delete;
    CGarbo& operator=(const CGarbo&) = delete;
  };

  inline static CMutex m_SingletonMutex;
  inline static std::atomic<T*> _instance{nullptr};
};

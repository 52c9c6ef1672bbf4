/// Base of every long-lived object that has a thread of its own, and the one home of pauses and of the stop
/// flag. A class derives from it, implements ThreadProc, and stops the thread at the start of its own
/// destructor.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/Mutex.h"
#include "common/Semaphore.h"
#include "common/ThreadAnnotations.h"

class CThread {
 public:
  /// `name` becomes the kernel's thread name, cut to its 15 characters.
  explicit CThread(std::string name);
  /// The thread must have been stopped by the most derived destructor; a thread still running here ends the
  /// process, because its virtual functions are gone.
  virtual ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  /// Starts the thread; `stackBytes` 0 takes the system's default. False when it runs already or the system
  /// refuses. A thread that was stopped and joined may be started again.
  bool CreateThread(int stackBytes);

  /// Stops the thread. `requestStop` clears the run flag, ends a running Pause and calls OnStopRequested;
  /// `join` waits until ThreadProc has returned. Stop several threads at once by requesting all, then joining
  /// all. Idempotent, true also when no thread runs; false for a join asked for by the thread itself. Any
  /// thread may call. After MarkCrashed it returns true at once and waits for nothing.
  bool DestroyThread(bool requestStop, bool join);

  /// True from CreateThread until a stop is requested. ThreadProc loops while it holds.
  bool IsRunning() const { return m_bRun.load(); }

  /// Names the calling thread for the kernel.
  static void SetThreadName(const char* name);

  /// Pauses the calling thread for `milliseconds`. On a CThread's own thread it ends early, with false, when
  /// that thread is asked to stop; on any other thread it always lasts and gives true.
  static bool Pause(uint32_t milliseconds);

  /// True when the calling thread is a CThread's and was asked to stop. Long loops and copies poll it.
  static bool StopRequested();

  /// Called by the crash handler: from now on nobody joins a thread and nobody frees what a thread may use.
  static void MarkCrashed();
  static bool HasCrashed();

 protected:
  /// The thread's body. Returning ends the thread.
  virtual void ThreadProc() = 0;

  /// Called on the stopping thread right after the run flag was cleared: wake ThreadProc from whatever it
  /// waits on, under the mutex it waits with. Must not block.
  virtual void OnStopRequested() {}

 private:
  static void* _Run(void* self);

  const std::string m_strThreadName;
  std::atomic<bool> m_bRun{false};
  CSemaphore m_semStop;
  CMutex m_threadMutex;
  pthread_t m_thread GUARDED_BY(m_threadMutex){};
  bool m_bCreated GUARDED_BY(m_threadMutex) = false;
};

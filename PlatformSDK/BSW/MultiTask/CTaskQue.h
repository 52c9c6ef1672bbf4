/// A thread that runs tasks one after another, for work that must not hold up its caller: the version
/// broadcast of the idle frame, the loading of the installed versions. Stop it before what its tasks use is
/// destroyed.
#pragma once

#include <functional>
#include <string>

#include "BSW/MultiTask/CMsgQue.h"
#include "BSW/MultiTask/CThread.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

class CTaskQue : public CThread {
 public:
  using Task = std::function<void()>;

  explicit CTaskQue(std::string name);
  ~CTaskQue() override;

  /// Runs `task` on this thread after those posted before; the thread starts with the first one. A task polls
  /// CThread::StopRequested or pauses with CThread::Pause, so that it ends when the queue is stopped.
  /// False when the queue is full, was stopped, or its thread cannot start.
  bool Post(Task task);

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;

 private:
  CMsgQue<Task> m_queTask;
  CMutex m_startMutex;
  bool m_bStarted GUARDED_BY(m_startMutex) = false;
  bool m_bStopped GUARDED_BY(m_startMutex) = false;
};

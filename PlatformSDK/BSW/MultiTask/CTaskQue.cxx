/// A thread that runs posted tasks in order, for work that must not hold up its caller.
#include "BSW/MultiTask/CTaskQue.h"

#include <cstddef>
#include <optional>
#include <utility>

namespace {

/// More tasks than that waiting means that they are posted faster than they can ever be done.
constexpr size_t kMaxWaitingTasks = 256;

}  // namespace

CTaskQue::CTaskQue(std::string name) : CThread(std::move(name)), m_queTask(kMaxWaitingTasks) {}

CTaskQue::~CTaskQue() {
  DestroyThread(true, true);
}

bool CTaskQue::Post(Task task) {
  {
    const CLock lock(m_startMutex);
    if (m_bStopped) return false;
    if (!m_bStarted) m_bStarted = CreateThread(0);
    if (!m_bStarted) return false;
  }
  return m_queTask.Push(std::move(task));
}

void CTaskQue::ThreadProc() {
  // A stop ends a task's pause before it closes the queue: the task after it must not start in between.
  for (std::optional<Task> task = m_queTask.Take(); task && IsRunning(); task = m_queTask.Take()) {
    (*task)();
  }
}

void CTaskQue::OnStopRequested() {
  {
    const CLock lock(m_startMutex);
    m_bStopped = true;
  }
  m_queTask.Close();
  // A first task may have started the thread since the stop cleared the flag of one that did not run.
  if (IsRunning()) DestroyThread(true, false);
}

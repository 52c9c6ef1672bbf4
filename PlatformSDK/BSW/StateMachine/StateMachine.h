/// A thread that walks a table of named states, for owners that do one thing after another. The owner keeps
/// the table, `static const Table m_MapStateMachineFunc`, and one handler per state; a handler does the
/// state's work and names the next state.
#pragma once

#include <cstdint>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>

#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// `Owner` derives publicly from StateMachine<Owner> and stops the thread in its own destructor.
template <class Owner>
class StateMachine : public CThread {
 public:
  using Handler = std::string (Owner::*)();
  using Table = std::unordered_map<std::string, Handler>;

 protected:
  /// `table` outlives the object. `idle` is the state to begin in.
  StateMachine(const char* threadName, const Table& table, const char* idle)
      : CThread(threadName), m_table(table), m_StateMachine(idle) {}

  /// Runs the current state's handler; the state it names, or one queued meanwhile, becomes the current one.
  void ThreadProc() override {
    CLock lock(m_queueNextMutex);
    while (IsRunning()) {
      const auto handler = m_table.find(m_StateMachine);
      lock.Unlock();
      if (handler == m_table.end()) {
        Pause(kUnknownStatePauseMs);
        lock.Lock();
        continue;
      }
      std::string next = (static_cast<Owner*>(this)->*handler->second)();
      lock.Lock();
      if (!IsRunning()) break;
      if (!m_queueNextStateMachine.empty()) {
        next = std::move(m_queueNextStateMachine.front());
        m_queueNextStateMachine.pop();
        LOGD("exec NextStateMachine: %s", next.c_str());
      }
      _EnterState(next);
    }
  }

  void OnStopRequested() override {
    const CLock lock(m_queueNextMutex);
    m_stateCond.NotifyAll();
  }

  /// Makes `name` the current state; an unknown one is refused and the current one kept.
  bool _EnterState(const std::string& name) REQUIRES(m_queueNextMutex) {
    if (m_table.find(name) == m_table.end()) {
      LOGE("not surpport StateMachine : [%s] ", name.c_str());
      return false;
    }
    if (m_StateMachine != name) m_StateMachine = name;
    return true;
  }

  /// Runs `change` under m_queueNextMutex if the machine is in `idle` with nothing queued; false, without
  /// running it, when it is not. What only such a change writes, the handlers of the other states may read
  /// without a lock. Any thread.
  template <class Change>
  bool _ChangeInIdle(const char* idle, Change change) EXCLUDES(m_queueNextMutex) {
    const CLock lock(m_queueNextMutex);
    if (!_IsAtRest(idle)) return false;
    change();
    return true;
  }

  /// Queues `name` and wakes the machine if it is in `idle` with nothing queued, under one lock. Any thread.
  /// `accept` runs under that lock before the state is queued.
  template <class Accept>
  bool _QueueFromIdle(const char* idle, const char* name, Accept accept) EXCLUDES(m_queueNextMutex) {
    const CLock lock(m_queueNextMutex);
    if (!_IsAtRest(idle)) return false;
    accept();
    m_queueNextStateMachine.push(name);
    m_stateCond.NotifyOne();
    return true;
  }

  /// Waits until a state is queued or the thread is asked to stop.
  void _WaitForQueuedState() EXCLUDES(m_queueNextMutex) {
    const CLock lock(m_queueNextMutex);
    m_stateCond.Wait(m_queueNextMutex, [this]() REQUIRES(m_queueNextMutex) {
      return !m_queueNextStateMachine.empty() || !IsRunning();
    });
  }

  const Table& m_table;
  CMutex m_queueNextMutex;
  CCondition m_stateCond;
  std::string m_StateMachine GUARDED_BY(m_queueNextMutex);
  std::queue<std::string> m_queueNextStateMachine GUARDED_BY(m_queueNextMutex);

 private:
  bool _IsAtRest(const char* idle) const REQUIRES(m_queueNextMutex) {
    return m_StateMachine == idle && m_queueNextStateMachine.empty();
  }

  static constexpr uint32_t kUnknownStatePauseMs = 1000;
};

/// A thread that walks a table of named states: the frame, the SoC upgraders and the package sources are
/// state machines of this kind. The owner keeps the table, `static const Table m_MapStateMachineFunc`, and
/// one handler per state; a handler does the state's work and names the next state.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>

#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"

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
    while (IsRunning()) {
      const auto handler = m_table.find(m_StateMachine);
      if (handler == m_table.end()) {
        Pause(kUnknownStatePauseMs);
        continue;
      }
      std::string next = (static_cast<Owner*>(this)->*handler->second)();
      if (!IsRunning()) break;
      const std::lock_guard<std::mutex> lock(m_queueNextMutex);
      if (!m_queueNextStateMachine.empty()) {
        next = std::move(m_queueNextStateMachine.front());
        m_queueNextStateMachine.pop();
        LOGD("exec NextStateMachine: %s", next.c_str());
      }
      _EnterState(next);
    }
  }

  void OnStopRequested() override {
    const std::lock_guard<std::mutex> lock(m_queueNextMutex);
    m_stateCond.notify_all();
  }

  /// Makes `name` the current state; an unknown one is refused and the current one kept. m_queueNextMutex is
  /// held.
  bool _EnterState(const std::string& name) {
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
  bool _ChangeInIdle(const char* idle, Change change) {
    const std::lock_guard<std::mutex> lock(m_queueNextMutex);
    if (m_StateMachine != idle || !m_queueNextStateMachine.empty()) return false;
    change();
    return true;
  }

  /// Queues `name` and wakes the machine if it is in `idle` with nothing queued, under one lock. Any thread.
  /// `accept` runs under that lock before the state is queued.
  template <class Accept>
  bool _QueueFromIdle(const char* idle, const char* name, Accept accept) {
    return _ChangeInIdle(idle, [&] {
      accept();
      m_queueNextStateMachine.push(name);
      m_stateCond.notify_one();
    });
  }

  /// Waits until a state is queued or the thread is asked to stop.
  void _WaitForQueuedState() {
    std::unique_lock<std::mutex> lock(m_queueNextMutex);
    m_stateCond.wait(lock, [this] { return !m_queueNextStateMachine.empty() || !IsRunning(); });
  }

  const Table& m_table;
  std::mutex m_queueNextMutex;  ///< guards m_StateMachine against readers, and m_queueNextStateMachine
  std::string m_StateMachine;   ///< written by the machine's thread under the mutex
  std::queue<std::string> m_queueNextStateMachine;
  std::condition_variable m_stateCond;

 private:
  static constexpr uint32_t kUnknownStatePauseMs = 1000;
};

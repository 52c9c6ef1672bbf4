/// A bounded queue between threads: any thread pushes, one or more take. CTaskQue gets its tasks through it.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

template <class Message>
class CMsgQue {
 public:
  explicit CMsgQue(size_t capacity) : m_capacity(capacity) {}

  /// False, and the message is dropped, when the queue is full or closed.
  bool Push(Message message) {
    const CLock lock(m_mutex);
    if (m_bClosed || m_queue.size() >= m_capacity) return false;
    m_queue.push_back(std::move(message));
    m_cond.NotifyOne();
    return true;
  }

  /// Waits for a message; empty once the queue is closed. Messages left at that moment are not delivered.
  std::optional<Message> Take() {
    const CLock lock(m_mutex);
    m_cond.Wait(m_mutex, [this]() REQUIRES(m_mutex) { return m_bClosed || !m_queue.empty(); });
    if (m_bClosed) return std::nullopt;
    std::optional<Message> message(std::move(m_queue.front()));
    m_queue.pop_front();
    return message;
  }

  /// Ends every waiting Take and refuses further messages. A queue stays closed.
  void Close() {
    const CLock lock(m_mutex);
    m_bClosed = true;
    m_cond.NotifyAll();
  }

 private:
  const size_t m_capacity;
  CMutex m_mutex;
  CCondition m_cond;
  std::deque<Message> m_queue GUARDED_BY(m_mutex);
  bool m_bClosed GUARDED_BY(m_mutex) = false;
};

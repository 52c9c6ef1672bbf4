/// A bounded queue between threads: any thread pushes, one or more take. Package sources receive their
/// requests through it, CTaskQue its tasks.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

template <class Message>
class CMsgQue {
 public:
  explicit CMsgQue(size_t capacity) : m_capacity(capacity) {}

  /// False, and the message is dropped, when the queue is full or closed.
  bool Push(Message message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bClosed || m_queue.size() >= m_capacity) return false;
    m_queue.push_back(std::move(message));
    m_cond.notify_one();
    return true;
  }

  /// Waits for a message; empty once the queue is closed. Messages left at that moment are not delivered.
  std::optional<Message> Take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return m_bClosed || !m_queue.empty(); });
    return _Pop();
  }

  /// Takes what is there without waiting.
  std::optional<Message> TryTake() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return _Pop();
  }

  /// Ends every waiting Take and refuses further messages. A queue stays closed.
  void Close() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bClosed = true;
    m_cond.notify_all();
  }

 private:
  std::optional<Message> _Pop() {
    if (m_bClosed || m_queue.empty()) return std::nullopt;
    std::optional<Message> message(std::move(m_queue.front()));
    m_queue.pop_front();
    return message;
  }

  const size_t m_capacity;
  std::mutex m_mutex;  ///< guards m_queue and m_bClosed
  std::condition_variable m_cond;
  std::deque<Message> m_queue;
  bool m_bClosed = false;
};

/// The platform's counting semaphore. `CThread` uses one to end a pause the moment its thread is asked to
/// stop.
#pragma once

#include <semaphore.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

/// A process-private semaphore. Any thread may call any member.
class CSemaphore {
 public:
  explicit CSemaphore(unsigned initial = 0) { sem_init(&m_sem, 0, initial); }
  ~CSemaphore() { sem_destroy(&m_sem); }
  CSemaphore(const CSemaphore&) = delete;
  CSemaphore& operator=(const CSemaphore&) = delete;

  void Post() { sem_post(&m_sem); }

  /// Takes one unit, waiting at most `milliseconds` of monotonic time. False when none came in that time.
  bool WaitFor(uint32_t milliseconds) {
    constexpr long kNanosecondsPerSecond = 1'000'000'000L;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(milliseconds / 1000U);
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000U) * 1'000'000L;
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= kNanosecondsPerSecond;
    }
    int ret = 0;
    do {
      ret = sem_clockwait(&m_sem, CLOCK_MONOTONIC, &deadline);
    } while (ret != 0 && errno == EINTR);
    return ret == 0;
  }

 private:
  sem_t m_sem{};
};

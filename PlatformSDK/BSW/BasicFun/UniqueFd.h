/// Raw system calls made safe: a descriptor with an owner, and calls that a signal does not end.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

/// Owns one descriptor and closes it. Empty when it holds -1. Closing keeps errno, so that a function may
/// return straight after the call that failed.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : m_fd(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }

  int Get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

  /// Hands the descriptor to the caller.
  int Release() { return std::exchange(m_fd, -1); }
  /// Closes what it holds and takes `fd`.
  void Reset(int fd = -1) {
    const int old = std::exchange(m_fd, fd);
    if (old < 0) return;
    const int savedErrno = errno;
    ::close(old);
    errno = savedErrno;
  }

 private:
  int m_fd;
};

/// Repeats `call` while a signal interrupts it: for calls that give -1 and set errno.
template <class Call>
auto RetryInterrupted(Call call) -> decltype(call()) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

// The other end of a serial line, and boxes in which tests wait for what threads deliver.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BSW/Serial/UartMngInfo.h"

using Bytes = std::vector<uint8_t>;

// Far beyond what anything here takes; a wait that lasts so long has failed.
constexpr std::chrono::seconds kPatience(20);

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// A pty: the tests hold the peer's end, the code under test opens Device().
class PtyPeer {
 public:
  PtyPeer() : m_fd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    std::array<char, 64> name{};
    if (m_fd < 0 || grantpt(m_fd) != 0 || unlockpt(m_fd) != 0 ||
        ptsname_r(m_fd, name.data(), name.size()) != 0) {
      std::abort();
    }
    m_device = name.data();
  }
  ~PtyPeer() { Unplug(); }
  PtyPeer(const PtyPeer&) = delete;
  PtyPeer& operator=(const PtyPeer&) = delete;

  const std::string& Device() const { return m_device; }

  UART_MNG_INFO_S Info(emSerialBaudRate rate = emSerialBaudRate_115200) const {
    UART_MNG_INFO_S info;
    EXPECT_TRUE(info.SetDevName(m_device));
    info.eBaudRate = rate;
    return info;
  }

  // The settings of the line, as the code under test made them.
  termios Settings() const {
    termios attributes{};
    EXPECT_EQ(tcgetattr(m_fd, &attributes), 0);
    return attributes;
  }

  speed_t Speed() const {
    const termios settings = Settings();
    EXPECT_EQ(cfgetispeed(&settings), cfgetospeed(&settings));
    return cfgetospeed(&settings);
  }

  void Send(const Bytes& bytes) const {
    EXPECT_EQ(write(m_fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  // True once there is something to receive, false after `time`.
  bool HasInput(std::chrono::milliseconds time) const {
    pollfd watched = {m_fd, POLLIN, 0};
    return poll(&watched, 1, static_cast<int>(time.count())) == 1;
  }

  // Waits for `count` bytes; fewer only when the test has failed.
  Bytes Receive(size_t count) const {
    Bytes bytes(count);
    size_t done = 0;
    while (done < count) {
      if (!HasInput(kPatience)) break;
      const ssize_t got = read(m_fd, bytes.data() + done, count - done);
      if (got <= 0) break;
      done += static_cast<size_t>(got);
    }
    EXPECT_EQ(done, count);
    bytes.resize(done);
    return bytes;
  }

  void Unplug() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

 private:
  int m_fd;
  std::string m_device;
};

template <class Item>
class Inbox {
 public:
  void Put(const Item& item) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_items.push_back(item);
    m_cond.notify_all();
  }

  // The first `count` items, once they are there.
  std::vector<Item> Wait(size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_cond.wait_for(lock, kPatience, [&] { return m_items.size() >= count; }));
    return m_items;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<Item> m_items;
};

// Received bytes, whatever chunks they come in.
class ByteBox : public Inbox<uint8_t> {
 public:
  std::function<int(const void*, short)> Callback() {
    return [this](const void* data, short length) {
      for (short i = 0; i < length; ++i) Put(static_cast<const uint8_t*>(data)[i]);
      return 0;
    };
  }
};

inline double SecondsOf(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

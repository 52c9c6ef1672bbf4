/// One tty device. Reads and writes take a lease of the descriptor, so that a close can wait for them; poll
/// watches the line and the stop event together. The order of the settings and of the flushes is what the
/// chips expect.
#include "BSW/Serial/CSerial.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/LineSettings.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kForever = -1;
constexpr int kMinLineTimeoutMs = 100;
constexpr std::chrono::microseconds kReadPacing(10'700);
constexpr uint32_t kReadErrorPauseMs = 100;
// Longer than a line of 19200 baud, the slowest in use, takes to send what the driver holds (4 KiB).
constexpr int kWriteStallMs = 3000;
// For the last bytes of a line that is closed: a message of 1 KiB at 115200 baud.
constexpr milliseconds kLastBytesTime(100);
constexpr milliseconds kLastBytesPoll(5);

void Drain(int eventFd) {
  uint64_t count = 0;
  // Nothing to drain is no failure.
  (void)!read(eventFd, &count, sizeof count);
}

void Signal(int eventFd) {
  const uint64_t one = 1;
  // It can only fail when the counter is full, and then it is readable as it should be.
  (void)!write(eventFd, &one, sizeof one);
}

/// Lets the line send what the driver still holds, for a moment, and drops the rest: closing a line whose
/// other end takes nothing would wait for it, by default for half a minute.
void FinishSending(int fd) {
  const Clock::time_point deadline = Clock::now() + kLastBytesTime;
  int unsent = 0;
  while (ioctl(fd, TIOCOUTQ, &unsent) == 0 && unsent > 0) {
    if (Clock::now() >= deadline) {
      tcflush(fd, TCOFLUSH);
      return;
    }
    std::this_thread::sleep_for(kLastBytesPoll);
  }
}

}  // namespace

/// Keeps the descriptor open while it is used.
class CSerial::Lease {
 public:
  explicit Lease(CSerial& serial) : m_serial(serial) {
    const CLock lock(serial.m_fdMutex);
    m_fd = serial.m_fd;
    if (m_fd < 0) return;
    m_info = serial.m_pstUartMngInfo;
    ++serial.m_iUsers;
  }
  ~Lease() {
    if (m_fd < 0) return;
    const CLock lock(m_serial.m_fdMutex);
    if (--m_serial.m_iUsers == 0) m_serial.m_cvUnused.NotifyAll();
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  /// -1 when the line is closed.
  [[nodiscard]] int Fd() const { return m_fd; }
  [[nodiscard]] const char* Device() const { return m_info->szDevName; }

 private:
  CSerial& m_serial;
  int m_fd = -1;
  std::shared_ptr<const UART_MNG_INFO_S> m_info;
};

CSerial::CSerial() : m_stopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (m_stopFd < 0) LOGE("eventfd error! %s", std::strerror(errno));
}

CSerial::~CSerial() {
  Close();
  if (m_stopFd >= 0) close(m_stopFd);
}

bool CSerial::Open(const UART_MNG_INFO_S* info, int timeoutMs) {
  if (info == nullptr) return false;
  auto record = std::make_shared<UART_MNG_INFO_S>(*info);
  record->szDevName[sizeof record->szDevName - 1] = '\0';

  const CLock lock(m_fdMutex);
  m_pstUartMngInfo = record;
  if (m_fd < 0) {
    // A close under way on another thread comes first: its readers still have to see the stop event.
    m_cvUnused.Wait(m_fdMutex, [this]() REQUIRES(m_fdMutex) { return m_iUsers == 0; });
    // Non-blocking: neither a missing carrier nor a full output buffer may hold a thread; waiting is
    // _WaitReady's.
    m_fd = open(record->szDevName, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (m_fd < 0) {
      LOGE("open %s error! %s", record->szDevName, std::strerror(errno));
      return false;
    }
  }
  if (!_Configure(m_fd, *record, timeoutMs)) {
    _Close();
    return false;
  }
  Drain(m_stopFd);
  LOGD("#### Open %s OK. m_fd = %d ####", record->szDevName, m_fd);
  return true;
}

bool CSerial::_Configure(int fd, const UART_MNG_INFO_S& info, int timeoutMs) {
  termios attributes{};
  if (tcgetattr(fd, &attributes) != 0) {
    LOGE("Get Serial[%s] Configs Error!", info.szDevName);
    return false;
  }
  if (!ApplyLineFormat(info, attributes)) {
    LOGE("Not Implement Serial Bound Rate!");
    return false;
  }
  bool applied = false;
  if (timeoutMs >= kMinLineTimeoutMs) {
    ApplyRawMode(timeoutMs, attributes);
    for (const int queue : {TCIFLUSH, TCOFLUSH, TCIOFLUSH, TCIOFLUSH}) tcflush(fd, queue);
    applied = tcsetattr(fd, TCSANOW, &attributes) == 0;
  }
  if (!applied) LOGE("Config Serial Error.\n");
  return applied;
}

bool CSerial::Close() {
  const CLock lock(m_fdMutex);
  if (m_fd >= 0) _Close();
  return true;
}

void CSerial::_Close() {
  const int fd = std::exchange(m_fd, -1);
  const auto record = m_pstUartMngInfo;
  Signal(m_stopFd);
  m_cvUnused.Wait(m_fdMutex, [this]() REQUIRES(m_fdMutex) { return m_iUsers == 0; });
  FinishSending(fd);
  close(fd);
  LOGD("[%s] #### Close Serial OK. m_fd = %d ####", record->szDevName, fd);
}

void CSerial::Interrupt() {
  const CLock lock(m_fdMutex);
  Signal(m_stopFd);
}

bool CSerial::SetBaudRate(emSerialBaudRate rate) {
  const Lease line(*this);
  if (line.Fd() < 0) {
    LOGE("SetBaudRate fd error!");
    return false;
  }
  termios attributes{};
  if (tcgetattr(line.Fd(), &attributes) != 0) {
    LOGE("tcgetattr()...");
    return false;
  }
  tcflush(line.Fd(), TCIOFLUSH);
  const std::optional<speed_t> speed = TermiosSpeed(rate);
  if (!speed || rate == emSerialBaudRate_921600) {
    LOGE("Not Implement Serial Bound Rate...\n");
    return false;
  }
  cfsetispeed(&attributes, *speed);
  cfsetospeed(&attributes, *speed);
  if (tcsetattr(line.Fd(), TCSANOW, &attributes) != 0) {
    LOGE("tcsetattr()...\n");
    return false;
  }
  tcflush(line.Fd(), TCIOFLUSH);
  return true;
}

int CSerial::Read(char* buffer, int length, bool blocking, int timeoutMs) {
  {
    const Lease line(*this);
    if (line.Fd() < 0) {
      LOGE("Read fd error!");
      return -1;
    }
    const Wait wait = _WaitReady(line.Fd(), POLLIN, blocking ? kForever : timeoutMs);
    if (wait == Wait::Interrupted) return 0;
    const int waitError = errno;
    if (!blocking) std::this_thread::sleep_for(kReadPacing);
    if (wait == Wait::Failed) {
      LOGE("select() %s", std::strerror(waitError));
      return -1;
    }
    if (wait == Wait::TimedOut) return 0;

    ssize_t count = 0;
    do {
      count = read(line.Fd(), buffer, static_cast<size_t>(length));
    } while (count < 0 && errno == EINTR);
    if (count > 0) return static_cast<int>(count);
    // A flush took the bytes that the wait had seen.
    if (count < 0 && errno == EAGAIN) return 0;
    LOGE("[%s] SafeRead Error", line.Device());
  }
  CThread::Pause(kReadErrorPauseMs);
  return -1;
}

int CSerial::Write(const char* buf, int length) {
  const CLock oneWriter(m_writeMutex);
  const Lease line(*this);
  if (line.Fd() < 0) {
    LOGE("Write fd error!");
    return -1;
  }
  if (_WriteAll(line.Fd(), buf, length)) return length;
  LOGE("[%s] Write of %d bytes failed! %s", line.Device(), length, std::strerror(errno));
  // Bytes that the line does not take would hold up its closing for half a minute.
  tcflush(line.Fd(), TCOFLUSH);
  return -1;
}

bool CSerial::_WriteAll(int fd, const char* buf, int length) const {
  for (int done = 0; done < length;) {
    switch (_WaitReady(fd, POLLOUT, kWriteStallMs)) {
      case Wait::Ready:
        break;
      case Wait::TimedOut:
        errno = ETIMEDOUT;
        return false;
      case Wait::Interrupted:
        errno = ECANCELED;
        return false;
      case Wait::Failed:
        return false;
    }
    const ssize_t count = write(fd, buf + done, static_cast<size_t>(length - done));
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
    if (count > 0) done += static_cast<int>(count);
  }
  return true;
}

CSerial::Wait CSerial::_WaitReady(int fd, short events, int timeoutMs) const {
  const Clock::time_point deadline = Clock::now() + milliseconds(timeoutMs);
  int remainingMs = timeoutMs;
  std::array<pollfd, 2> watched = {{{fd, events, 0}, {m_stopFd, POLLIN, 0}}};
  for (;;) {
    const int ready = poll(watched.data(), watched.size(), remainingMs);
    if (ready > 0) return watched[1].revents != 0 ? Wait::Interrupted : Wait::Ready;
    if (ready == 0) return Wait::TimedOut;
    if (errno != EINTR) return Wait::Failed;
    if (timeoutMs == kForever) continue;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    remainingMs = left > 0 ? static_cast<int>(left) : 0;
  }
}

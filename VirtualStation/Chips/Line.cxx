/// Carries bytes at the speed of the line. They are taken from the pty as soon as they are there, with the
/// speed that is set at that moment, and wait in a queue until the line would have carried them. The queue
/// holds as much as a UART's transmit buffer; what does not fit waits in the kernel, where a flush of the
/// host still drops it.
#include "VirtualStation/Chips/Line.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <utility>

#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;
using std::chrono::nanoseconds;

constexpr std::size_t kTransmitBuffer = 4096;
/// Bytes are handed on in slices of this length, the last one of a burst on time.
constexpr std::chrono::milliseconds kSlice(1);
/// Bytes this far apart are not read together: the host collects for 10.7 ms after the first.
constexpr std::chrono::milliseconds kSplitGap(20);

struct Speed {
  speed_t code;
  unsigned bitsPerSecond;
};
constexpr Speed kSpeeds[] = {{B2400, 2400},     {B4800, 4800},     {B9600, 9600},      {B19200, 19200},
                             {B38400, 38400},   {B57600, 57600},   {B115200, 115200},  {B230400, 230400},
                             {B460800, 460800}, {B921600, 921600}, {B3000000, 3000000}};

/// What a byte looks like at another speed; never a control character.
std::uint8_t Garbled(std::uint8_t byte) {
  return static_cast<std::uint8_t>((byte ^ 0x55U) | 0x80U);
}

/// Bytes that take the place of `answer` or come before it: the same each time, and none begins like it.
Bytes Noise(std::size_t size, const Bytes& answer) {
  std::mt19937 random(static_cast<unsigned>(size));
  Bytes noise(size);
  for (std::uint8_t& byte : noise) {
    do {
      byte = static_cast<std::uint8_t>(random());
    } while (!answer.empty() && byte == answer[0]);
  }
  return noise;
}

void Drain(int fd) {
  std::array<char, 4096> ignored{};
  while (read(fd, ignored.data(), ignored.size()) > 0) {
  }
}

}  // namespace

Line::Line(std::string device, unsigned speed, Received received, Timer timer)
    : m_device(std::move(device)),
      m_usb(speed == kUsb),
      m_received(std::move(received)),
      m_timerRings(std::move(timer)),
      m_speed(speed) {
  Plug();
  m_thread = std::thread(&Line::_Run, this);
}

Line::~Line() {
  {
    const CLock lock(m_mutex);
    m_stop = true;
    m_wake.Ring();
  }
  m_thread.join();
  Unplug();
}

void Line::Plug() {
  const CLock lock(m_mutex);
  if (m_master >= 0) {
    return;
  }
  std::array<char, 64> name{};
  m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (m_master < 0 || unlockpt(m_master) != 0 || ptsname_r(m_master, name.data(), name.size()) != 0) {
    Halt("cannot make a serial line", errno);
  }
  // Having been open once it tells from now on when nobody has it open; and nothing is echoed.
  const int device = open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  tcgetattr(device, &settings);
  cfmakeraw(&settings);
  tcsetattr(device, TCSANOW, &settings);
  close(device);
  m_watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotify_add_watch(m_watch, name.data(), IN_OPEN) < 0) {
    Halt("cannot watch " + m_device, errno);
  }
  fs::remove(m_device);
  fs::create_symlink(name.data(), m_device);
  m_wake.Ring();
}

void Line::Unplug() {
  const CLock lock(m_mutex);
  if (m_master < 0) {
    return;
  }
  fs::remove(m_device);
  close(m_master);
  close(m_watch);
  m_master = m_watch = -1;
  m_incoming.clear();
  m_outgoing.clear();
  _SetOpen(false);
  m_wake.Ring();
}

bool Line::Plugged() const {
  const CLock lock(m_mutex);
  return m_master >= 0;
}

bool Line::WaitForPort(bool open, Milliseconds timeout) const {
  const CLock lock(m_mutex);
  return m_portChanged.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) { return m_open == open; });
}

void Line::SetPaced(bool paced) {
  const CLock lock(m_mutex);
  m_paced = paced;
}

std::uint64_t Line::ReceivedCount() const {
  const CLock lock(m_mutex);
  return m_count;
}

unsigned Line::HostSpeed() const {
  const CLock lock(m_mutex);
  return _HostSpeed();
}

void Line::SetSpeed(unsigned bitsPerSecond) {
  const CLock lock(m_mutex);
  m_speed = bitsPerSecond;
}

std::optional<Conduct::Faults> Line::Reach(Conduct& conduct, Phase phase) {
  std::optional<Conduct::Faults> faults = conduct.Reach(phase);
  if (faults && faults->count(FaultKind::Unplug) != 0) {
    Unplug();
    faults.reset();
  }
  return faults;
}

void Line::Send(Bytes answer, const Conduct::Faults& faults) {
  const auto strikes = [&](FaultKind kind) { return faults.count(kind) != 0; };
  if (strikes(FaultKind::Garbage)) {
    answer = Noise(answer.size(), answer);
  }
  if (strikes(FaultKind::CutAnswer)) {
    answer.resize(std::min(answer.size(), faults.at(FaultKind::CutAnswer)));
  }
  if (strikes(FaultKind::Double)) {
    const Bytes once = answer;
    answer.insert(answer.end(), once.begin(), once.end());
  }
  if (strikes(FaultKind::Noise)) {
    const Bytes noise = Noise(faults.at(FaultKind::Noise), answer);
    answer.insert(answer.begin(), noise.begin(), noise.end());
  }
  const CLock lock(m_mutex);
  _Enqueue(m_outgoing, answer, m_speed, strikes(FaultKind::Split) ? kSplitGap : Clock::duration::zero(),
           Milliseconds(strikes(FaultKind::Late) ? faults.at(FaultKind::Late) : 0));
  m_wake.Ring();
}

void Line::SetTimer(std::optional<Clock::time_point> when) {
  const CLock lock(m_mutex);
  m_timer = when;
  m_wake.Ring();
}

void Line::_Run() {
  // The host may flush what it sent 10 ms ago, so this thread must be in time also on a busy machine. It
  // never runs for long; without the right to a real-time place it goes on as it is.
  sched_param priority{};
  priority.sched_priority = sched_get_priority_min(SCHED_FIFO);
  pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
  prctl(PR_SET_TIMERSLACK, 1UL);
  CLock lock(m_mutex);
  while (_Wait()) {
    _ReadPort();
    const Clock::time_point now = Clock::now();
    _WritePort(now);
    const Bytes due = _TakeDue(m_incoming, now, m_speed);
    m_count += due.size();
    const bool rings = m_timer && *m_timer <= now;
    if (rings) {
      m_timer.reset();
    }
    lock.Unlock();
    if (!due.empty()) {
      m_received(due);
    }
    if (rings) {
      m_timerRings();
    }
    lock.Lock();
  }
}

/// Waits, unlocked, until something is to be done. False: the line ends.
bool Line::_Wait() {
  const Clock::time_point now = Clock::now();
  Clock::time_point next = m_timer.value_or(Clock::time_point::max());
  for (const Queue* queue : {&m_incoming, &m_outgoing}) {
    if (!queue->empty()) {
      next = std::min(next, std::max(queue->front().at, std::min(queue->back().at, now + kSlice)));
    }
  }
  const bool listens = m_open && m_incoming.size() < kTransmitBuffer;
  std::array<pollfd, 3> fds = {{m_wake.Watch(), {m_watch, POLLIN, 0}, {listens ? m_master : -1, POLLIN, 0}}};
  const auto left = std::max(nanoseconds(next - now), nanoseconds(0));
  const timespec timeout = {static_cast<time_t>(left.count() / std::nano::den),
                            static_cast<long>(left.count() % std::nano::den)};
  m_mutex.Unlock();
  ppoll(fds.data(), fds.size(), next == Clock::time_point::max() ? nullptr : &timeout, nullptr);
  m_mutex.Lock();
  m_wake.Quiet();
  return !m_stop;
}

void Line::_ReadPort() {
  if (m_master < 0) {
    return;
  }
  std::array<char, 256> events{};
  if (read(m_watch, events.data(), events.size()) > 0) {
    Drain(m_watch);
    _SetOpen(true);
  }
  if (!m_open || m_incoming.size() >= kTransmitBuffer) {
    return;
  }
  Bytes bytes(kTransmitBuffer - m_incoming.size());
  const ssize_t size = read(m_master, bytes.data(), bytes.size());
  if (size > 0) {
    bytes.resize(static_cast<std::size_t>(size));
    // Asked afterwards: a host that has just opened the device sets the speed first, and then sends.
    _Enqueue(m_incoming, bytes, _HostSpeed());
  } else if (size == 0 || errno == EIO) {
    _SetOpen(false);
  }
}

void Line::_WritePort(Clock::time_point now) {
  if (m_outgoing.empty() || m_outgoing.front().at > now) {
    return;
  }
  const Bytes due = _TakeDue(m_outgoing, now, _HostSpeed());
  // What the host's buffer does not take is an overrun, as on a UART.
  if (m_open && write(m_master, due.data(), due.size()) < 0 && errno == EIO) {
    _SetOpen(false);
  }
}

Bytes Line::_TakeDue(Queue& queue, Clock::time_point now, unsigned receiverSpeed) const {
  Bytes due;
  const unsigned speed = queue.empty() ? 0 : queue.front().speed;
  while (!queue.empty() && queue.front().at <= now && queue.front().speed == speed) {
    due.push_back(m_usb || speed == receiverSpeed ? queue.front().byte : Garbled(queue.front().byte));
    queue.pop_front();
  }
  return due;
}

void Line::_Enqueue(Queue& queue, const Bytes& bytes, unsigned speed, Clock::duration gap,
                    Clock::duration delay) const {
  constexpr unsigned kBitsPerByte = 10;
  const nanoseconds byteTime(m_paced && !m_usb && speed > 0 ? std::nano::den * kBitsPerByte / speed : 0);
  Clock::time_point at = delay + (queue.empty() ? Clock::now() : std::max(Clock::now(), queue.back().at));
  for (const std::uint8_t byte : bytes) {
    at += byteTime + gap;
    queue.push_back({byte, speed, at});
  }
}

void Line::_SetOpen(bool open) {
  m_open = open;
  m_portChanged.NotifyAll();
}

/// The master shows the settings of the device. 0: a speed that no chip has.
unsigned Line::_HostSpeed() const {
  termios settings{};
  if (m_master < 0 || tcgetattr(m_master, &settings) != 0) {
    return 0;
  }
  const speed_t code = cfgetospeed(&settings);
  const auto* const speed = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                                         [&](const Speed& candidate) { return candidate.code == code; });
  return speed == std::end(kSpeeds) ? 0 : speed->bitsPerSecond;
}

}  // namespace station

/// A serial line from the daemon to a chip: a pty behind a symbolic link in /dev. Part of each chip on a
/// UART.
///
/// The line keeps to its speed, ten bits for each byte, in both directions. The host's speed is the one that
/// is set on the device; where it differs from the chip's, bytes arrive garbled. Bytes for a device that
/// nobody has open are lost. A USB device has no speed: its bytes take no time and arrive as they are.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/WakeUp.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread. The chip's functions run on the line's thread with no lock held, from before the
/// constructor returns until the destructor has joined it; so a chip declares its line last.
class Line {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;
  using Received = std::function<void(const Bytes&)>;
  using Timer = std::function<void()>;

  static constexpr unsigned kUsb = 0;  ///< in place of a speed

  /// Plugs in at `device`; the chip works at `speed` bits per second, or is a USB device.
  Line(std::string device, unsigned speed, Received received, Timer timer = {});
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  /// Removes the device and hangs up whoever has it open; puts a fresh one in its place.
  void Unplug();
  void Plug();
  bool Plugged() const;
  /// Waits until somebody has the device open, or nobody. False when time is up.
  bool WaitForPort(bool open, Milliseconds timeout) const;
  /// Without pacing bytes take no time; speeds that differ garble all the same.
  void SetPaced(bool paced);
  /// Bytes that came from the host since the line was made.
  std::uint64_t ReceivedCount() const;

  /// The speed that is set on the device, in bits per second; 0 for one that no chip has, or unplugged.
  unsigned HostSpeed() const;

  /// For the chip: its own speed, from the next byte on in both directions (none on USB).
  void SetSpeed(unsigned bitsPerSecond);
  /// For the chip: notes a phase of its own and unplugs the line if the phase is to. No value: no answer.
  std::optional<Conduct::Faults> Reach(Conduct& conduct, Phase phase);
  /// For the chip: sends after what is still being sent, with the faults of `faults` that strike bytes.
  void Send(Bytes answer, const Conduct::Faults& faults = {});
  /// For the chip: the timer function is called once at `when`, never without a value.
  void SetTimer(std::optional<Clock::time_point> when);

 private:
  struct TimedByte {
    std::uint8_t byte;
    unsigned speed;        ///< of the sender
    Clock::time_point at;  ///< when its last bit has gone over the line
  };
  using Queue = std::deque<TimedByte>;

  void _Run();
  bool _Wait() REQUIRES(m_mutex);
  void _ReadPort() REQUIRES(m_mutex);
  void _WritePort(Clock::time_point now) REQUIRES(m_mutex);
  Bytes _TakeDue(Queue& queue, Clock::time_point now, unsigned receiverSpeed) const REQUIRES(m_mutex);
  void _Enqueue(Queue& queue, const Bytes& bytes, unsigned speed, Clock::duration gap = {},
                Clock::duration delay = {}) const REQUIRES(m_mutex);
  void _SetOpen(bool open) REQUIRES(m_mutex);
  unsigned _HostSpeed() const REQUIRES(m_mutex);

  const std::string m_device;
  const bool m_usb;
  const Received m_received;
  const Timer m_timerRings;
  WakeUp m_wake;

  mutable CMutex m_mutex;
  mutable CCondition m_portChanged;
  bool m_stop GUARDED_BY(m_mutex) = false;
  bool m_paced GUARDED_BY(m_mutex) = true;
  bool m_open GUARDED_BY(m_mutex) = false;  ///< somebody has the device open
  int m_master GUARDED_BY(m_mutex) = -1;    ///< -1: unplugged
  int m_watch GUARDED_BY(m_mutex) = -1;     ///< inotify: the device was opened
  unsigned m_speed GUARDED_BY(m_mutex);
  Queue m_incoming GUARDED_BY(m_mutex);
  Queue m_outgoing GUARDED_BY(m_mutex);
  std::uint64_t m_count GUARDED_BY(m_mutex) = 0;
  std::optional<Clock::time_point> m_timer GUARDED_BY(m_mutex);
  std::thread m_thread;
};

}  // namespace station

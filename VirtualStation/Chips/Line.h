/// A serial line from the daemon to a chip: a pty behind a symbolic link in /dev. Part of each chip on a
/// UART.
///
/// The line keeps to its speed, ten bits for each byte, in both directions. The host's speed is the one that
/// is set on the device; where it differs from the chip's, bytes arrive garbled. Bytes for a device that
/// nobody has open are lost. A USB device has no speed: its bytes take no time and arrive as they are.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"

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
  bool _Wait(std::unique_lock<std::mutex>& lock);
  void _ReadPort();
  void _WritePort(Clock::time_point now);
  Bytes _TakeDue(Queue& queue, Clock::time_point now, unsigned receiverSpeed) const;
  void _Enqueue(Queue& queue, const Bytes& bytes, unsigned speed, Clock::duration gap = {},
                Clock::duration delay = {}) const;
  void _SetOpen(bool open);
  unsigned _HostSpeed() const;
  void _Wake() const;

  const std::string m_device;
  const bool m_usb;
  const Received m_received;
  const Timer m_timerRings;

  mutable std::mutex m_mutex;  ///< guards all below but the thread
  mutable std::condition_variable m_portChanged;
  bool m_stop = false;
  bool m_paced = true;
  bool m_open = false;  ///< somebody has the device open
  int m_master = -1;    ///< -1: unplugged
  int m_watch = -1;     ///< inotify: the device was opened
  int m_wake = -1;      ///< eventfd
  unsigned m_speed;
  Queue m_incoming, m_outgoing;
  std::uint64_t m_count = 0;
  std::optional<Clock::time_point> m_timer;
  std::thread m_thread;
};

}  // namespace station

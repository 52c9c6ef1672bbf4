/// A belt pack of the 7204 family on USB: a serial device that tells its versions, and a storage of its own.
/// New firmware that was put on the storage makes it restart: it leaves the bus and comes back. Made by tests
/// and scenarios.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "VirtualStation/Disk.h"
#include "VirtualStation/Pps/PpFrames.h"
#include "VirtualStation/WakeUp.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// Where it appears.
struct PpNodes {
  std::string serial = "/dev/ttyACM0", storage = "/dev/sdb";
};

/// All members: any thread.
class Pp7204 {
 public:
  /// Plugs in, with these faults armed. The fault Refuse in phase PpFile lets it come back as it was.
  explicit Pp7204(PpVersions versions = {}, const std::vector<Fault>& faults = {}, PpNodes nodes = {});
  ~Pp7204();
  Pp7204(const Pp7204&) = delete;
  Pp7204& operator=(const Pp7204&) = delete;

  Conduct& conduct() { return m_conduct; }
  Line& line() { return m_line; }

  void Plug();
  /// At once: what is under way on the storage fails.
  void Unplug();
  void ReportReady();

  PpVersions Versions() const;
  /// The firmware file that it restarted with last; empty without one.
  std::string Firmware() const;
  /// Waits until it has come back from `count` restarts. False when time is up.
  bool WaitForRestart(std::chrono::milliseconds timeout, int count = 1) const;

 private:
  void _Receive(const Bytes& bytes);
  void _Watch();
  void _Appear() REQUIRES(m_mutex);
  void _Vanish() REQUIRES(m_mutex);
  void _LookForFirmware() REQUIRES(m_mutex);
  /// Gives the mutex up while the part is away.
  void _Restart(const std::string& name, const std::string& content, bool takesIt) REQUIRES(m_mutex);

  const PpNodes m_nodes;
  Conduct m_conduct;
  PpVoice m_voice;
  mutable CMutex m_mutex;  ///< also for the voice
  mutable CCondition m_restarted;
  PpVersions m_versions GUARDED_BY(m_mutex);
  Bytes m_input GUARDED_BY(m_mutex);
  bool m_inSocket GUARDED_BY(m_mutex) = true;
  std::unique_ptr<Disk> m_disk GUARDED_BY(m_mutex);  ///< none while it is off the bus
  std::string m_firmware GUARDED_BY(m_mutex);
  int m_restarts GUARDED_BY(m_mutex) = 0;
  WakeUp m_stop;
  Line m_line;
  std::thread m_watch;  ///< last: it uses the rest
};

}  // namespace station

/// The FPGA's flash behind the driver's device: every write to "/dev/upgrade_fpga" is a piece of the image.
/// Owned by Chips; tests and scenarios make it misbehave and read what it holds.
#pragma once

#include <thread>
#include <vector>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/WakeUp.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread. Of the faults it knows Silent and StopAfter (writes block for ever), Refuse
/// (writes after this piece fail) and Unplug (the same, and the device is gone).
class FpgaFlash {
 public:
  FpgaFlash();
  ~FpgaFlash();
  FpgaFlash(const FpgaFlash&) = delete;
  FpgaFlash& operator=(const FpgaFlash&) = delete;

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }

  /// What was written since the device was last opened, and in which pieces. A write of more than 4096 bytes
  /// counts as several.
  Bytes Memory() const;
  std::vector<std::size_t> Pieces() const;

  /// Removes the device, and makes a fresh one.
  void Unplug();
  void Plug();
  void PowerCycle() { Plug(); }

 private:
  void _Serve();
  void _TakePiece(const Bytes& piece) REQUIRES(m_mutex);
  void _Close(bool unplug) REQUIRES(m_mutex);

  Conduct m_conduct;
  mutable CMutex m_mutex;
  Bytes m_memory GUARDED_BY(m_mutex);
  std::vector<std::size_t> m_pieces GUARDED_BY(m_mutex);
  bool m_ended GUARDED_BY(m_mutex) = true;
  bool m_stop GUARDED_BY(m_mutex) = false;
  bool m_stuck GUARDED_BY(m_mutex) = false;
  int m_fifo GUARDED_BY(m_mutex) = -1;
  WakeUp m_wake;
  std::thread m_thread;
};

}  // namespace station

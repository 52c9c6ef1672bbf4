/// A radio module of the base station: control pins and a UART around an RtxCore. Owned by Chips, which hands
/// it the pins; tests and scenarios make it misbehave and read what it holds.
#pragma once

#include <map>
#include <string>

#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/Line.h"
#include "VirtualStation/Chips/Pins.h"
#include "VirtualStation/Chips/RtxCore.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread.
class RtxModule {
 public:
  /// Where a module is connected: its device, control pins and GPIO lines.
  struct Wiring {
    std::string device;
    int boot, reset, pon, power, radioSwitch;
  };

  explicit RtxModule(const Wiring& wiring);

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }
  Line& line() { return m_line; }
  const RtxCore& core() const { return m_core; }

  /// A pin has been set; pins of others are ignored.
  void OnPin(const PinChange& change);
  /// Only the flash remains.
  void PowerCycle();

 private:
  bool _IsHigh(int pin) const REQUIRES(m_mutex);

  const Wiring m_wiring;
  Conduct m_conduct;
  RtxCore m_core;
  mutable CMutex m_mutex;
  std::map<int, int> m_levels GUARDED_BY(m_mutex);  ///< by pin
  Line m_line;                                      ///< last: it calls into the rest
};

}  // namespace station

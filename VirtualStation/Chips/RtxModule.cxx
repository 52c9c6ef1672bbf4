/// What the pins do to a module: PON, power and switch lines high, BOOT high, RESET high and low again: the
/// boot loader starts.
#include "VirtualStation/Chips/RtxModule.h"

namespace station {

RtxModule::RtxModule(const Wiring& wiring)
    : m_wiring(wiring),
      m_core(m_conduct, m_line),
      m_line(wiring.device, RtxCore::kRomSpeed, [this](const Bytes& bytes) { m_core.Receive(bytes); }) {}

void RtxModule::PowerCycle() {
  const CLock lock(m_mutex);
  m_levels.clear();
  m_core.PowerCycle();
}

/// RESET holds the module while it is high; when it falls, BOOT decides what starts.
void RtxModule::OnPin(const PinChange& change) {
  const CLock lock(m_mutex);
  const bool wasReset = _IsHigh(m_wiring.reset);
  m_levels[change.pin] = change.level;
  if (change.pin != m_wiring.reset || wasReset == (change.level != 0)) {
    return;
  }
  m_core.Hold();
  const bool powered = _IsHigh(m_wiring.pon) && _IsHigh(m_wiring.power) && _IsHigh(m_wiring.radioSwitch);
  if (change.level == 0 && powered && _IsHigh(m_wiring.boot)) {
    m_core.Boot();
  }
}

bool RtxModule::_IsHigh(int pin) const {
  const auto level = m_levels.find(pin);
  return level != m_levels.end() && level->second != 0;
}

}  // namespace station

/// An older belt pack on USB, which knows legacy frames alone and tells no more than its versions. Made by
/// tests and scenarios.
#pragma once

#include <string>
#include <vector>

#include "VirtualStation/Chips/Line.h"
#include "VirtualStation/Pps/PpFrames.h"

namespace station {

/// What it says of itself.
struct PpLegacyIdentity {
  std::string model = "7303", software = "S1.0.0.02", hardware = "H100", radio = "V1.0.0.01";
};

/// All members: any thread.
class PpLegacy {
 public:
  /// Plugs in at `device`, with these faults armed. The fault Refuse says that its radio is off.
  explicit PpLegacy(const std::string& device = "/dev/ttyUSB2", PpLegacyIdentity identity = {},
                    const std::vector<Fault>& faults = {});

  Conduct& conduct() { return m_conduct; }
  Line& line() { return m_line; }
  void Plug() { m_line.Plug(); }
  void Unplug() { m_line.Unplug(); }

 private:
  void _Receive(const Bytes& bytes);
  void _AnswerVersion();

  const PpLegacyIdentity m_identity;
  Conduct m_conduct;
  Bytes m_input;  ///< of the line's thread alone
  Line m_line;    ///< last: it calls into the rest
};

}  // namespace station

/// What the newer portable parts have in common on their serial side: requests, answers with faults, and the
/// version reply. Used by Pp7308 and Pp7204.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "VirtualStation/Chips/SerialFrame.h"

namespace station {

/// What a part says of itself.
struct PpVersions {
  using Software = std::array<std::uint8_t, 4>;
  Software software = {1, 0, 2, 4};
  std::string hardware = "H100";
  std::string radio = "V1.0.0.01";
};
/// "S1.0.2.04".
std::string Text(const PpVersions::Software& version);

/// Project and device number in a part's frames: its model number.
struct PpFamily {
  std::uint8_t project, device;
};

enum PpCommand : unsigned {
  kPpVersion = 0x101,
  kPpStart = 0x102,
  kPpFirmwareInfo = 0x103,
  kPpPacket = 0x104,
  kPpDone = 0x105,
  kPpReady = 0x106,
  kPpRadio = 0x1A0,
  kPpRadioResult = 0x1A2,
};

/// Takes the next request of a base station off the input; nothing: more must come first.
std::optional<SerialFrame> TakeRequest(Bytes& input);

/// A part's mouth. Not synchronised: the part's lock guards it.
class PpVoice {
 public:
  PpVoice(PpFamily family, Conduct& conduct, Line& line)
      : m_family(family), m_conduct(conduct), m_line(line) {}

  void AnswerVersion(const SerialFrame& request, const PpVersions& versions);
  /// Answers yes or no. True: the part said yes (whether it was heard or not).
  bool Answer(Phase phase, const SerialFrame& request, bool yes);
  /// Reports unasked that the part is ready.
  void ReportReady();

 private:
  SerialFrame _Frame(std::uint8_t type, unsigned command, std::uint8_t number, Bytes data) const;

  const PpFamily m_family;
  Conduct& m_conduct;
  Line& m_line;
};

}  // namespace station

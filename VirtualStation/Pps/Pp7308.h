/// A belt pack of the 7308 family on USB: takes an application over its serial line, then passes bytes
/// through to its radio module. Made by tests and scenarios, which plug it in, make it misbehave and read
/// what it holds. The exchange is told in the source file.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "VirtualStation/Chips/RtxCore.h"
#include "VirtualStation/Pps/PpFrames.h"

namespace station {

/// All members: any thread.
class Pp7308 {
 public:
  /// Plugs in at `device`, with these faults armed.
  explicit Pp7308(const std::string& device = "/dev/ttyUSB1", PpVersions versions = {},
                  const std::vector<Fault>& faults = {});

  Conduct& conduct() { return m_conduct; }
  Line& line() { return m_line; }
  const RtxCore& radio() const { return m_radio; }

  void Plug();
  void Unplug() { m_line.Unplug(); }
  void ReportReady();

  PpVersions Versions() const;
  /// The image that it runs since an upgrade, and the name it came under.
  Bytes Application() const;
  std::string FileName() const;
  /// The frame that told it how its radio's upgrade went; empty without one.
  Bytes RadioResult() const;

 private:
  enum class Mode { Normal, Upgrading, RadioWaits, Radio };

  void _Receive(const Bytes& bytes);
  void _BootRadio();
  bool _PassThrough(const Bytes& bytes);
  void _Dispatch(const SerialFrame& request);
  bool _TakeFirmwareInfo(const Bytes& data);
  bool _TakePacket(const Bytes& data);
  void _TakeRadioResult(const SerialFrame& request);

  Conduct m_conduct;
  RtxCore m_radio;
  PpVoice m_voice;
  mutable std::mutex m_mutex;  ///< guards the state below and the voice
  PpVersions m_versions;
  Mode m_mode = Mode::Normal;
  Bytes m_input;
  PpVersions::Software m_newVersion = {};
  std::size_t m_imageSize = 0;
  Bytes m_image;
  std::uint8_t m_nextPacket = 1;
  Bytes m_application, m_radioResult;
  std::string m_fileName;
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station

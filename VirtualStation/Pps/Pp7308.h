/// A belt pack of the 7308 family on USB: takes an application over its serial line, then passes bytes
/// through to its radio module. Made by tests and scenarios, which plug it in, make it misbehave and read
/// what it holds. The exchange is told in the source file.
#pragma once

#include <string>
#include <vector>

#include "VirtualStation/Chips/RtxCore.h"
#include "VirtualStation/Pps/PpFrames.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

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
  bool _PassThrough(const Bytes& bytes) REQUIRES(m_mutex);
  void _Dispatch(const SerialFrame& request) REQUIRES(m_mutex);
  bool _TakeFirmwareInfo(const Bytes& data) REQUIRES(m_mutex);
  bool _TakePacket(const Bytes& data) REQUIRES(m_mutex);
  void _TakeRadioResult(const SerialFrame& request) REQUIRES(m_mutex);

  Conduct m_conduct;
  RtxCore m_radio;
  PpVoice m_voice;
  mutable CMutex m_mutex;  ///< also for the voice
  PpVersions m_versions GUARDED_BY(m_mutex);
  Mode m_mode GUARDED_BY(m_mutex) = Mode::Normal;
  Bytes m_input GUARDED_BY(m_mutex);
  PpVersions::Software m_newVersion GUARDED_BY(m_mutex) = {};
  std::size_t m_imageSize GUARDED_BY(m_mutex) = 0;
  Bytes m_image GUARDED_BY(m_mutex);
  std::uint8_t m_nextPacket GUARDED_BY(m_mutex) = 1;
  Bytes m_application GUARDED_BY(m_mutex);
  Bytes m_radioResult GUARDED_BY(m_mutex);
  std::string m_fileName GUARDED_BY(m_mutex);
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station

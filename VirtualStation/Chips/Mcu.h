/// The base station's microcontroller: an application that only tells its version and goes into the boot
/// loader, and the boot loader that takes a new application. Owned by Chips; tests and scenarios make it
/// misbehave and read what it holds. The frames are told in the source file.
#pragma once

#include <array>
#include <string>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/FlashModel.h"
#include "VirtualStation/Chips/Line.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread.
class Mcu {
 public:
  using Version = std::array<std::uint8_t, 4>;

  Mcu();

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }
  Line& line() { return m_line; }

  /// The first `size` bytes of its flash, where the application lies.
  Bytes Memory(std::size_t size) const;
  bool InBootLoader() const;
  Version ApplicationVersion() const;
  /// Another application, as if it had been delivered with it.
  void SetApplicationVersion(const Version& version);
  /// Name of the image file, as the description that came last told it.
  std::string ImageName() const;

  /// It has a supply of its own: only what it had half heard is gone. In its boot loader it stays there.
  void PowerCycle();

 private:
  void _Receive(const Bytes& bytes);
  void _Dispatch(unsigned command, const Bytes& data) REQUIRES(m_mutex);
  std::uint8_t _TakeDescription(const Bytes& data) REQUIRES(m_mutex);
  std::uint8_t _TakePackage(const Bytes& data) REQUIRES(m_mutex);
  void _Answer(Phase phase, unsigned command, Bytes data) REQUIRES(m_mutex);
  void _Switch(bool bootLoader) REQUIRES(m_mutex);

  Conduct m_conduct;
  mutable CMutex m_mutex;
  FlashModel m_flash GUARDED_BY(m_mutex);
  Version m_version GUARDED_BY(m_mutex) = {1, 0, 6, 50};
  Version m_newVersion GUARDED_BY(m_mutex) = {};
  std::string m_imageName GUARDED_BY(m_mutex);
  bool m_bootLoader GUARDED_BY(m_mutex) = false;
  std::size_t m_imageSize GUARDED_BY(m_mutex) = 0;
  std::size_t m_written GUARDED_BY(m_mutex) = 0;
  std::uint8_t m_nextPackage GUARDED_BY(m_mutex) = 1;
  std::uint8_t m_number GUARDED_BY(m_mutex) = 0;  ///< sequence number of the request under way
  Line::Clock::time_point m_deafUntil GUARDED_BY(m_mutex);
  Bytes m_input GUARDED_BY(m_mutex);
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station

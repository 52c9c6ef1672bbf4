/// What an RTX radio module is behind its pins: ROM boot loader, pre-loader and flash loader over a NOR
/// flash. Part of RtxModule, which wires it to the base station, and of Pp7308, which passes bytes through to
/// it. The protocol is told in the source file.
#pragma once

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/FlashModel.h"
#include "VirtualStation/Chips/Line.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread.
class RtxCore {
 public:
  static constexpr unsigned kRomSpeed = 19200;  ///< of the ROM boot loader, in bits per second

  /// Answers on `line` as `conduct` tells; both are the owner's and are not used before Boot.
  RtxCore(Conduct& conduct, Line& line);

  Bytes Memory(std::uint32_t start, std::size_t size) const;
  /// The loaders that it took last, since the power came; empty without one.
  Bytes PreLoader() const;
  Bytes FlashLoader() const;
  /// In bits per second: now, and since the power came.
  unsigned Speed() const;
  unsigned HighestSpeed() const;

  /// Starts the ROM boot loader.
  void Boot();
  /// Held in reset, or running its firmware: it hears nothing.
  void Hold();
  /// Only the flash remains.
  void PowerCycle();
  /// Bytes from the host.
  void Receive(const Bytes& bytes);

 private:
  enum class Program { None, Rom, PreLoader, FlashLoader };
  enum class Step { Header, Image, Echo, Start, Speed, SpeedReady, Packet };

  bool _TakeStep() REQUIRES(m_mutex);
  bool _TakeHeader() REQUIRES(m_mutex);
  bool _TakeImage() REQUIRES(m_mutex);
  bool _TakeEcho() REQUIRES(m_mutex);
  bool _TakeSpeed() REQUIRES(m_mutex);
  bool _TakePacket() REQUIRES(m_mutex);
  bool _TakeByte(std::uint8_t wanted, Phase phase, std::uint8_t answer, Step next) REQUIRES(m_mutex);
  void _Dispatch(const Bytes& payload) REQUIRES(m_mutex);
  void _AnswerByte(Phase phase, std::uint8_t answer) REQUIRES(m_mutex);
  void _AnswerPacket(Phase phase, std::uint8_t primitive, Bytes data, bool hasStatus) REQUIRES(m_mutex);
  void _Enter(Program program, Step step) REQUIRES(m_mutex);
  void _SetSpeed(unsigned bitsPerSecond) REQUIRES(m_mutex);

  Conduct& m_conduct;
  Line& m_line;
  mutable CMutex m_mutex;
  FlashModel m_flash GUARDED_BY(m_mutex);
  Program m_program GUARDED_BY(m_mutex) = Program::None;
  Step m_step GUARDED_BY(m_mutex) = Step::Header;
  Bytes m_input GUARDED_BY(m_mutex);
  std::size_t m_imageSize GUARDED_BY(m_mutex) = 0;
  std::uint8_t m_check GUARDED_BY(m_mutex) = 0;  ///< of the image that came last
  bool m_configured GUARDED_BY(m_mutex) = false;
  Bytes m_preLoader GUARDED_BY(m_mutex);
  Bytes m_flashLoader GUARDED_BY(m_mutex);
  unsigned m_speed GUARDED_BY(m_mutex) = 0;
  unsigned m_highestSpeed GUARDED_BY(m_mutex) = 0;
};

}  // namespace station

/// What an RTX radio module is behind its pins: ROM boot loader, pre-loader and flash loader over a NOR
/// flash. Part of RtxModule, which wires it to the base station, and of Pp7308, which passes bytes through to
/// it. The protocol is told in the source file.
#pragma once

#include <mutex>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/FlashModel.h"
#include "VirtualStation/Chips/Line.h"

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

  bool _TakeStep();
  bool _TakeHeader();
  bool _TakeImage();
  bool _TakeEcho();
  bool _TakeSpeed();
  bool _TakePacket();
  bool _TakeByte(std::uint8_t wanted, Phase phase, std::uint8_t answer, Step next);
  void _Dispatch(const Bytes& payload);
  void _AnswerByte(Phase phase, std::uint8_t answer);
  void _AnswerPacket(Phase phase, std::uint8_t primitive, Bytes data, bool hasStatus);
  void _Enter(Program program, Step step);
  void _SetSpeed(unsigned bitsPerSecond);

  Conduct& m_conduct;
  Line& m_line;
  mutable std::mutex m_mutex;  ///< guards the state below
  FlashModel m_flash;
  Program m_program = Program::None;
  Step m_step = Step::Header;
  Bytes m_input;
  std::size_t m_imageSize = 0;
  std::uint8_t m_check = 0;  ///< of the image that came last
  bool m_configured = false;
  Bytes m_preLoader, m_flashLoader;
  unsigned m_speed = 0, m_highestSpeed = 0;
};

}  // namespace station

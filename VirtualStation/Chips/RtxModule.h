/// An RTX radio module: ROM boot loader, pre-loader and flash loader over a NOR flash. Owned by Chips, which
/// hands it the pins; tests and scenarios make it misbehave and read what it holds. The protocol is told in
/// the source file.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/FlashModel.h"
#include "VirtualStation/Chips/Line.h"
#include "VirtualStation/Chips/Pins.h"

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

  Bytes Memory(std::uint32_t start, std::size_t size) const;
  /// The loaders that it took last, since the power came; empty without one.
  Bytes PreLoader() const;
  Bytes FlashLoader() const;
  /// In bits per second, since the power came.
  unsigned HighestSpeed() const;

  /// A pin has been set; pins of others are ignored.
  void OnPin(const PinChange& change);
  /// Only the flash remains.
  void PowerCycle();

 private:
  enum class Program { None, Rom, PreLoader, FlashLoader };
  enum class Step { Header, Image, Echo, Start, Speed, SpeedReady, Packet };

  void _Receive(const Bytes& bytes);
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
  bool _IsHigh(int pin) const;
  void _SetSpeed(unsigned bitsPerSecond);

  const Wiring m_wiring;
  Conduct m_conduct;
  mutable std::mutex m_mutex;  ///< guards the state below
  FlashModel m_flash;
  std::map<int, int> m_levels;
  Program m_program = Program::None;
  Step m_step = Step::Header;
  Bytes m_input;
  std::size_t m_imageSize = 0;
  std::uint8_t m_check = 0;  ///< of the image that came last
  bool m_configured = false;
  Bytes m_preLoader, m_flashLoader;
  unsigned m_highestSpeed = 0;
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station

/// The chips of the base station that the daemon upgrades. Owned by Station; made before the daemon starts.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "UpgradeFrame/UpgradeTypes.h"
#include "VirtualStation/Chips/ChipImages.h"
#include "VirtualStation/Chips/FpgaFlash.h"
#include "VirtualStation/Chips/Mcu.h"
#include "VirtualStation/Chips/Pins.h"
#include "VirtualStation/Chips/RtxModule.h"
#include "VirtualStation/Chips/UacLoader.h"

namespace station {

struct Package;

/// One thread; what the members give out says more.
class Chips {
 public:
  Chips();

  /// Module 1 or 2.
  RtxModule& rtx(int number) { return number == 1 ? m_rtx1 : m_rtx2; }
  Mcu& mcu() { return m_mcu; }
  UacLoader& uac() { return m_uac; }
  FpgaFlash& fpga() { return m_fpga; }
  Pins& pins() { return m_pins; }

  /// With pacing off no byte takes time on any line.
  void SetPaced(bool paced);

  /// The base station's power goes and comes back: what flashes hold remains; every unplugged chip is plugged
  /// in again, faults are disarmed and phases forgotten.
  void PowerCycle();

  /// Compares the memory of every chip that `package` is for with its image, byte for byte; empty when all is
  /// equal.
  std::vector<std::string> DifferencesFrom(const Package& package) const;

  /// A chip's phases in words, for a display.
  struct Story {
    std::string chip, phases;
  };
  std::vector<Story> Stories() const;

 private:
  /// A chip as all of them are treated here.
  struct Item {
    const char* name;
    UPGRADETYPE part;
    const Conduct* conduct;
    Line* line;                     ///< null: it is on none
    std::function<void()> restart;  ///< nothing that was under way outlives it
    std::function<Bytes(const FlashBlock& wanted)> memory;
  };

  RtxModule m_rtx1, m_rtx2;
  Mcu m_mcu;
  UacLoader m_uac;
  FpgaFlash m_fpga;
  const std::vector<Item> m_all;
  Pins m_pins;  ///< last: it calls into the modules
};

}  // namespace station

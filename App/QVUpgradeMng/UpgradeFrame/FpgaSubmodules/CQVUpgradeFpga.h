/// Upgrades the FPGA: loads the flash driver and copies the image to its device. The frame starts it behind
/// the USB audio chip, again with every report of that, or in its place.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeFpga final : public OneShotUpgrader {
 public:
  CQVUpgradeFpga();

  bool StartUpgrade() override;

 private:
  static const Kind m_kindFpga;
  static const Table m_MapStateMachineFunc;
};

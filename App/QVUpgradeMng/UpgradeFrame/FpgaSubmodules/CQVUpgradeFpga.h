/// Upgrades the FPGA: loads the flash driver and copies the image to its device. The frame starts it behind
/// the USB audio chip, again with every report of that, or in its place.
#pragma once

#include <string>

#include "UpgradeFrame/SocUpgraderBase.h"

class CQVUpgradeFpga : public SocUpgraderBase {
 public:
  CQVUpgradeFpga();
  ~CQVUpgradeFpga() override;

  bool StartUpgrade() override;

 private:
  bool _CheckUpgrade(const QVUpgradingInfo& info) override;
  void _OnEnd(bool succeeded) override;
  bool _UpgardeFpga(const std::string& path);

  static const Kind m_kindFpga;
  static const Table m_MapStateMachineFunc;
};

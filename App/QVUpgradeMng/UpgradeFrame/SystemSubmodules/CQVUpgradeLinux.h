/// Upgrades the system files, kernel and boot files: unpacks them in the page and copies them to the boot
/// partition that is not running.
#pragma once

#include "UpgradeFrame/SocUpgraderBase.h"

class CQVUpgradeLinux : public SocUpgraderBase {
 public:
  CQVUpgradeLinux();
  ~CQVUpgradeLinux() override;

 private:
  bool _CheckUpgrade(const QVUpgradingInfo& info) override;

  static const Kind m_kindLinux;
  static const Table m_MapStateMachineFunc;
};

/// Upgrades the application file system: replaces the application in the partition that is not running.
#pragma once

#include "UpgradeFrame/SocUpgraderBase.h"

class CQVUpgradeAppFs : public SocUpgraderBase {
 public:
  CQVUpgradeAppFs();
  ~CQVUpgradeAppFs() override;

 private:
  bool _CheckUpgrade(const QVUpgradingInfo& info) override;

  static const Kind m_kindAppFs;
  static const Table m_MapStateMachineFunc;
};

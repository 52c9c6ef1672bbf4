/// Upgrades the application file system: replaces the application in the partition that is not running.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeAppFs final : public OneShotUpgrader {
 public:
  CQVUpgradeAppFs();

 private:
  static const Kind m_kindAppFs;
  static const Table m_MapStateMachineFunc;
};

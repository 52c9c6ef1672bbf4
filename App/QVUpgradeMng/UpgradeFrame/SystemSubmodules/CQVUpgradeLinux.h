/// Upgrades the system files, kernel and boot files: unpacks them in the page and copies them to the boot
/// partition that is not running.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeLinux final : public OneShotUpgrader {
 public:
  CQVUpgradeLinux();

 private:
  static const Kind m_kindLinux;
  static const Table m_MapStateMachineFunc;
};

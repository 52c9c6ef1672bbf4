/// Upgrades the signal processor: hands its image to the boot loader behind its serial line. The frame makes
/// one for each package that brings such an image.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeDsp final : public OneShotUpgrader {
 public:
  CQVUpgradeDsp();

 private:
  static const Kind m_kindDsp;
  static const Table m_MapStateMachineFunc;
};

/// Upgrades the root file system: makes a new file system on the partition that is not running and unpacks
/// the archive into it. On success the partition stays mounted; on failure, or after a stop, our mount is
/// undone.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeRootfs final : public OneShotUpgrader {
 public:
  CQVUpgradeRootfs();

 private:
  static const Kind m_kindRootfs;
  static const Table m_MapStateMachineFunc;
};

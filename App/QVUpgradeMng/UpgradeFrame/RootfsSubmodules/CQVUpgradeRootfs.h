/// Upgrades the root file system: makes a new file system on the partition that is not running and unpacks
/// the archive into it. On success the partition stays mounted; on failure, or after a stop, our mount is
/// undone.
#pragma once

#include "UpgradeFrame/SocUpgraderBase.h"

class CQVUpgradeRootfs : public SocUpgraderBase {
 public:
  CQVUpgradeRootfs();
  ~CQVUpgradeRootfs() override;

 private:
  struct Target;

  bool _CheckUpgrade(const QVUpgradingInfo& info) override;
  static bool _MakeFileSystem(const Target& target);
  static bool _Unpack(const QVUpgradingInfo& info, const Target& target);
  static bool _CheckUsedSize(const std::string& archive, const Target& target);

  static const Kind m_kindRootfs;
  static const Table m_MapStateMachineFunc;
};

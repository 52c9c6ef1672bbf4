/// What the frame needs of the package-access side: the access frame implements it and hands itself over in
/// its Init, so that the frame depends on nothing above it.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "UpgradeFrame/UpgradeTypes.h"

/// Page type name to (sub-directory of the page root, type).
using UpgradeTypeNames = std::map<std::string, std::pair<std::string, UPGRADETYPE>>;

/// Any thread may call any member.
class IUpgradeAccess {
 public:
  virtual UpgradeTypeNames getUpgradeTypeName() = 0;
  virtual AllVersion getAllVersion() = 0;
  /// Applies `change` to the record and writes the running partition's version file. `change` must not call
  /// back.
  virtual void SetVersion(const std::function<void(AllVersion&)>& change) = 0;
  /// Sends the version report to the panel.
  virtual bool SendVersionUI() = 0;
  /// The start flag: while set, no package is unpacked.
  virtual void setmStartUpgrade(bool started) = 0;

 protected:
  ~IUpgradeAccess() = default;
};

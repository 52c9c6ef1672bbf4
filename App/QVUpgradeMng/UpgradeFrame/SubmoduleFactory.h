/// Creates the upgrader of a part. Used by the frame alone; a new kind of part is added here.
#pragma once

#include <memory>

#include "UpgradeFrame/IQVUpgrade.h"

class SubmoduleFactory {
 public:
  /// A new upgrader, or an empty pointer for a type that has none.
  static std::shared_ptr<IQVUpgrade> Create(UPGRADETYPE type);
};

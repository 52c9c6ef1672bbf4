/// Which class upgrades which part: the one file that names them all. The frame has its upgraders made here;
/// a new part of the station gets its case.
#pragma once

#include <memory>

#include "UpgradeFrame/IQVUpgrade.h"

class SubmoduleFactory {
 public:
  /// A new upgrader; an empty pointer for the radio modules, which have a creator of their own, and for what
  /// is no part of the station.
  static std::shared_ptr<IQVUpgrade> Create(UPGRADETYPE type);
  /// A new upgrader of both radio modules, which the frame holds apart from the others.
  static std::shared_ptr<IQVUpgrade> CreateRtx();
};

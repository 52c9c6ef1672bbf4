/// What tells one user of the radio exchange from another: the base station's upgrader and the portable
/// part's. RtxExchange calls all of it on its state thread with no lock held.
#pragma once

#include <cstddef>

#include "UpgradeFrame/RtxSubmodules/RtxFiles.h"
#include "UpgradePackage/Reasons.h"

class IRtxHost {
 public:
  /// Puts the three files of a run in place and names them.
  virtual Failure PrepareFiles(RtxFiles& files) = 0;
  /// Gets module 1 or 2 to start its boot loader. The line is open; the module's answer decides.
  virtual void EnterBoot(int module) = 0;
  /// A program request of the module was confirmed: `done` of its `total`.
  virtual void ChunkProgrammed(int module, size_t done, size_t total) = 0;
  /// The module is done; its line is closed. After module 1 the device of module 2, which takes the same
  /// firmware; null when there is none.
  virtual const char* ModuleSucceeded(int module) = 0;
  /// The run is over, with `module`; a new one is accepted a moment after this has returned. Called once for
  /// each run that no stop ended.
  virtual void RunEnded(int module, const Failure& failure) = 0;

 protected:
  ~IRtxHost() = default;
};

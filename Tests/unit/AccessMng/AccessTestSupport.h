/// What the tests of package access share. They run on the machine that builds: nothing here may reach a step
/// that runs a command of the device.
#pragma once

#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

/// A fresh state of the process's one access frame, before and after each test.
class AccessState {
 public:
  AccessState() { Reset(); }
  ~AccessState() { Reset(); }
  AccessState(const AccessState&) = delete;
  AccessState& operator=(const AccessState&) = delete;

  QVUpgradeAccessFrame* operator->() const { return QVUpgradeAccessFrame::getAccessFrame(); }

  /// True when no source holds the claim; leaves it free.
  static bool IsFree() {
    QVUpgradeAccessFrame* access = QVUpgradeAccessFrame::getAccessFrame();
    const bool isFree = access->TryClaim();
    if (isFree) access->ReleaseClaim();
    return isFree;
  }

 private:
  static void Reset() {
    QVUpgradeAccessFrame* access = QVUpgradeAccessFrame::getAccessFrame();
    access->ReleaseClaim();
    access->setmStartUpgrade(false);
    access->SetBattery(QVUpgradeAccessFrame::kBatteryUnknown);
    access->SwitchBatteryLimited(true);
  }
};

/// What the system controller's reports lead to in the rest of the daemon. Main hands one implementation to
/// SysCtrlIpc before UpgradeIpcMsg::Init; SysCtrlIpc calls it on its receiver thread with no lock held.
#pragma once

#include <string>

#include "UpgradeFrame/UpgradeTypes.h"

class ISysCtrlReports {
 public:
  virtual ~ISysCtrlReports() = default;

  /// Level in percent; negative values are kept as they are.
  virtual void OnBattery(int level) = 0;
  /// True: the cascade clock is in sync.
  virtual void OnClockStatus(bool inSync) = 0;
  /// The version of a chip in the device's record, as it stands there; "" counts as not known.
  virtual std::string StoredVersion(UPGRADETYPE chip) = 0;
  /// Stores the version in the device's record and its file.
  virtual void StoreVersion(UPGRADETYPE chip, const std::string& version) = 0;
  /// Tells the panel of a faulty module.
  virtual void ReportFault(const std::string& faultMsg) = 0;
  /// Sends the version report to the panel.
  virtual void SendVersionReport() = 0;

 protected:
  ISysCtrlReports() = default;
  ISysCtrlReports(const ISysCtrlReports&) = default;
  ISysCtrlReports& operator=(const ISysCtrlReports&) = default;
};

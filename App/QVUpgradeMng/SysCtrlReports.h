/// Where the system controller's reports meet the rest of the daemon: the access frame's battery level and
/// version record, the portable parts' clock, the panel. Main makes the one object, hands it to SysCtrlIpc
/// and never frees it.
#pragma once

#include <string>

#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeIpcMsg/SysCtrlIpc/ISysCtrlReports.h"

/// Without state of its own. SysCtrlIpc's receiver thread calls it.
class SysCtrlReports : public ISysCtrlReports {
 public:
  SysCtrlReports(DeviceVersions& versions, BatteryLevel& battery)
      : m_versions(versions), m_battery(battery) {}

  void OnBattery(int level) override;
  void OnClockStatus(bool inSync) override;
  std::string StoredVersion(Chip chip) override;
  void StoreVersion(Chip chip, const std::string& version) override;
  void ReportFault(const std::string& faultMsg) override;
  void SendVersionReport() override;

 private:
  DeviceVersions& m_versions;
  BatteryLevel& m_battery;
};

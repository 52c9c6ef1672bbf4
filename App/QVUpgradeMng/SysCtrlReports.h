/// Where the system controller's reports meet the rest of the daemon: the battery level and the version
/// record, the portable parts' clock, the panel. Main makes the one object, hands it to SysCtrlIpc and never
/// frees it.
#pragma once

#include <string>

#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeIpcMsg/SysCtrlIpc/ISysCtrlReports.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePackage/Parts.h"
#include "UpgradePp/UpgradePp.h"

/// Without state of its own. SysCtrlIpc's receiver thread calls it. The two RTX modules share one stored
/// version, since one package upgrades both.
class SysCtrlReports : public ISysCtrlReports {
 public:
  SysCtrlReports(DeviceVersions& versions, BatteryLevel& battery)
      : m_versions(versions), m_battery(battery) {}

  void OnBattery(int level) override { m_battery.SetBattery(level); }
  void OnClockStatus(bool inSync) override { UpgradePp::instance()->SetClockStatus(inSync); }
  std::string StoredVersion(UPGRADETYPE chip) override {
    return m_versions.getAllVersion().m_SubmodulesVer.*Parts::Find(chip)->version;
  }
  void StoreVersion(UPGRADETYPE chip, const std::string& version) override {
    m_versions.SetVersion(
        [&](AllVersion& record) { record.m_SubmodulesVer.*Parts::Find(chip)->version = version; });
  }
  void ReportFault(const std::string& faultMsg) override {
    Json::Value payload(Json::objectValue);
    payload["FaultMsg"] = faultMsg;
    UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_MODULE_UPG_EXCEPTION, payload);
  }
  void SendVersionReport() override { m_versions.SendVersionUI(); }

 private:
  DeviceVersions& m_versions;
  BatteryLevel& m_battery;
};

/// The controller's reports, passed on. The two RTX modules share one stored version, since one package
/// upgrades both.
#include "SysCtrlReports.h"

#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/UpgradePp.h"

void SysCtrlReports::OnBattery(int level) {
  m_battery.SetBattery(level);
}

void SysCtrlReports::OnClockStatus(bool inSync) {
  UpgradePp::instance()->SetClockStatus(inSync);
}

std::string SysCtrlReports::StoredVersion(UPGRADETYPE chip) {
  AllVersion record = m_versions.getAllVersion();
  return *VersionRecord::Field(record.m_SubmodulesVer, chip);
}

void SysCtrlReports::StoreVersion(UPGRADETYPE chip, const std::string& version) {
  m_versions.SetVersion(
      [&](AllVersion& record) { *VersionRecord::Field(record.m_SubmodulesVer, chip) = version; });
}

void SysCtrlReports::ReportFault(const std::string& faultMsg) {
  Json::Value payload(Json::objectValue);
  payload["FaultMsg"] = faultMsg;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_MODULE_UPG_EXCEPTION, payload);
}

void SysCtrlReports::SendVersionReport() {
  m_versions.SendVersionUI();
}

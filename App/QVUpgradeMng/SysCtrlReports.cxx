/// The controller's reports, passed on. The two RTX modules share one stored version, since one package
/// upgrades both.
#include "SysCtrlReports.h"

#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/UpgradePp.h"

namespace {

UPGRADETYPE TypeOf(ISysCtrlReports::Chip chip) {
  switch (chip) {
    case ISysCtrlReports::Chip::Fpga:
      return UP_FPGA;
    case ISysCtrlReports::Chip::Rtx:
      return UP_RTX;
    case ISysCtrlReports::Chip::Uac:
      return UP_UAC;
  }
  return UP_NO_TYPE;
}

/// The chip's field of the record.
std::string& VersionField(AllVersion& record, ISysCtrlReports::Chip chip) {
  return *VersionRecord::Field(record.m_SubmodulesVer, TypeOf(chip));
}

}  // namespace

void SysCtrlReports::OnBattery(int level) {
  m_battery.SetBattery(level);
}

void SysCtrlReports::OnClockStatus(bool inSync) {
  UpgradePp::instance()->SetClockStatus(inSync);
}

std::string SysCtrlReports::StoredVersion(Chip chip) {
  AllVersion record = m_versions.getAllVersion();
  return VersionField(record, chip);
}

void SysCtrlReports::StoreVersion(Chip chip, const std::string& version) {
  m_versions.SetVersion([&](AllVersion& record) { VersionField(record, chip) = version; });
}

void SysCtrlReports::ReportFault(const std::string& faultMsg) {
  Json::Value payload(Json::objectValue);
  payload["FaultMsg"] = faultMsg;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_MODULE_UPG_EXCEPTION, payload);
}

void SysCtrlReports::SendVersionReport() {
  m_versions.SendVersionUI();
}

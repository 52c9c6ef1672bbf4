/// Reports to the panel.
#include "UpgradeFrame/AccessMng/PanelReports.h"

#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

void PanelReports::Status(UiUpgradeStatus status, int percent) {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(status, percent, kNoVersion, DataDef::EM_UPG_RRU);
}

void PanelReports::BatteryLow() {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_BATTERY_LOW);
}

void PanelReports::Refusal(Reasons::Panel panel) {
  switch (panel) {
    case Reasons::Panel::Nothing:
      return;
    case Reasons::Panel::Failed:
      return Status(UI_STATUS_FAILED);
    case Reasons::Panel::SameVersion:
      return Status(UI_STATUS_SAME_VERSION);
    case Reasons::Panel::NoTask:
      return Status(UI_STATUS_NO_TASK);
    case Reasons::Panel::BatteryLow:
      return BatteryLow();
  }
}

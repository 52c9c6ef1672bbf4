/// Battery level and limit.
#include "UpgradeFrame/BatteryLevel.h"

#include "BSW/Log/CLog.h"

namespace {

void LogLimit(bool on) {
  if (on) {
    LOGI("Low battery limited ON");
  } else {
    LOGI("Low battery limited OFF");
  }
}

}  // namespace

int BatteryLevel::GetBattery() {
  const CLock lock(m_upgradeTypeNameMutx);
  return m_iBattery;
}

void BatteryLevel::SetBattery(int level) {
  const CLock lock(m_upgradeTypeNameMutx);
  m_iBattery = level;
}

bool BatteryLevel::IsBatteryLow() {
  const CLock lock(m_upgradeTypeNameMutx);
  LogLimit(m_bLimited);
  return m_bLimited && m_iBattery >= 0 && m_iBattery <= EM_CFG_MIN_BATTERY_VAL;
}

void BatteryLevel::SwitchBatteryLimited(bool on) {
  const CLock lock(m_upgradeTypeNameMutx);
  m_bLimited = on;
  LogLimit(on);
}

bool BatteryLevel::IsBatteryLimited() {
  const CLock lock(m_upgradeTypeNameMutx);
  return m_bLimited;
}

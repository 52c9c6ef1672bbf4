/// The battery as the system controller reports it, and the limit that keeps a package from being started on
/// a low one. Made by main; the controller's reports set it, the package sources ask it, service switches the
/// limit.
#pragma once

#include "BSW/Log/CLog.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member.
class BatteryLevel {
 public:
  enum CfgType {
    EM_CFG_MIN_BATTERY_VAL = 5,  ///< percent; the highest level that still counts as low
  };

  /// Level before the first report: not low.
  static constexpr int kUnknown = 255;

  /// Percent; kUnknown when never reported. Negative values are kept and not low.
  int GetBattery() {
    const CLock lock(m_upgradeTypeNameMutx);
    return m_iBattery;
  }
  void SetBattery(int level) {
    const CLock lock(m_upgradeTypeNameMutx);
    m_iBattery = level;
  }

  /// True when the limit is on and the level is 0 to 5. Logs the limit.
  bool IsBatteryLow() {
    const CLock lock(m_upgradeTypeNameMutx);
    LOGI("%s", LimitText(m_bLimited));
    return m_bLimited && m_iBattery >= 0 && m_iBattery <= EM_CFG_MIN_BATTERY_VAL;
  }

  void SwitchBatteryLimited(bool on) {
    const CLock lock(m_upgradeTypeNameMutx);
    m_bLimited = on;
    LOGI("%s", LimitText(on));
  }
  bool IsBatteryLimited() {
    const CLock lock(m_upgradeTypeNameMutx);
    return m_bLimited;
  }

  /// The limit in words, for the log and for service.
  static const char* LimitText(bool on) { return on ? "Low battery limited ON" : "Low battery limited OFF"; }

 private:
  CMutex m_upgradeTypeNameMutx;
  int m_iBattery GUARDED_BY(m_upgradeTypeNameMutx) = kUnknown;
  bool m_bLimited GUARDED_BY(m_upgradeTypeNameMutx) = true;
};

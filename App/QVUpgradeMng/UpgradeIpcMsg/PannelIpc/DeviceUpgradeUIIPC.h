/// Builds and sends the messages to the UI panel, and the same progress to the web server while a package of
/// its own or of the cloud is under way. Owned by UpgradeIpcMsg, through which everybody sends.
#pragma once

#include <json/json.h>

#include <atomic>

namespace DataDef {
/// What a progress report is about.
enum UpgDisplayType {
  EM_UPG_RRU = 1,  ///< the base station itself
  EM_UPG_PP = 2,   ///< a portable part
};
}  // namespace DataDef

/// Values of "UpgradeStatus" in progress reports.
enum UiUpgradeStatus {
  UI_STATUS_FAILED = -1,
  UI_STATUS_FINISHED = 0,
  UI_STATUS_STARTED = 1,
  UI_STATUS_UPGRADING = 2,
  UI_STATUS_SAME_VERSION = 3,
  UI_STATUS_NO_TASK = 4,
  UI_STATUS_DOWNLOADING = 5,
};

/// Any thread may call any member. Each send logs the message and gives the bus handler's result, for
/// the panel.
class DeviceUpgradeUIIPC {
 public:
  /// Codes of event messages, as SendMsg takes them.
  enum CmdCodeType {
    EM_CODE_REP_BATTERY_LOW = 101,
    EM_CODE_REP_MODULE_UPG_EXCEPTION = 300,
  };
  /// The panel's own list of all codes, its events and the cloud requests among them.
  enum DEBUG_UPGRADE_CMD_UI {
    UPGRADE_STATUS = 100,
    UPGRADE_LOW_BATTERY = EM_CODE_REP_BATTERY_LOW,
    UPGRADE_SEND_VERSION = 200,
    UPGRADE_FIRMWARE = EM_CODE_REP_MODULE_UPG_EXCEPTION,
    UPGRADE_OTA_QUERY = 500,
    UPGRADE_OTA_START = 501,
    UPGRADE_UI_GET_VERSION = 502,  ///< only ever received
  };

  bool Init() { return true; }
  /// Progress: `percent` 0 to 100; `version` is sent with 100 % of the base station alone.
  bool SendPrecent(int status, int percent, const Json::Value& version, DataDef::UpgDisplayType type);
  bool SendVersion(const Json::Value& versions) { return _Send(UPGRADE_SEND_VERSION, versions); }
  /// An event; without a payload it carries null.
  bool SendMsg(const CmdCodeType& code, const Json::Value& payload = {}) { return _Send(code, payload); }
  /// What a cloud request led to: to the panel, and always to the web server too.
  bool SendOta(DEBUG_UPGRADE_CMD_UI cmd, const Json::Value& payload) { return _Send(cmd, payload, true); }

  /// While on, every progress report goes to the web server too.
  void SwitchWebReport(bool on) { m_bWebReport = on; }

 private:
  static bool _Send(int cmd, const Json::Value& payload, bool alsoToWebServer = false);
  static Json::Value _MakeDataHeader(int cmd, Json::Value payload);
  static int _MakeSnrNumber() { return 1; }

  std::atomic<bool> m_bWebReport{false};
};

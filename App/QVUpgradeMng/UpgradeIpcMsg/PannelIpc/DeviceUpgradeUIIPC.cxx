/// The messages to the UI panel: payloads, codes and the addresses they go to. The panel and the web server
/// rely on every name here.
#include "UpgradeIpcMsg/PannelIpc/DeviceUpgradeUIIPC.h"

#include <string>
#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/Log/CLog.h"
#include "UpgradeIpcMsg/IpcEnvelope.h"

namespace {

constexpr const char* kReportInterfaceName = "UpgradeReportProperty";

/// Where a report is sent to.
struct SignalAddress {
  const char* path;
  const char* interface;
  const char* member;
};
constexpr SignalAddress kPanel = {"/org/UictrlMng/object", "org.Upgrade_Ui_Signal.interface",
                                  "upgrade_ui_dbus_signal_precent"};
constexpr SignalAddress kWebServer = {"/org/WebService/object", "org.WebSRV_Signal.interface",
                                      "websrv_dbus_signal_report"};

constexpr int kWholePercent = 100;

bool SendTo(const SignalAddress& address, const std::string& text) {
  return CDbusHandler::instance()->SignalSend(address.path, address.interface, address.member, text.c_str());
}

}  // namespace

bool DeviceUpgradeUIIPC::SendPrecent(int status, int percent, const Json::Value& version,
                                     DataDef::UpgDisplayType type) {
  Json::Value payload(Json::objectValue);
  payload["UpgradeType"] = static_cast<int>(type);
  payload["UpgradeStatus"] = status;
  payload["UpgradePrecent"] = percent;
  if (percent == kWholePercent && type == DataDef::EM_UPG_RRU) payload["softVersion"] = version;
  return _Send(UPGRADE_STATUS, payload, m_bWebReport);
}

bool DeviceUpgradeUIIPC::_Send(int cmd, const Json::Value& payload, bool alsoToWebServer) {
  const std::string text = JsonUtils::ToCompactText(_MakeDataHeader(cmd, payload));
  LOGI("sendUiMsg:%s", text.c_str());
  const bool sent = SendTo(kPanel, text);
  if (alsoToWebServer) {
    LOGI("sendWebMsg:%s", text.c_str());
    SendTo(kWebServer, text);
  }
  return sent;
}

Json::Value DeviceUpgradeUIIPC::_MakeDataHeader(int cmd, Json::Value payload) {
  return IpcEnvelope::Make(kReportInterfaceName, IpcEnvelope::kTypeSignal, _MakeSnrNumber(), cmd, 0,
                           std::move(payload));
}

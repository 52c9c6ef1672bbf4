/// What each message of the system controller leads to. Everything in a message comes from another process:
/// a wrong type is logged and never thrown. SysCtrlIpc's receiver thread calls it.
#pragma once

#include <json/json.h>

#include <atomic>
#include <string>

#include "UpgradeIpcMsg/SysCtrlIpc/ISysCtrlReports.h"

class SysCtrlMsgHandler {
 public:
  /// Any thread; null: reports are logged and dropped.
  void SetReports(ISysCtrlReports* reports) { m_pReports = reports; }

  /// Handles one report or request. False, logged, when it lacks "Cmd" or "Data": whatever follows it from
  /// the same sender is in doubt. An unknown command or unusable "Data" is logged and true.
  bool Handle(const Json::Value& message) const;

  /// Reads the controller's reply to a request and logs the error that it may tell. No caller yet: the
  /// daemon does not wait for the replies to its requests.
  static void _ParseReply(const std::string& text);

 private:
  // Each handles the "Data" of one command; false when it is unusable.
  static bool _HandleRepFpgaVer(ISysCtrlReports& reports, const Json::Value& data);
  static bool _HandleRepRtxVer(ISysCtrlReports& reports, const Json::Value& data);
  static bool _HandleRepUacVer(ISysCtrlReports& reports, const Json::Value& data);
  static bool _HandleRepBattery(ISysCtrlReports& reports, const Json::Value& data);
  static bool _HandleRepClockStatus(ISysCtrlReports& reports, const Json::Value& data);
  static bool _HandleReqVer(ISysCtrlReports& reports, const Json::Value& data);
  static void _HandleGengericReply(const Json::Value& data);

  std::atomic<ISysCtrlReports*> m_pReports{nullptr};  ///< not owned
};

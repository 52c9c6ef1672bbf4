/// The one object through which the daemon talks to other processes about an upgrade. Everybody above sends
/// through it; main initialises it and cleans it up.
#pragma once

#include <json/json.h>

#include <memory>
#include <mutex>
#include <string>

#include "UpgradeIpcMsg/PannelIpc/DeviceUpgradeUIIPC.h"

/// Any thread may call any member.
class UpgradeIpcMsg {
 public:
  /// Created by the first caller and kept for the life of the process.
  static UpgradeIpcMsg* GetUpgradeIpc();

  bool Init();
  bool CleanUp();

  /// Progress to the panel; see DeviceUpgradeUIIPC::SendPrecent.
  bool SendUIPrecent(int status, int percent, const Json::Value& version, DataDef::UpgDisplayType type);
  bool SendUIVsersion(const Json::Value& versions);
  bool SendUIMsg(const DeviceUpgradeUIIPC::CmdCodeType& code, const Json::Value& payload);
  bool SendUIMsg(const DeviceUpgradeUIIPC::CmdCodeType& code);
  /// While on, progress goes to the web server as well.
  void SwitchWebReport(bool on);

 private:
  UpgradeIpcMsg();

  std::unique_ptr<DeviceUpgradeUIIPC> m_PUi;
  std::string m_strMSID;
  static std::mutex m_initmutex;  ///< guards the creation
  static UpgradeIpcMsg* m_pUpgradeIpc;
};

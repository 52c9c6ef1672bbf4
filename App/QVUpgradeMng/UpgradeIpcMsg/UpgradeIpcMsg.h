/// The one object through which the daemon talks to other processes about an upgrade. Everybody above sends
/// through it; main initialises it and cleans it up.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "UpgradeIpcMsg/DebugIpc/DebugIpc.h"
#include "UpgradeIpcMsg/PannelIpc/DeviceUpgradeUIIPC.h"
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlIpc.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member. What the messages to the panel are is told by DeviceUpgradeUIIPC.
class UpgradeIpcMsg {
 public:
  /// Created by the first caller and kept for the life of the process.
  static UpgradeIpcMsg* GetUpgradeIpc();

  /// Readies the panel's messages, then the debug commands, then the controller; gives false only without
  /// the first.
  bool Init();
  /// In the reverse order; afterwards no report and no command is handled, but the panel still hears.
  bool CleanUp();

  bool SendUIPrecent(int status, int percent, const Json::Value& version, DataDef::UpgDisplayType type) {
    return m_PUi->SendPrecent(status, percent, version, type);
  }
  bool SendUIVsersion(const Json::Value& versions) { return m_PUi->SendVersion(versions); }
  bool SendUIMsg(const DeviceUpgradeUIIPC::CmdCodeType& code, const Json::Value& payload = {}) {
    return m_PUi->SendMsg(code, payload);
  }
  bool SendOtaMsg(DeviceUpgradeUIIPC::DEBUG_UPGRADE_CMD_UI cmd, const Json::Value& payload) {
    return m_PUi->SendOta(cmd, payload);
  }
  /// While on, progress goes to the web server as well.
  void SwitchWebReport(bool on) { m_PUi->SwitchWebReport(on); }
  /// Queues a message to the system controller; false when its queue is full.
  bool SendCtrlMsg(const Json::Value& data, const SysCtrlIpc::CmdCodeType& cmd) {
    return m_pSysCtrlIpc->AddMsg({data, cmd});
  }

 private:
  UpgradeIpcMsg();

  std::unique_ptr<DeviceUpgradeUIIPC> m_PUi;
  std::string m_strMSID;
  DebugIpc* const m_pDebugIpc;      ///< singleton, not owned
  SysCtrlIpc* const m_pSysCtrlIpc;  ///< singleton, not owned
  static CMutex m_initmutex;
  static UpgradeIpcMsg* m_pUpgradeIpc GUARDED_BY(m_initmutex);
};

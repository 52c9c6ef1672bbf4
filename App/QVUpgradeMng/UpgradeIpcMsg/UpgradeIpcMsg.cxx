/// The facade forwards; what a message looks like is the business of the builder behind it.
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

#include "BSW/Log/CLog.h"

namespace {

constexpr const char* kDebugName = "adcv";

}  // namespace

CMutex UpgradeIpcMsg::m_initmutex;
UpgradeIpcMsg* UpgradeIpcMsg::m_pUpgradeIpc = nullptr;

UpgradeIpcMsg* UpgradeIpcMsg::GetUpgradeIpc() {
  const CLock lock(m_initmutex);
  if (m_pUpgradeIpc == nullptr) m_pUpgradeIpc = new UpgradeIpcMsg();
  return m_pUpgradeIpc;
}

UpgradeIpcMsg::UpgradeIpcMsg()
    : m_PUi(std::make_unique<DeviceUpgradeUIIPC>()),
      m_pDebugIpc(DebugIpc::instance()),
      m_pSysCtrlIpc(SysCtrlIpc::instance()) {}

bool UpgradeIpcMsg::Init() {
  if (m_PUi == nullptr) {
    LOGE(" m_PUi Init() fail");
    return false;
  }
  m_PUi->Init();
  if (!m_pDebugIpc->Init(kDebugName)) LOGE("cannot serve debug commands");
  if (!m_pSysCtrlIpc->Init()) LOGE("cannot serve the system controller");
  return true;
}

bool UpgradeIpcMsg::CleanUp() {
  const bool stopped = m_pSysCtrlIpc->CleanUp();
  return m_pDebugIpc->CleanUp() && stopped;
}

bool UpgradeIpcMsg::SendUIPrecent(int status, int percent, const Json::Value& version,
                                  DataDef::UpgDisplayType type) {
  return m_PUi->SendPrecent(status, percent, version, type);
}

bool UpgradeIpcMsg::SendUIVsersion(const Json::Value& versions) {
  return m_PUi->SendVersion(versions);
}

bool UpgradeIpcMsg::SendUIMsg(const DeviceUpgradeUIIPC::CmdCodeType& code, const Json::Value& payload) {
  return m_PUi->SendMsg(code, payload);
}

bool UpgradeIpcMsg::SendUIMsg(const DeviceUpgradeUIIPC::CmdCodeType& code) {
  return m_PUi->SendMsg(code);
}

bool UpgradeIpcMsg::SendOtaMsg(DeviceUpgradeUIIPC::DEBUG_UPGRADE_CMD_UI cmd, const Json::Value& payload) {
  return m_PUi->SendOta(cmd, payload);
}

void UpgradeIpcMsg::SwitchWebReport(bool on) {
  m_PUi->SwitchWebReport(on);
}

bool UpgradeIpcMsg::SendCtrlMsg(const Json::Value& data, const SysCtrlIpc::CmdCodeType& cmd) {
  return m_pSysCtrlIpc->AddMsg({data, cmd});
}

/// The facade forwards; what a message looks like is the business of the builder behind it.
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

#include "BSW/Log/CLog.h"

std::mutex UpgradeIpcMsg::m_initmutex;
UpgradeIpcMsg* UpgradeIpcMsg::m_pUpgradeIpc = nullptr;

UpgradeIpcMsg* UpgradeIpcMsg::GetUpgradeIpc() {
  const std::lock_guard<std::mutex> lock(m_initmutex);
  if (m_pUpgradeIpc == nullptr) m_pUpgradeIpc = new UpgradeIpcMsg();
  return m_pUpgradeIpc;
}

UpgradeIpcMsg::UpgradeIpcMsg() : m_PUi(std::make_unique<DeviceUpgradeUIIPC>()) {}

bool UpgradeIpcMsg::Init() {
  if (m_PUi == nullptr) {
    LOGE(" m_PUi Init() fail");
    return false;
  }
  return m_PUi->Init();
}

bool UpgradeIpcMsg::CleanUp() {
  return true;
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

void UpgradeIpcMsg::SwitchWebReport(bool on) {
  m_PUi->SwitchWebReport(on);
}

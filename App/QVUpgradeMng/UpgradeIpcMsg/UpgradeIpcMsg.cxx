/// The facade and the order in which what stands behind it starts and stops.
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

#include "BSW/Log/CLog.h"

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
  constexpr const char* kDebugName = "adcv";
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
  m_pDebugIpc->CleanUp();
  return stopped;
}

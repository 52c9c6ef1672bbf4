/// The sources' start and stop, and what they tell.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

#include <utility>

#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessOTA.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/UpgradePaths.h"

CMutex QVUpgradeAccessFrame::m_initmutex;
QVUpgradeAccessFrame* QVUpgradeAccessFrame::m_pAccessBase = nullptr;

QVUpgradeAccessFrame* QVUpgradeAccessFrame::getAccessFrame() {
  const CLock lock(m_initmutex);
  if (m_pAccessBase == nullptr) m_pAccessBase = new QVUpgradeAccessFrame();
  return m_pAccessBase;
}

QVUpgradeAccessFrame::QVUpgradeAccessFrame() {
  LOGI("fpgaVersion:%s", m_fpgaVersion.c_str());
}

int QVUpgradeAccessFrame::Init(QVUpgradeFrameBase* frame, DeviceVersions& versions, PackageClaim& claim,
                               BatteryLevel& battery) {
  m_pUpgradeFrame = frame;
  m_context.emplace(AccessContext{frame, versions, claim, battery, [this] { _NotifyPpImported(); }});
  m_pUdiskAccess = std::make_unique<QVUpgradeAccessUdisk>(*m_context);
  m_pWebsAccess = std::make_unique<QVUpgradeAccessWebs>(*m_context);
  m_pOTAAccess = std::make_unique<QVUpgradeAccessOTA>(*m_context);
  m_sources = {m_pUdiskAccess.get(), m_pWebsAccess.get(), m_pOTAAccess.get()};
  for (QVUpgradeAccessBase* source : m_sources) source->RegisterUploadPrecentCallback(AccessCallback, this);
  claim.setmStartUpgrade(false);
  versions.Load(frame->getCurrentPatten() + UpgradePaths::kVersionFile);

  // Only now, so that no event meets a record that has not been read.
  for (QVUpgradeAccessBase* source : m_sources) _StartAccess(source);
  if (!m_taskQue.Post([frame] { frame->LoadVersion(); })) LOGE("cannot load the versions");
  return 0;
}

bool QVUpgradeAccessFrame::_StartAccess(QVUpgradeAccessBase* source) {
  source->Start();
  return true;
}

void QVUpgradeAccessFrame::RequestStop() {
  for (QVUpgradeAccessBase* source : m_sources) source->RequestStop();
  m_taskQue.DestroyThread(true, false);
}

void QVUpgradeAccessFrame::CleanUp() {
  for (QVUpgradeAccessBase* source : m_sources) source->CleanUp();
  m_taskQue.DestroyThread(true, true);
}

int QVUpgradeAccessFrame::_NotfiCationUpgrade(int accessType) {
  const bool isNotifying = accessType == UP_UDISK || accessType == UP_WEBS;
  if (isNotifying && m_pUpgradeFrame->startUpgrade(accessType, m_context->versions.getAllVersion())) {
    m_context->claim.setmStartUpgrade(true);
    LOGI("upgradeFarme notfi ok");
    return 0;
  }
  LOGE("upgradeFrame is upgradeing notfi error");
  return -1;
}

void QVUpgradeAccessFrame::SetPpImportCallback(const PpImportCallback& callback) {
  bool pending = false;
  {
    const CLock lock(m_ppImportMutex);
    m_ppImportCallback = callback;
    pending = std::exchange(m_bPpImportPending, false);
  }
  if (pending) callback(m_context->versions.getAllVersion());
}

void QVUpgradeAccessFrame::_NotifyPpImported() {
  PpImportCallback callback;
  {
    const CLock lock(m_ppImportMutex);
    callback = m_ppImportCallback;
    m_bPpImportPending = !callback;
  }
  if (callback) callback(m_context->versions.getAllVersion());
}

/// The access frame. Its record of versions is the only one that is written to the running partition.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

#include <utility>

#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessOTA.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessSource.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/Parts.h"

std::mutex QVUpgradeAccessFrame::m_initmutex;
QVUpgradeAccessFrame* QVUpgradeAccessFrame::m_pAccessBase = nullptr;

QVUpgradeAccessFrame* QVUpgradeAccessFrame::getAccessFrame() {
  const std::lock_guard<std::mutex> lock(m_initmutex);
  if (m_pAccessBase == nullptr) m_pAccessBase = new QVUpgradeAccessFrame();
  return m_pAccessBase;
}

QVUpgradeAccessFrame::QVUpgradeAccessFrame() {
  LOGI("fpgaVersion:%s", m_fpgaVersion.c_str());
}

int QVUpgradeAccessFrame::Init(QVUpgradeFrameBase* frame, DeviceVersions& versions, PackageClaim& claim,
                               BatteryLevel& battery) {
  m_pVersions = &versions;
  m_pClaim = &claim;
  m_pBattery = &battery;
  m_pUpgradeFrame = frame;
  m_pUdiskAccess = std::make_unique<QVUpgradeAccessUdisk>();
  m_pWebsAccess = std::make_unique<QVUpgradeAccessWebs>();
  m_pOTAAccess = std::make_unique<QVUpgradeAccessOTA>(frame);
  for (QVUpgradeAccessSource* source : _Sources())
    source->RegisterUploadPrecentCallback(AccessCallback, this);
  claim.setmStartUpgrade(false);
  versions.Load(frame->getCurrentPatten() + UpgradePaths::kVersionFile);

  // Only now, so that no event meets a record that has not been read.
  for (QVUpgradeAccessSource* source : _Sources()) _StartAccess(source);
  if (!m_taskQue.Post([frame] { frame->LoadVersion(); })) LOGE("cannot load the versions");
  return 0;
}

bool QVUpgradeAccessFrame::_StartAccess(QVUpgradeAccessSource* source) {
  source->Start();
  return true;
}

void QVUpgradeAccessFrame::RequestStop() {
  for (QVUpgradeAccessSource* source : _Sources()) source->RequestStop();
  m_taskQue.DestroyThread(true, false);
}

void QVUpgradeAccessFrame::CleanUp() {
  for (QVUpgradeAccessSource* source : _Sources()) source->CleanUp();
  m_taskQue.DestroyThread(true, true);
}

std::vector<QVUpgradeAccessSource*> QVUpgradeAccessFrame::_Sources() const {
  std::vector<QVUpgradeAccessSource*> sources;
  for (const auto* source : {&m_pUdiskAccess, &m_pWebsAccess, &m_pOTAAccess}) {
    if (*source != nullptr) sources.push_back(source->get());
  }
  return sources;
}

int QVUpgradeAccessFrame::AccessCallback(int accessType, void* self) {
  return static_cast<QVUpgradeAccessFrame*>(self)->_NotfiCationUpgrade(accessType);
}

int QVUpgradeAccessFrame::_NotfiCationUpgrade(int accessType) {
  const bool isNotifying = accessType == UP_UDISK || accessType == UP_WEBS;
  if (isNotifying && m_pUpgradeFrame->startUpgrade(accessType, getAllVersion())) {
    setmStartUpgrade(true);
    LOGI("upgradeFarme notfi ok");
    return 0;
  }
  LOGE("upgradeFrame is upgradeing notfi error");
  return -1;
}

UpgradeTypeNames QVUpgradeAccessFrame::getUpgradeTypeName() {
  UpgradeTypeNames names;
  for (const Parts::Part& part : Parts::kAll) {
    const std::string page(part.page);
    if (part.isStation) names[page] = {page, part.type};
  }
  return names;
}

void QVUpgradeAccessFrame::SetPpImportCallback(const PpImportCallback& callback) {
  bool pending = false;
  {
    const std::lock_guard<std::mutex> lock(m_ppImportMutex);
    m_ppImportCallback = callback;
    pending = std::exchange(m_bPpImportPending, false);
  }
  if (pending) callback(getAllVersion());
}

void QVUpgradeAccessFrame::NotifyPpImported() {
  PpImportCallback callback;
  {
    const std::lock_guard<std::mutex> lock(m_ppImportMutex);
    callback = m_ppImportCallback;
    m_bPpImportPending = !callback;
  }
  if (callback) callback(getAllVersion());
}

void QVUpgradeAccessFrame::setUpgradeType(UPGRADEACCESSTYPE type) {
  m_pUpgradeFrame->setUpgradeType(type);
}

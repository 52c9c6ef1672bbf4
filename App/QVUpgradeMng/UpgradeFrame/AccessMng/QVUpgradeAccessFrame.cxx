/// The access frame. Its record of versions is the only one that is written to the running partition.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

#include <json/json.h>

#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessOTA.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessSource.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

void LogBatteryLimit(bool on) {
  if (on) {
    LOGI("Low battery limited ON");
  } else {
    LOGI("Low battery limited OFF");
  }
}

}  // namespace

std::mutex QVUpgradeAccessFrame::m_initmutex;
QVUpgradeAccessFrame* QVUpgradeAccessFrame::m_pAccessBase = nullptr;

QVUpgradeAccessFrame* QVUpgradeAccessFrame::getAccessFrame() {
  const std::lock_guard<std::mutex> lock(m_initmutex);
  if (m_pAccessBase == nullptr) m_pAccessBase = new QVUpgradeAccessFrame();
  return m_pAccessBase;
}

QVUpgradeAccessFrame::QVUpgradeAccessFrame()
    : m_upgradeTypeName{
          {"app", {"app", UP_APP}},    {"system", {"system", UP_SYSTEM}}, {"rootfs", {"rootfs", UP_ROOTFS}},
          {"fpga", {"fpga", UP_FPGA}}, {"rtx", {"rtx", UP_RTX}},          {"mcu", {"mcu", UP_MCU}},
          {"uac", {"uac", UP_UAC}},
      } {
  LOGI("fpgaVersion:%s", m_fpgaVersion.c_str());
}

int QVUpgradeAccessFrame::Init(QVUpgradeFrameBase* frame) {
  m_pUpgradeFrame = frame;
  m_currptten = frame->getCurrentPatten() + UpgradePaths::kVersionFile;
  m_pUdiskAccess = std::make_unique<QVUpgradeAccessUdisk>();
  m_pWebsAccess = std::make_unique<QVUpgradeAccessWebs>();
  m_pOTAAccess = std::make_unique<QVUpgradeAccessOTA>(frame);
  for (QVUpgradeAccessSource* source : _Sources())
    source->RegisterUploadPrecentCallback(AccessCallback, this);
  m_startUpgrade = false;
  _ReadVersionToFile();

  // Only now, so that no event meets a record that has not been read.
  for (QVUpgradeAccessSource* source : _Sources()) _StartAccess(source);
  frame->setAccess(this);
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
    m_startUpgrade = true;
    LOGI("upgradeFarme notfi ok");
    return 0;
  }
  LOGE("upgradeFrame is upgradeing notfi error");
  return -1;
}

bool QVUpgradeAccessFrame::TryClaim() {
  return !m_bClaimed.exchange(true);
}

void QVUpgradeAccessFrame::ReleaseClaim() {
  m_bClaimed = false;
}

UpgradeTypeNames QVUpgradeAccessFrame::getUpgradeTypeName() {
  const std::lock_guard<std::mutex> lock(m_upgradeTypeNameMutx);
  return m_upgradeTypeName;
}

int QVUpgradeAccessFrame::GetBattery() {
  const std::lock_guard<std::mutex> lock(m_upgradeTypeNameMutx);
  return m_iBattery;
}

void QVUpgradeAccessFrame::SetBattery(int level) {
  const std::lock_guard<std::mutex> lock(m_upgradeTypeNameMutx);
  m_iBattery = level;
}

bool QVUpgradeAccessFrame::IsBatteryLow() {
  const std::lock_guard<std::mutex> lock(m_upgradeTypeNameMutx);
  const bool limited = m_bLimited;
  LogBatteryLimit(limited);
  return limited && m_iBattery >= 0 && m_iBattery <= EM_CFG_MIN_BATTERY_VAL;
}

void QVUpgradeAccessFrame::SwitchBatteryLimited(bool on) {
  m_bLimited = on;
  LogBatteryLimit(on);
}

AllVersion QVUpgradeAccessFrame::getAllVersion() {
  const std::lock_guard<std::mutex> lock(m_versionMutex);
  return m_allVersion;
}

void QVUpgradeAccessFrame::setAllVersion(const AllVersion& versions) {
  SetVersion([&versions](AllVersion& record) { record = versions; });
}

void QVUpgradeAccessFrame::SetVersion(const std::function<void(AllVersion&)>& change) {
  const std::lock_guard<std::mutex> lock(m_versionMutex);
  change(m_allVersion);
  _WriteVersionToFile(m_allVersion);
}

void QVUpgradeAccessFrame::SetNewOverallVersion(const OTAVersion& overall) {
  const std::lock_guard<std::mutex> lock(m_versionMutex);
  m_allVersion.m_newOverallVer = overall;
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

bool QVUpgradeAccessFrame::SendVersionUI() {
  const AllVersion versions = getAllVersion();
  return UpgradeIpcMsg::GetUpgradeIpc()->SendUIVsersion(
      VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer));
}

void QVUpgradeAccessFrame::setUpgradeType(UPGRADEACCESSTYPE type) {
  m_pUpgradeFrame->setUpgradeType(type);
}

bool QVUpgradeAccessFrame::_WriteVersionToFile(const AllVersion& versions) {
  AllVersion onDisk;
  Json::Value otaList;
  VersionRecord::Read(m_currptten, onDisk, &otaList);
  Json::Value content = VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer);
  if (!otaList.isNull()) content["otaList"] = std::move(otaList);
  if (JsonUtils::WriteFileToJson(m_currptten, content, true)) return true;
  LOGE("cannot write version file %s", m_currptten.c_str());
  return false;
}

bool QVUpgradeAccessFrame::_ReadVersionToFile() {
  const std::lock_guard<std::mutex> lock(m_versionMutex);
  if (VersionRecord::Read(m_currptten, m_allVersion)) return true;
  LOGW("no usable version file %s, default versions are used", m_currptten.c_str());
  return false;
}

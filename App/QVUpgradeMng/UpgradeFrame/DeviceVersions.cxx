/// The record of versions and its file.
#include "UpgradeFrame/DeviceVersions.h"

#include <json/json.h>

#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

void DeviceVersions::Load(const std::string& file) {
  const CLock lock(m_versionMutex);
  m_currptten = file;
  _ReadVersionToFile();
}

bool DeviceVersions::IsLoaded() {
  const CLock lock(m_versionMutex);
  return !m_currptten.empty();
}

std::string DeviceVersions::getCurrentPart() {
  const CLock lock(m_versionMutex);
  return m_currptten;
}

AllVersion DeviceVersions::getAllVersion() {
  const CLock lock(m_versionMutex);
  return m_allVersion;
}

void DeviceVersions::setAllVersion(const AllVersion& versions) {
  SetVersion([&versions](AllVersion& record) { record = versions; });
}

void DeviceVersions::SetVersion(const std::function<void(AllVersion&)>& change) {
  const CLock lock(m_versionMutex);
  change(m_allVersion);
  _WriteVersionToFile(m_allVersion);
}

void DeviceVersions::SetNewOverallVersion(const OTAVersion& overall) {
  const CLock lock(m_versionMutex);
  m_allVersion.m_newOverallVer = overall;
}

bool DeviceVersions::SendVersionUI() {
  const AllVersion versions = getAllVersion();
  return UpgradeIpcMsg::GetUpgradeIpc()->SendUIVsersion(
      VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer));
}

bool DeviceVersions::_WriteVersionToFile(const AllVersion& versions) {
  AllVersion onDisk;
  Json::Value otaList;
  VersionRecord::Read(m_currptten, onDisk, &otaList);
  Json::Value content = VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer);
  if (!otaList.isNull()) content["otaList"] = std::move(otaList);
  if (JsonUtils::WriteFileToJson(m_currptten, content, true)) return true;
  LOGE("cannot write version file %s", m_currptten.c_str());
  return false;
}

bool DeviceVersions::_ReadVersionToFile() {
  if (VersionRecord::Read(m_currptten, m_allVersion)) return true;
  LOGW("no usable version file %s, default versions are used", m_currptten.c_str());
  return false;
}

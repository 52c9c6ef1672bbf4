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

void DeviceVersions::SetVersion(const std::function<void(AllVersion&)>& change) {
  const CLock lock(m_versionMutex);
  change(m_allVersion);
  _WriteVersionToFile();
}

bool DeviceVersions::SendVersionUI() {
  const AllVersion versions = getAllVersion();
  return UpgradeIpcMsg::GetUpgradeIpc()->SendUIVsersion(
      VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer));
}

void DeviceVersions::_WriteVersionToFile() {
  AllVersion onDisk;
  Json::Value otaList;
  VersionRecord::Read(m_currptten, onDisk, &otaList);
  Json::Value content = VersionRecord::ToJson(m_allVersion.m_oldOverallVer, m_allVersion.m_SubmodulesVer);
  if (!otaList.isNull()) content["otaList"] = std::move(otaList);
  if (!JsonUtils::WriteFileToJson(m_currptten, content, true)) {
    LOGE("cannot write version file %s", m_currptten.c_str());
  }
}

void DeviceVersions::_ReadVersionToFile() {
  if (!VersionRecord::Read(m_currptten, m_allVersion)) {
    LOGW("no usable version file %s, default versions are used", m_currptten.c_str());
  }
}

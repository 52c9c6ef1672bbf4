/// The record of versions and its file.
#include "UpgradeFrame/DeviceVersions.h"

#include <filesystem>
#include <system_error>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

/// True when there is nothing at all under this name: a link that leads nowhere is something.
bool IsMissing(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  return fs::symlink_status(path, error).type() == fs::file_type::not_found;
}

}  // namespace

void DeviceVersions::Load(const std::string& file) {
  const CLock lock(m_versionMutex);
  m_currptten = file;
  m_bKnown = _ReadVersionToFile();
}

void DeviceVersions::SetVersion(const std::function<void(AllVersion&)>& change) {
  _Change(change, true);
}

void DeviceVersions::NoteVersion(const std::function<void(AllVersion&)>& change) {
  _Change(change, false);
}

void DeviceVersions::_Change(const std::function<void(AllVersion&)>& change, bool mayCreate) {
  const CLock lock(m_versionMutex);
  change(m_allVersion);
  if (!m_bKnown) {
    const bool isMissing = IsMissing(m_currptten);
    if (!isMissing && !m_bRefusalLogged) {
      LOGE("%s was not read, it is kept as it is and no version recorded", m_currptten.c_str());
      m_bRefusalLogged = true;
    }
    if (!isMissing || !mayCreate) return;
  }
  _WriteVersionToFile();
}

bool DeviceVersions::SendVersionUI() {
  const AllVersion versions = getAllVersion();
  return UpgradeIpcMsg::GetUpgradeIpc()->SendUIVsersion(
      VersionRecord::ToJson(versions.m_oldOverallVer, versions.m_SubmodulesVer));
}

void DeviceVersions::_WriteVersionToFile() {
  m_bKnown = true;
  Json::Value content = VersionRecord::ToJson(m_allVersion.m_oldOverallVer, m_allVersion.m_SubmodulesVer);
  if (!m_otaList.isNull()) content["otaList"] = m_otaList;
  if (!JsonUtils::WriteFileToJson(m_currptten, content, true)) {
    LOGE("cannot write version file %s", m_currptten.c_str());
  }
}

bool DeviceVersions::_ReadVersionToFile() {
  if (VersionRecord::Read(m_currptten, m_allVersion, &m_otaList)) return true;
  LOGW("no usable version file %s, default versions are used", m_currptten.c_str());
  return false;
}

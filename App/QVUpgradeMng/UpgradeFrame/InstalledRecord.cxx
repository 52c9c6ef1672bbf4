/// Writes the version file of the other partition.
#include "UpgradeFrame/InstalledRecord.h"

#include <json/json.h>
#include <sys/types.h>

#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeFrame/VersionRecord.h"

namespace {

constexpr mode_t kVersionDirMode = 0755;

/// What the cloud said of the package, as its manifest has it; null for a package from elsewhere.
Json::Value _ReadOTAPackMsg(UPGRADEACCESSTYPE source) {
  if (source != UP_OTA) return {};
  const std::string path = std::string(UpgradePaths::kPage) + "/" + UpgradePaths::kManifestName;
  Json::Value manifest;
  if (!QVUpgradeTool::readFileToJson(path.c_str(), manifest) || !manifest.isObject()) return {};
  return manifest.get("otaList", Json::Value());
}

}  // namespace

Failure InstalledRecord::_WirteNewVersion(const std::string& partition, const AllVersion& versions,
                                          bool complete, UPGRADEACCESSTYPE source) {
  const OTAVersion& overall = complete ? versions.m_newOverallVer : versions.m_oldOverallVer;
  LOGI("softVersion:%s  hardVersion:%s", overall.m_softVersion.c_str(), overall.m_hardVersion.c_str());
  Json::Value record = VersionRecord::ToJson(overall, versions.m_SubmodulesVer);
  if (complete) {
    Json::Value otaList = _ReadOTAPackMsg(source);
    if (otaList.isArray() && !otaList.empty()) record["otaList"] = std::move(otaList);
  }
  const std::string path = partition + UpgradePaths::kVersionFile;
  if (!IsMountPoint(partition) || !XCreateFullPathDir(path.substr(0, path.rfind('/')), kVersionDirMode) ||
      !JsonUtils::WriteFileToJson(path, record, true)) {
    return Fail(Reason::RecordWrite, "%s cannot be written", path.c_str());
  }
  LOGI("write version:%s", path.c_str());
  return {};
}

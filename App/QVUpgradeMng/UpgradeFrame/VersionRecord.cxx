/// The version file. Its keys and defaults are shared with the panel and with installed units.
#include "UpgradeFrame/VersionRecord.h"

#include <sys/types.h>

#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr const char* kTotalKey = "totalVersion";
constexpr const char* kSoftKey = "softVersion";
constexpr const char* kHardKey = "hardVersion";
constexpr const char* kSubModulesKey = "subModulesVersion";
constexpr const char* kOtaListKey = "otaList";

constexpr const char* kDefaultHardVersion = "H200";
constexpr const char* kDefaultSoftVersion = "S4.0.9.10";

constexpr mode_t kVersionDirMode = 0755;

/// Member `key` of `object`, or null when it is missing or `object` is no object.
Json::Value MemberOrNull(const Json::Value& object, const char* key) {
  return object.isObject() ? object.get(key, Json::Value()) : Json::Value();
}

/// What the cloud said of the package, as its manifest has it; null for a package from elsewhere.
Json::Value _ReadOTAPackMsg(UPGRADEACCESSTYPE source) {
  const std::string path = std::string(UpgradePaths::kPage) + "/" + UpgradePaths::kManifestName;
  Json::Value manifest;
  if (source != UP_OTA || !QVUpgradeTool::readFileToJson(path.c_str(), manifest)) return {};
  return MemberOrNull(manifest, kOtaListKey);
}

}  // namespace

Json::Value VersionRecord::ToJson(const OTAVersion& overall, const QVUpgradeVersionInfo& versions) {
  Json::Value root(Json::objectValue);
  root[kTotalKey][kSoftKey] = overall.m_softVersion;
  root[kTotalKey][kHardKey] = overall.m_hardVersion;
  for (const Parts::Part& part : Parts::kAll) {
    root[kSubModulesKey][part.versionKey] = versions.*part.version;
  }
  return root;
}

bool VersionRecord::Read(const std::string& path, AllVersion& versions, Json::Value* otaList) {
  Json::Value root;
  const bool readable = QVUpgradeTool::readFileToJson(path.c_str(), root) && root.isObject();
  if (!readable) root = Json::Value();

  const Json::Value total = MemberOrNull(root, kTotalKey);
  versions.m_oldOverallVer.m_softVersion = JsonUtils::StringOr(total, kSoftKey, kDefaultSoftVersion);
  versions.m_oldOverallVer.m_hardVersion = JsonUtils::StringOr(total, kHardKey, kDefaultHardVersion);
  const Json::Value subModules = MemberOrNull(root, kSubModulesKey);
  for (const Parts::Part& part : Parts::kAll) {
    versions.m_SubmodulesVer.*part.version = JsonUtils::StringOr(subModules, part.versionKey, kNoVersion);
  }
  if (otaList != nullptr) *otaList = MemberOrNull(root, kOtaListKey);
  return readable;
}

Failure VersionRecord::_WirteNewVersion(const std::string& partition, const AllVersion& versions,
                                        bool complete, UPGRADEACCESSTYPE source) {
  const OTAVersion& overall = complete ? versions.m_newOverallVer : versions.m_oldOverallVer;
  LOGI("softVersion:%s  hardVersion:%s", overall.m_softVersion.c_str(), overall.m_hardVersion.c_str());
  Json::Value record = ToJson(overall, versions.m_SubmodulesVer);
  Json::Value otaList = complete ? _ReadOTAPackMsg(source) : Json::Value();
  if (otaList.isArray() && !otaList.empty()) record[kOtaListKey] = std::move(otaList);
  const std::string path = partition + UpgradePaths::kVersionFile;
  if (!IsMountPoint(partition) || !XCreateFullPathDir(path.substr(0, path.rfind('/')), kVersionDirMode) ||
      !JsonUtils::WriteFileToJson(path, record, true)) {
    return Fail(Reason::RecordWrite, "%s cannot be written", path.c_str());
  }
  LOGI("write version:%s", path.c_str());
  return {};
}

/// The version file. Its keys and defaults are shared with the panel and with installed units.
#include "UpgradeFrame/VersionRecord.h"

#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr const char* kTotalKey = "totalVersion";
constexpr const char* kSoftKey = "softVersion";
constexpr const char* kHardKey = "hardVersion";
constexpr const char* kSubModulesKey = "subModulesVersion";

/// Member `key` of `object`, or null when it is missing or `object` is no object.
Json::Value MemberOrNull(const Json::Value& object, const char* key) {
  return object.isObject() ? object.get(key, Json::Value()) : Json::Value();
}

}  // namespace

std::string* VersionRecord::Field(QVUpgradeVersionInfo& versions, UPGRADETYPE type) {
  const Parts::Part* const part = Parts::Find(type);
  return part == nullptr ? nullptr : &(versions.*part->version);
}

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
  const bool readable = QVUpgradeTool::readFileToJson(path.c_str(), root);
  if (!readable) root = Json::Value();

  const Json::Value total = MemberOrNull(root, kTotalKey);
  versions.m_oldOverallVer.m_softVersion = JsonUtils::StringOr(total, kSoftKey, kDefaultSoftVersion);
  versions.m_oldOverallVer.m_hardVersion = JsonUtils::StringOr(total, kHardKey, kDefaultHardVersion);
  const Json::Value subModules = MemberOrNull(root, kSubModulesKey);
  for (const Parts::Part& part : Parts::kAll) {
    versions.m_SubmodulesVer.*part.version = JsonUtils::StringOr(subModules, part.versionKey, kNoVersion);
  }
  if (otaList != nullptr) *otaList = MemberOrNull(root, "otaList");
  return readable;
}

/// The ten version fields and the file that holds them. A new part gets a line in the table and a member in
/// QVUpgradeVersionInfo; keys and defaults are shared with the panel and with installed units.
#include "UpgradeFrame/VersionRecord.h"

#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

struct VersionField {
  const char* key;
  std::string QVUpgradeVersionInfo::*member;
  UPGRADETYPE type;
};

constexpr VersionField kFields[] = {
    {"fpgaVersion", &QVUpgradeVersionInfo::m_fpgaVersion, UP_FPGA},
    {"rtxVersion", &QVUpgradeVersionInfo::m_rtxVersion, UP_RTX},
    {"mcuVersion", &QVUpgradeVersionInfo::m_mcuVersion, UP_MCU},
    {"7204Version", &QVUpgradeVersionInfo::m_7204Version, UP_7204},
    {"7204EvtVersion", &QVUpgradeVersionInfo::m_7204EvtVersion, UP_7204_EVT},
    {"7308Version", &QVUpgradeVersionInfo::m_7308Version, UP_7308},
    {"appVersion", &QVUpgradeVersionInfo::m_appVersion, UP_APP},
    {"systemVersion", &QVUpgradeVersionInfo::m_systemVersion, UP_SYSTEM},
    {"rootfsVersion", &QVUpgradeVersionInfo::m_rootfsVersion, UP_ROOTFS},
    {"uacVersion", &QVUpgradeVersionInfo::m_uacVersion, UP_UAC},
};

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
  for (const VersionField& field : kFields) {
    if (field.type == type) return &(versions.*field.member);
  }
  return nullptr;
}

Json::Value VersionRecord::ToJson(const OTAVersion& overall, const QVUpgradeVersionInfo& versions) {
  Json::Value root(Json::objectValue);
  root[kTotalKey][kSoftKey] = overall.m_softVersion;
  root[kTotalKey][kHardKey] = overall.m_hardVersion;
  for (const VersionField& field : kFields) root[kSubModulesKey][field.key] = versions.*field.member;
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
  for (const VersionField& field : kFields) {
    versions.m_SubmodulesVer.*field.member = JsonUtils::StringOr(subModules, field.key, kNoVersion);
  }
  if (otaList != nullptr) *otaList = MemberOrNull(root, "otaList");
  return readable;
}

/// Reads the list of parts. It comes from outside: whatever in it is not usable is skipped, and no name in it
/// leads out of the page.
#include "UpgradeFrame/PartsManifest.h"

#include <optional>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/Parts.h"

namespace {

/// A package has a handful of parts; a manifest with more entries than this was not made by a packager.
constexpr Json::ArrayIndex kMaxManifestEntries = 64;

/// The record of the part that `entry` describes; empty when there is nothing to upgrade.
std::optional<QVUpgradingInfo> RecordOf(const Json::Value& entry, const QVUpgradeVersionInfo& installed,
                                        const std::string& partition) {
  std::string pageType;
  std::string version;
  std::string pageName;
  if (!JsonUtils::GetString(entry, "pageType", pageType) ||
      !JsonUtils::GetString(entry, "version", version) ||
      !JsonUtils::GetString(entry, "pageName", pageName)) {
    LOGE("manifest entry skipped: no text in pageType, version or pageName");
    return std::nullopt;
  }
  const Parts::Part* const part = Parts::getUpgradeTypeName(pageType);
  if (part == nullptr) {
    LOGI("subModules:%s no upgrade required", Printable(pageType).c_str());
    return std::nullopt;
  }
  const std::string& installedVersion = installed.*part->version;
  if (installedVersion == version) {
    LOGI("subModulesType:%s  oldVer:%s  newVer:%s", pageType.c_str(), installedVersion.c_str(),
         version.c_str());
    return std::nullopt;
  }
  if (!IsPlainFileName(pageName) || !IsPlainFileName(version) || !IsValidUtf8(version)) {
    LOGE("manifest entry of %s skipped: unusable pageName or version", pageType.c_str());
    return std::nullopt;
  }
  QVUpgradingInfo info;
  info.m_modeulesType = part->type;
  info.m_flashPartition = partition;
  info.m_upgradeFilePath = std::string(UpgradePaths::kPage) + "/" + pageType + "/" + pageName;
  info.m_upgradeVersion = version;
  info.m_upgradFileName = pageName;
  return info;
}

/// The switch takes all that exists once a side, so a part left out is booted as the other side holds it,
/// which may be older than the one that runs.
void WarnOfSkippedParts(const std::map<UPGRADETYPE, QVUpgradingInfo>& records, const std::string& partition) {
  for (const Parts::Part& part : Parts::kAll) {
    const bool hasTwoCopies = std::string_view(part.target[Parts::kSideA]) != part.target[Parts::kSideB];
    if (hasTwoCopies && records.count(part.type) == 0) {
      LOGW("%s is not upgraded: %s keeps the version it has", part.page.data(), partition.c_str());
    }
  }
}

}  // namespace

Failure PartsManifest::Read(Json::Value& entries) {
  const std::string path = std::string(UpgradePaths::kPageRruStaging) + "/" + UpgradePaths::kManifestName;
  if (!QVUpgradeTool::readFileToJson(path.c_str(), entries))
    return Fail(Reason::PartsManifest, "%s cannot be read", path.c_str());
  if (!entries.isArray()) return Fail(Reason::PartsManifest, "%s is no list of parts", path.c_str());
  return {};
}

std::map<UPGRADETYPE, QVUpgradingInfo> PartsManifest::Select(Json::Value entries,
                                                             const QVUpgradeVersionInfo& installed,
                                                             const std::string& partition) {
  if (entries.size() > kMaxManifestEntries) {
    LOGE("manifest has %u entries, all after the first %u are skipped", entries.size(), kMaxManifestEntries);
    entries.resize(kMaxManifestEntries);
  }
  std::map<UPGRADETYPE, QVUpgradingInfo> records;
  for (const Json::Value& entry : entries) {
    const std::optional<QVUpgradingInfo> info = RecordOf(entry, installed, partition);
    if (!info) continue;
    if (!records.emplace(info->m_modeulesType, *info).second) {
      LOGE("manifest entry skipped: %s stands there twice", entry["pageType"].asCString());
      continue;
    }
    LOGI(
        "m_modeulesType:%d\n m_upgradeStatus:%d \n m_partitionFile:%s \n m_upgradeFilePath:%s\n "
        "m_upgradFileName:%s",
        info->m_modeulesType, info->m_upgradeStatus, info->m_flashPartition.c_str(),
        info->m_upgradeFilePath.c_str(), info->m_upgradFileName.c_str());
  }
  WarnOfSkippedParts(records, partition);
  return records;
}

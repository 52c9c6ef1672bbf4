/// The checks, in the order of the manifest.
#include "UpgradeFrame/AccessMng/PackageCheck.h"

#include <cstdint>
#include <string>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/AccessMng/PackageArchive.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/AccessMng/PpImport.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace PackageCheck {

namespace {

/// Kept beside the logs for diagnosis when a manifest cannot be read, and how long the unit then stays as it
/// is.
constexpr const char* kBadManifestCopy = "/qv_data/11.json";
constexpr uint32_t kBadManifestPauseMs = 60'000;

/// Keeps an unreadable manifest for diagnosis. Only a file of a manifest's size, and never through what an
/// earlier package left under the copy's name: both could lead the copy elsewhere.
void KeepBadManifest(const std::string& manifestFile) {
  const int64_t size = XGetFileSize(manifestFile);
  const bool harmless = IsRegularFileItself(manifestFile) && size >= 0 &&
                        static_cast<uint64_t>(size) <= JsonUtils::kMaxDocumentBytes;
  if (!XRemoveDirectory(kBadManifestCopy) || !harmless) return;
  QVUpgradeTool::ExecUnlessStopped(FormatText("cp -rf %s %s", manifestFile.c_str(), kBadManifestCopy));
}

}  // namespace

Failure CheckPack(const AccessContext& access, const AllVersion& current) {
  const std::string manifestFile = PackagePage::Path(UpgradePaths::kManifestName);
  LOGI("otaVersionFileName:%s", manifestFile.c_str());
  std::vector<PackageManifest::Element> elements;
  if (Failure failure = PackagePage::ReadManifest(elements)) {
    LOGE("readFile to json failed.File:%s", manifestFile.c_str());
    KeepBadManifest(manifestFile);
    CThread::Pause(kBadManifestPauseMs);
    return failure;
  }

  AllVersion versions = current;
  Failure result =
      Fail(Reason::ManifestNoStation, "none of %zu elements is for the base station", elements.size());
  for (const PackageManifest::Element& element : elements) {
    if (!PackagePage::IsForUnit(element)) continue;
    if (element.kind == PackageManifest::Kind::Portable) {
      PpImport::_CheckPpPack(access, versions, element);
      continue;
    }
    result = _CheckRruPack(access.versions, current.m_oldOverallVer, element);
    if (Reasons::Of(result.reason).reboots) break;  // no later element may turn that into a success
  }
  return result;
}

Failure _CheckRruPack(DeviceVersions& versions, const OTAVersion& installed,
                      const PackageManifest::Element& item) {
  if (item.unusable) {
    LOGE("checkFileMd5sum error");
    return item.unusable;
  }
  const OTAVersion& offered = item.version;
  if (Failure failure = PackagePage::CheckSoftVersion(offered.m_softVersion, installed)) return failure;
  if (Failure failure = PackageManifest::CheckHardVersion(item, installed)) {
    LOGE("hardVersion error new hardVersion:%s  old hardVersion:%s", offered.m_hardVersion.c_str(),
         installed.m_hardVersion.c_str());
    return failure;
  }

  const std::string archive = PackagePage::Path(item.fileName);
  LOGI("check file md5sum file:%s", archive.c_str());
  if (Failure failure = PackageArchive::_CheckFileMd5Sum(archive, item)) {
    LOGE("checkFileMd5sum error");
    return failure;
  }
  LOGI("newSoftVersion:%s  newHardVersion:%s oldSoft:%s  oldHard:%s", offered.m_softVersion.c_str(),
       offered.m_hardVersion.c_str(), installed.m_softVersion.c_str(), installed.m_hardVersion.c_str());
  const char* const staging = UpgradePaths::kPageRruStaging;
  LOGI("sysTarComd :%s", PackageArchive::UnpackCommand(archive, staging).c_str());
  if (Failure failure = PackageArchive::Unpack(archive, staging, Reason::PackageInnerUnpack)) {
    LOGE("tar %s  error", archive.c_str());
    return failure;
  }
  versions.SetNewOverallVersion(offered);
  return {};
}

}  // namespace PackageCheck

/// The checks, in the order of the manifest, and then the pages, in the order of their list.
#include "UpgradeFrame/AccessMng/PackageCheck.h"

#include <json/json.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/AccessMng/PpImport.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/PackageManifest.h"

namespace PackageCheck {

namespace {

using PackageManifest::Element;
using PackageManifest::Page;

/// Kept beside the logs for diagnosis when a manifest cannot be read, and how long the unit then stays as it
/// is.
constexpr const char* kBadManifestCopy = "/qv_data/11.json";
constexpr uint32_t kBadManifestPauseMs = 60'000;

void KeepBadManifest(const std::string& manifestFile);
Failure _CheckRruPack(DeviceVersions& versions, const OTAVersion& installed, const Element& item);
Failure MovePage(const Page& page);

}  // namespace

Failure CheckPack(const AccessContext& access, const AllVersion& current) {
  const std::string manifestFile = PackagePage::Path(UpgradePaths::kManifestName);
  LOGI("otaVersionFileName:%s", manifestFile.c_str());
  std::vector<Element> elements;
  if (Failure failure = PackagePage::ReadManifest(elements)) {
    LOGE("readFile to json failed.File:%s", manifestFile.c_str());
    KeepBadManifest(manifestFile);
    CThread::Pause(kBadManifestPauseMs);
    return failure;
  }

  AllVersion versions = current;
  Failure result =
      Fail(Reason::ManifestNoStation, "none of %zu elements is for the base station", elements.size());
  for (const Element& element : elements) {
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

Failure MovePack() {
  const std::string listFile = std::string(UpgradePaths::kPageRruStaging) + "/" + UpgradePaths::kManifestName;
  Json::Value list;
  if (!QVUpgradeTool::readFileToJson(listFile.c_str(), list)) {
    LOGE("read version error");
    return Fail(Reason::PagesManifest, "%s cannot be read", listFile.c_str());
  }
  std::vector<Page> pages;
  Failure unusable = PackageManifest::ReadPages(list, PackageManifest::Kind::Station, pages);
  if (unusable.reason == Reason::PagesManifest) LOGE("upgradeVersion is null");
  for (const Page& page : pages) {
    switch (page.use) {
      case Page::Use::Incomplete:
        LOGE("page json file error not pagetype or version or pageName");
        break;
      case Page::Use::Unknown:
        LOGE("not find pageType");
        break;
      case Page::Use::Wanted:
        if (Failure failure = MovePage(page)) return failure;
        break;
    }
  }
  if (!unusable) QVUpgradeTool::ExecUnlessStopped("sync");
  return unusable;
}

namespace {

/// Keeps an unreadable manifest for diagnosis. Only a file of a manifest's size, and never through what an
/// earlier package left under the copy's name: both could lead the copy elsewhere.
void KeepBadManifest(const std::string& manifestFile) {
  const int64_t size = XGetFileSize(manifestFile);
  const bool harmless = IsRegularFileItself(manifestFile) && size >= 0 &&
                        static_cast<uint64_t>(size) <= JsonUtils::kMaxDocumentBytes;
  if (!XRemoveDirectory(kBadManifestCopy) || !harmless) return;
  QVUpgradeTool::ExecUnlessStopped(FormatText("cp -rf %s %s", manifestFile.c_str(), kBadManifestCopy));
}

Failure _CheckRruPack(DeviceVersions& versions, const OTAVersion& installed, const Element& item) {
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
  if (Failure failure = PackagePage::_CheckFileMd5Sum(archive, item)) {
    LOGE("checkFileMd5sum error");
    return failure;
  }
  LOGI("newSoftVersion:%s  newHardVersion:%s oldSoft:%s  oldHard:%s", offered.m_softVersion.c_str(),
       offered.m_hardVersion.c_str(), installed.m_softVersion.c_str(), installed.m_hardVersion.c_str());
  const char* const staging = UpgradePaths::kPageRruStaging;
  LOGI("sysTarComd :%s", PackagePage::UnpackCommand(archive, staging).c_str());
  if (Failure failure = PackagePage::Unpack(archive, staging, Reason::PackageInnerUnpack)) {
    LOGE("tar %s  error", archive.c_str());
    return failure;
  }
  versions.SetNewOverallVersion(offered);
  return {};
}

Failure MovePage(const Page& page) {
  const std::string source = std::string(UpgradePaths::kPageRruStaging) + "/" + page.pageName;
  const std::string target = PackagePage::Path(std::string(page.part->page)) + "/" + page.pageName;
  LOGI("pagPath:%s  subPath:%s", source.c_str(), target.c_str());
  if (XRenameFile(source, target)) return {};
  return Fail(Reason::PagesMove, "cannot move %s to %s: %s", page.pageName.c_str(), target.c_str(),
              std::strerror(errno));
}

}  // namespace

}  // namespace PackageCheck

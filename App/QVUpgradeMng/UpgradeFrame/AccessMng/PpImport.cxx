/// From an archive of portable-part packages to the store, family by family.
#include "UpgradeFrame/AccessMng/PpImport.h"

#include <json/json.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePp/PpStore.h"

namespace PpImport {

namespace {

using PackageManifest::Page;

Failure UnpackPack(const PackageManifest::Element& item, Json::Value& list);
Failure ImportFamily(DeviceVersions& record, AllVersion& versions, const Page& page, int& imported);

Failure ImportPack(DeviceVersions& record, AllVersion& versions, const PackageManifest::Element& item,
                   int& imported) {
  Json::Value list;
  if (Failure failure = UnpackPack(item, list)) return failure;
  std::vector<Page> pages;
  Failure unusable = PackageManifest::ReadPages(list, PackageManifest::Kind::Portable, pages);
  for (const Page& page : pages) {
    if (Failure failure = ImportFamily(record, versions, page, imported)) return failure;
  }
  return unusable;
}

}  // namespace

bool _CheckPpPack(const AccessContext& access, AllVersion& versions, const PackageManifest::Element& item) {
  LOGD("_CheckPpPack start");
  int imported = 0;
  const Failure failure = ImportPack(access.versions, versions, item, imported);
  if (failure) {
    LOGE("%s", failure.Text().c_str());
  } else if (imported > 0) {
    LOGI("===Successfully imported PP upgrade package!===");
  } else {
    LOGI("No new package.");
  }
  // Also after a failure: the store may have lost a package, or got one before.
  if (imported > 0 || failure) access.ppImported();
  LOGD("_CheckPpPack end");
  return !failure;
}

namespace {

Failure UnpackPack(const PackageManifest::Element& item, Json::Value& list) {
  if (item.unusable) return item.unusable;
  const std::string archive = PackagePage::Path(item.fileName);
  if (Failure failure = PackagePage::_CheckFileMd5Sum(archive, item)) return failure;
  // The package that held this one may have put anything in its place, a link to elsewhere too.
  const char* const directory = UpgradePaths::kPagePp;
  if (!XRemoveDirectory(directory) || !XCreateFullPathDir(directory, PackagePage::kMode)) {
    return Fail(Reason::PortableDirectory, "cannot clear %s: %s", directory, std::strerror(errno));
  }
  if (PackagePage::Unpack(archive, directory, Reason::PortableUnpack)) {
    return Fail(Reason::PortableUnpack, "Unzip %serror!", archive.c_str());
  }
  const std::string listFile = std::string(directory) + "/" + UpgradePaths::kManifestName;
  if (QVUpgradeTool::readFileToJson(listFile.c_str(), list)) return {};
  return Fail(Reason::PortableManifest, "read version error");
}

/// Exchanges a family's package when this one is of another version.
Failure ImportFamily(DeviceVersions& record, AllVersion& versions, const Page& page, int& imported) {
  const PpStore::Family* const family = PpStore::Find(page.pageType);
  if (family == nullptr || page.part == nullptr) {
    LOGW("Unknow type of PP, ErrVal:%s", Printable(page.pageType).c_str());
    return {};
  }
  const auto field = page.part->version;
  const std::string stored = versions.m_SubmodulesVer.*field;
  if (page.version == stored) {
    LOGW("%s version same! Stored ver:%s, intput ver:%s.", family->pageType, stored.c_str(),
         page.version.c_str());
    return {};
  }
  LOGI("%s version diff! Stored ver:%s, intput ver:%s.", family->pageType, stored.c_str(),
       page.version.c_str());
  const std::string source = std::string(UpgradePaths::kPagePp) + "/" + page.pageName;
  if (!PpStore::IsPackage(*family, source)) {
    return Fail(Reason::PortableName, "not a package of %s: %s", family->pageType, source.c_str());
  }
  const auto storeVersion = [&](const std::string& version) {
    versions.m_SubmodulesVer.*field = version;
    record.SetVersion([&](AllVersion& all) { all.m_SubmodulesVer.*field = version; });
  };
  // While the packages are exchanged the store may hold none, and stays so after a power cut or a failed
  // move: neither package may then be taken for the one that is there already.
  storeVersion(kNoVersion);
  if (Failure failure = PpStore::Replace(*family, source)) return failure;
  storeVersion(page.version);
  ++imported;
  return {};
}

}  // namespace

}  // namespace PpImport

/// The pages of the base station's archive, moved one by one.
#include "UpgradeFrame/AccessMng/PackageMove.h"

#include <json/json.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/PackageManifest.h"

namespace {

using PackageManifest::Page;

Failure MovePage(const Page& page) {
  const std::string source = std::string(UpgradePaths::kPageRruStaging) + "/" + page.pageName;
  const std::string target = PackagePage::Path(std::string(page.part->page)) + "/" + page.pageName;
  LOGI("pagPath:%s  subPath:%s", source.c_str(), target.c_str());
  if (XRenameFile(source, target)) return {};
  return Fail(Reason::PagesMove, "cannot move %s to %s: %s", page.pageName.c_str(), target.c_str(),
              std::strerror(errno));
}

}  // namespace

Failure PackageMove::MovePack() {
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

/// The page's directories and its manifest.
#include "UpgradeFrame/AccessMng/PackagePage.h"

#include <json/json.h>

#include <cerrno>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/Parts.h"

namespace PackagePage {

namespace {

constexpr const char* kCoreDumps = "/firmware/coredump";

void Create(const std::string& directory) {
  if (XCreateFullPathDir(directory, kMode)) return;
  LOGE("cannot create %s: %s", directory.c_str(), std::strerror(errno));
}

}  // namespace

std::string Path(const std::string& name) {
  return std::string(UpgradePaths::kPage) + "/" + name;
}

void InitUpgradeFilePath() {
  Remove();  // nothing of an earlier package, refused or broken, may become part of this one
  Create(UpgradePaths::kPageRruStaging);
  for (const Parts::Part& part : Parts::kAll) {
    if (part.isStation) Create(Path(std::string(part.page)));
  }
  RemoveCoreDumps();
}

void RemoveCoreDumps() {
  XRemoveDirectory(kCoreDumps);
}

void Remove() {
  if (!XRemoveDirectory(UpgradePaths::kPage)) {
    LOGE("cannot remove %s: %s", UpgradePaths::kPage, std::strerror(errno));
  }
}

Failure ReadManifest(std::vector<PackageManifest::Element>& elements) {
  const std::string path = Path(UpgradePaths::kManifestName);
  if (!IsRegularFileItself(path)) return Fail(Reason::ManifestUnreadable, "%s is no file", path.c_str());
  Json::Value manifest;
  if (!QVUpgradeTool::readFileToJson(path.c_str(), manifest)) {
    return Fail(Reason::ManifestUnreadable, "%s is no document", path.c_str());
  }
  return PackageManifest::ReadElements(manifest, elements);
}

bool IsForUnit(const PackageManifest::Element& element) {
  if (element.kind != PackageManifest::Kind::Other) return true;
  LOGE("dev type error not RRU or PP!ErrVal:%s", Printable(element.type).c_str());
  return false;
}

Failure CheckSoftVersion(const std::string& offered, const OTAVersion& installed) {
  Failure failure = PackageManifest::CheckSoftVersion(offered, installed);
  if (failure) {
    LOGE("softVersion error new softVersion:%s  old softVerison:%s", offered.c_str(),
         installed.m_softVersion.c_str());
  }
  return failure;
}

}  // namespace PackagePage

/// The page's directories, the manifest, and the archives. Every name that reaches the command line is quoted
/// here.
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

Failure _CheckFileMd5Sum(const std::string& path, const PackageManifest::Element& element) {
  LOGI("djh md5sum file path  :%s", path.c_str());
  const std::string digest = QVUpgradeTool::SumFileMd5(path.c_str());
  Failure failure = PackageManifest::CheckDigest(element, digest);
  if (failure) {
    LOGE("file md5sum is error strMd5Value:%s  upgradeFileMd5Sum:%s", digest.c_str(),
         Printable(element.md5).c_str());
  }
  return failure;
}

std::string UnpackCommand(const std::string& archive, const std::string& directory) {
  return "7za x -y " + ShellQuote(archive) + " -o" + ShellQuote(directory);
}

Failure Unpack(const std::string& archive, const std::string& directory, Reason reason) {
  XDeleteFile(directory + "/" + UpgradePaths::kManifestName);
  const int result = QVUpgradeTool::ExecUnlessStopped(UnpackCommand(archive, directory));
  if (result != 0) return Fail(reason, "the unpacker gave %d for %s", result, archive.c_str());
  QVUpgradeTool::ExecUnlessStopped("sync");
  return {};
}

}  // namespace PackagePage

/// The families, and the exchange of their packages.
#include "UpgradePp/PpStore.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradePackage/PackageName.h"
#include "UpgradePackage/Parts.h"

namespace PpStore {

namespace {

/// What is no matter of names stands in the part's row, whose texts are literals.
constexpr Family FamilyOf(UPGRADETYPE type, const char* namePattern) {
  const Parts::Part& part = *Parts::Find(type);
  return {part.page.data(), type, part.target[Parts::kSideA], namePattern};
}

constexpr std::array<Family, 3> kFamilies = {{
    FamilyOf(UP_7204, R"(QVD_K7204_H100_S\d+\.\d+\.\d+\.\d+.*.ota)"),
    FamilyOf(UP_7204_EVT, R"(QVD_K7204_H000_S\d+\.\d+\.\d+\.\d+.*.ota)"),
    FamilyOf(UP_7308, R"(QVD_K7308_H\d{3}_S\d+\.\d+\.\d+\.\d+_OTA_Common_\d+\.zip)"),
}};

}  // namespace

CMutex& Mutex() {
  static CMutex storeMutex;
  return storeMutex;
}

const Family* Find(const std::string& pageType) {
  for (const Family& family : kFamilies) {
    if (pageType == family.pageType) return &family;
  }
  return nullptr;
}

bool IsPackage(const Family& family, const std::string& path) {
  return PackageName::Matches(std::string(BaseName(path)), family.namePattern) && IsRegularFileItself(path);
}

std::vector<std::string> PackageNames(const Family& family, const std::string& root) {
  const std::string directory = root + family.directory;
  std::vector<std::string> names;
  for (std::string& name : NamesIn(directory)) {
    if (IsPackage(family, directory + name)) names.push_back(std::move(name));
  }
  return names;
}

Failure Replace(const Family& family, const std::string& source) {
  if (!XCreateFullPathDir(family.directory, kDirectoryMode)) {
    return Fail(Reason::PortableStore, "cannot create %s: %s", family.directory, std::strerror(errno));
  }
  const CLock lock(Mutex());
  for (const std::string& oldName : PackageNames(family)) {
    const std::string old = family.directory + oldName;
    LOGI("Delete old package:%s", old.c_str());
    if (!XDeleteFile(old)) LOGE("cannot delete %s: %s", old.c_str(), std::strerror(errno));
  }
  const std::string destination = family.directory + std::string(BaseName(source));
  LOGI("Move SrcPath:%s -> DestPath:%s", source.c_str(), destination.c_str());
  if (!XRenameFile(source, destination)) {
    return Fail(Reason::PortableStore, "cannot move %s to %s: %s", source.c_str(), destination.c_str(),
                std::strerror(errno));
  }
  // The version record is written next, on another file system: it must not outlive the package.
  if (!SyncFile(destination) || !SyncParentDirectory(destination)) {
    return Fail(Reason::PortableStore, "cannot sync %s: %s", destination.c_str(), std::strerror(errno));
  }
  return {};
}

}  // namespace PpStore

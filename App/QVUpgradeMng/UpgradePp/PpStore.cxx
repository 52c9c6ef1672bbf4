/// The families and how a package is exchanged. Directories and patterns are those that portable-part
/// handling reads.
#include "UpgradePp/PpStore.h"

#include <sys/types.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradePackage/PackageName.h"

namespace PpStore {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0755;

constexpr std::array<Family, 3> kFamilies = {{
    {"7204", UP_7204, "/firmware/pp/7204/", R"(QVD_K7204_H100_S\d+\.\d+\.\d+\.\d+.*.ota)"},
    {"7204_EVT", UP_7204_EVT, "/firmware/pp/7204/", R"(QVD_K7204_H000_S\d+\.\d+\.\d+\.\d+.*.ota)"},
    {"7308", UP_7308, "/firmware/pp/7308/", R"(QVD_K7308_H\d{3}_S\d+\.\d+\.\d+\.\d+_OTA_Common_\d+\.zip)"},
}};

}  // namespace

std::unique_lock<std::mutex> Hold() {
  static std::mutex storeMutex;
  return std::unique_lock<std::mutex>(storeMutex);
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

std::vector<std::string> PackageNames(const std::string& directory, const Family& family) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    if (IsPackage(family, entry->path().string())) names.push_back(entry->path().filename().string());
  }
  return names;
}

Failure Replace(const Family& family, const std::string& source) {
  if (!XCreateFullPathDir(family.directory, kDirectoryMode)) {
    return Fail(Reason::PortableStore, "cannot create %s: %s", family.directory, std::strerror(errno));
  }
  const auto held = Hold();
  for (const std::string& oldName : PackageNames(family.directory, family)) {
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

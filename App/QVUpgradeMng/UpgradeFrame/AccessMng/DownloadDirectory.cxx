/// What stays in the download directory, and what goes.
#include "UpgradeFrame/AccessMng/DownloadDirectory.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/PackageName.h"

namespace DownloadDirectory {

namespace {

constexpr mode_t kMode = 0755;

/// Removes everything but what `keep` holds for.
template <class Keep>
void RemoveUnless(Keep keep) {
  for (const std::string& name : NamesIn(UpgradePaths::kDownload)) {
    const std::string path = std::string(UpgradePaths::kDownload) + "/" + name;
    if (!keep(path) && !XRemoveDirectory(path)) {
      LOGE("cannot remove %s: %s", path.c_str(), std::strerror(errno));
    }
  }
}

}  // namespace

void Create() {
  if (!XCreateFullPathDir(UpgradePaths::kDownload, kMode)) {
    LOGE("cannot create %s: %s", UpgradePaths::kDownload, std::strerror(errno));
  }
}

bool HasDownload() {
  const std::vector<std::string> names = NamesIn(UpgradePaths::kDownload);
  return std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return PackageName::IsUnfinished(name) || PackageName::IsZip(name);
  });
}

void Clear(const std::string& archive) {
  RemoveUnless([&](const std::string& path) { return path == archive || PackageName::IsUnfinished(path); });
}

void ClearForDownload(const std::string& archive) {
  RemoveUnless([&](const std::string& path) {
    const bool isItsOwn = path.compare(0, archive.size(), archive) == 0;
    return isItsOwn && (path == archive || PackageName::IsUnfinished(path)) && IsRegularFileItself(path);
  });
}

}  // namespace DownloadDirectory

/// The steps. Every name that reaches a command line is quoted here or where the command is built.
#include "UpgradeFrame/AccessMng/PackageSteps.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/PackageName.h"

namespace PackageSteps {

int Run(const std::string& command) {
  return CThread::StopRequested() ? -1 : QVUpgradeTool::ExecCommand(command);
}

std::string UnpackCommand(const std::string& archive, const std::string& directory) {
  return "7za x -y " + ShellQuote(archive) + " -o" + ShellQuote(directory);
}

bool Unpack(const std::string& archive, const std::string& directory) {
  XDeleteFile(directory + "/" + UpgradePaths::kManifestName);
  if (Run(UnpackCommand(archive, directory)) != 0) return false;
  Run("sync");
  return true;
}

namespace {

constexpr mode_t kDownloadMode = 0755;

/// Calls `handle` with the path of everything in the download directory.
template <class Handle>
void ForEachDownload(Handle handle) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(UpgradePaths::kDownload, error), end; !error && at != end;
       at.increment(error)) {
    handle(at->path().string());
  }
}

/// Removes everything from the download directory but what `keep` holds for.
template <class Keep>
void ClearDownloadDirectory(Keep keep) {
  ForEachDownload([&keep](const std::string& path) {
    if (!keep(path) && !XRemoveDirectory(path)) {
      LOGE("cannot remove %s: %s", path.c_str(), std::strerror(errno));
    }
  });
}

}  // namespace

void ClearDownloads(const std::string& archive) {
  ClearDownloadDirectory(
      [&](const std::string& path) { return path == archive || PackageName::IsUnfinished(path); });
}

void ClearOtherDownloads(const std::string& archive) {
  ClearDownloadDirectory([&](const std::string& path) {
    const bool isItsOwn = path.compare(0, archive.size(), archive) == 0;
    return isItsOwn && (path == archive || PackageName::IsUnfinished(path)) && IsRegularFileItself(path);
  });
}

bool HasDownload() {
  bool found = false;
  ForEachDownload([&found](const std::string& path) {
    found = found || PackageName::IsUnfinished(path) || PackageName::IsZip(path);
  });
  return found;
}

void CreateDownloadDirectory() {
  if (!XCreateFullPathDir(UpgradePaths::kDownload, kDownloadMode)) {
    LOGE("cannot create %s: %s", UpgradePaths::kDownload, std::strerror(errno));
  }
}

bool IsRegularFileItself(const std::string& path) {
  std::error_code error;
  return std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::regular;
}

bool GetVersion(const Json::Value& item, const char* key, std::string& version) {
  return JsonUtils::GetString(item, key, version) && !version.empty() && IsVersionText(version);
}

bool GetFileName(const Json::Value& item, const char* key, std::string& name) {
  return JsonUtils::GetString(item, key, name) && IsPlainFileName(name);
}

bool GetArchiveName(const Json::Value& item, const char* key, std::string& name) {
  return GetFileName(item, key, name) && PackageName::IsZip(name);
}

}  // namespace PackageSteps

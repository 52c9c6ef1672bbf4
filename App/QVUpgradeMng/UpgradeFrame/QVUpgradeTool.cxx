/// The tools of every upgrade class. The log texts and the package-name pattern are relied upon outside; the
/// work itself is done by the platform's shell runner and file helpers.
#include "UpgradeFrame/QVUpgradeTool.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>
#include <system_error>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradePackage/PackageName.h"

namespace {

constexpr const char* kStationPackage = R"(QV_K9031_H\d{3}_S\d+\.\d+\.\d+\.\d+_RRU_UDISK_Common_\d+\.zip)";

/// The first regular file of `dir` whose name contains `part` and for which `accept` holds; empty when none.
template <class Accept>
std::string FindFile(const char* dir, const char* part, Accept accept) {
  std::error_code error;
  if (!std::filesystem::is_directory(dir, error)) {
    LOGE("Failed to open directory");
    return {};
  }
  for (const std::string& name : NamesIn(dir)) {
    if (name.find(part) == std::string::npos) continue;
    // A link is no package: it would lead out of the directory.
    const auto status = std::filesystem::symlink_status(std::filesystem::path(dir) / name, error);
    if (error) LOGE("Failed to get file status");
    if (!std::filesystem::is_regular_file(status) || !accept(name)) continue;
    std::printf("%s/%s\n", dir, name.c_str());
    LOGI("%s/%s\n", dir, name.c_str());
    return name;
  }
  return {};
}

}  // namespace

int QVUpgradeTool::ExecCommand(const char* cmd) {
  const ShellResult result = RunShell(cmd);
  switch (result.outcome) {
    case ShellResult::Outcome::Exited:
      LOGD("Command exited with code: %d status:%d", result.exitCode, result.rawStatus);
      return result.exitCode;
    case ShellResult::Outcome::Killed:
      LOGE("Command terminated abnormally");
      return -1;
    case ShellResult::Outcome::SigmaskFailed:
      LOGE("sigprocmask error! %s", std::strerror(result.error));
      return -1;
    case ShellResult::Outcome::SigactionFailed:
      LOGE("sigaction error! %s", std::strerror(result.error));
      return -1;
    case ShellResult::Outcome::ForkFailed:
      LOGE("fork error! %s", std::strerror(result.error));
      return -1;
    case ShellResult::Outcome::WaitFailed:
      LOGE("waitpid error! %s", std::strerror(result.error));
      return -1;
    case ShellResult::Outcome::ChildVanished:
      LOGE("Child process vanished - cannot determine command result");
      return -1;
  }
  return -1;
}

int QVUpgradeTool::ExecUnlessStopped(const std::string& cmd) {
  return CThread::StopRequested() ? -1 : ExecCommand(cmd);
}

bool QVUpgradeTool::readFileToJson(const char* path, Json::Value& out) {
  if (path == nullptr || *path == '\0') {
    LOGE("Invalid file path: null or empty");
    return false;
  }
  const int64_t size = XGetFileSize(path);
  std::string error = "document too large";
  if (size <= static_cast<int64_t>(JsonUtils::kMaxDocumentBytes)) {
    std::string content;
    if (!ReadFileToString(path, JsonUtils::kMaxDocumentBytes, content)) {
      LOGE("Failed to open file: %s", path);
      return false;
    }
    if (JsonUtils::Parse(content, out, error)) return true;
  }
  LOGE("JSON parse failed: %s\nFile: %s\nSize: %zd bytes", error.c_str(), path, static_cast<ssize_t>(size));
  return false;
}

std::string QVUpgradeTool::ReadAllUpgradeFile(const char* dir, const char* part) {
  return FindFile(dir, part, [](const std::string&) { return true; });
}

std::string QVUpgradeTool::ReadAllUpgradeFileOTAPack(const char* dir, const char* part) {
  return FindFile(dir, part, [](const std::string& name) {
    if (PackageName::Matches(name, kStationPackage)) return true;
    LOGI("zip not fin pack");
    return false;
  });
}

bool QVUpgradeTool::ParseVerNum(const std::string& fileName, std::string& version) {
  static const std::regex pattern(R"((\d+\.\d+\.\d+\.\d+))");
  std::smatch match;
  if (fileName.size() > kMaxFileNameBytes || !std::regex_search(fileName, match, pattern)) {
    LOGE("Error version string:%s", fileName.c_str());
    return false;
  }
  version = match.str();
  LOGD("Verison:%s, strFileName:%s", version.c_str(), fileName.c_str());
  return true;
}

std::string QVUpgradeTool::RemoveExtension(const std::string& name) {
  return name.substr(0, name.rfind('.'));
}

std::string QVUpgradeTool::SumFileMd5(const char* path) {
  return path == nullptr ? std::string() : md5::MD5(path, CThread::StopRequested);
}

bool QVUpgradeTool::getPartitionUserSize(const char* path, partition_usage_t* out) {
  if (path == nullptr || out == nullptr) {
    std::fputs("错误: 参数为NULL\n", stderr);
    return false;
  }
  struct statvfs usage {};
  if (statvfs(path, &usage) != 0) {
    std::fprintf(stderr, "statvfs失败 (%s): %s\n", path, std::strerror(errno));
    return false;
  }
  const uint64_t fragment = usage.f_frsize;
  out->total_bytes = usage.f_blocks * fragment;
  out->free_bytes = usage.f_bfree * fragment;
  out->available_bytes = usage.f_bavail * fragment;
  out->used_bytes = out->total_bytes - out->free_bytes;
  // Virtual file systems have no blocks at all.
  out->usage_percent = out->total_bytes == 0 ? 0.0
                                             : static_cast<double>(out->used_bytes) /
                                                   static_cast<double>(out->total_bytes) * 100.0;
  out->path = path;
  return true;
}

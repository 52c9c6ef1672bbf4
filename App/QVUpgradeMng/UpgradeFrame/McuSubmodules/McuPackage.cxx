/// Unpacks the MCU's page. Commands, names and their order are fixed.
#include "UpgradeFrame/McuSubmodules/McuPackage.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/McuSubmodules/McuVersion.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace McuPackage {

namespace {

constexpr const char* kImageName = "k9031_McuApp.bin";
constexpr mode_t kDirectoryMode = 0755;

bool PrepareDirectory(const std::string& directory) {
  if (!XRemoveDirectory(directory)) {
    LOGE("remove_all failed:%s", std::strerror(errno));
    return false;
  }
  if (!XCreateFullPathDir(directory, kDirectoryMode)) {
    LOGE("Can't create PackPath:%s", directory.c_str());
    return false;
  }
  return true;
}

bool Untar(const std::string& package, const std::string& directory) {
  const std::string command = "tar -xf " + ShellQuote(package) + " -C " + ShellQuote(directory);
  LOGI("Unpack file. sysComd:%s", command.c_str());
  if (QVUpgradeTool::ExecCommand(command) == 0) return true;
  LOGE("Udisk tar file is error");
  return false;
}

/// The version in the archive's name, if this base station works with it.
bool ReadVersion(const std::string& archive, std::string& version) {
  std::optional<McuVersion> parsed;
  if (QVUpgradeTool::ParseVerNum(archive, version)) parsed = McuVersion::Parse(version);
  if (!parsed) {
    LOGE("Parse verison num failed!FwFileName:%s", archive.c_str());
    return false;
  }
  if (*parsed < *McuVersion::Parse(m_strMinCompatibleVer)) {
    LOGE("Error fw verison!Minimum compatible version is:%s, now ver:%s", m_strMinCompatibleVer,
         version.c_str());
    return false;
  }
  return true;
}

bool Unzip(const std::string& archive, const std::string& directory) {
  const std::string command = "unzip " + ShellQuote(archive) + " -d " + ShellQuote(directory);
  LOGI("Full path %s; Cmd:%s", archive.c_str(), command.c_str());
  if (QVUpgradeTool::ExecCommand(command) == 0) return true;
  LOGE("Unzip error");
  return false;
}

/// Makes sure that there is an image, before the MCU gives up its application for it, and that it survives a
/// power cut: the record will promise that an interrupted upgrade can be continued.
bool SecureImage(const std::string& path) {
  const UniqueFd image = OpenRegularFile(path);
  if (!image || fsync(image.Get()) != 0) {
    LOGE("%s cannot be used: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  const int64_t size = XGetFileSize(path);
  if (size > 0 && size <= static_cast<int64_t>(kMaxImageBytes)) return true;
  LOGE("%s has no usable size: %lld bytes", path.c_str(), static_cast<long long>(size));
  return false;
}

}  // namespace

bool Unpack(const std::string& package, const std::string& directory, FwInfo_t& firmware) {
  if (!PrepareDirectory(directory)) return false;
  LOGI("MCU ota path:%s", package.c_str());
  if (CThread::StopRequested() || !Untar(package, directory)) return false;

  const std::string archive = QVUpgradeTool::ReadAllUpgradeFile(directory.c_str(), ".zip");
  if (archive.empty()) {
    LOGE("Get name of fw pack  error!");
    return false;
  }
  if (!ReadVersion(archive, firmware.m_strVersion)) return false;
  if (CThread::StopRequested() || !Unzip(directory + "/" + archive, directory)) return false;

  firmware.m_strFileName = kImageName;
  firmware.m_strFwPath = directory + "/" + kImageName;
  return SecureImage(firmware.m_strFwPath);
}

}  // namespace McuPackage

/// The MCU's page on its way to an image on the disk.
#include "UpgradeFrame/McuSubmodules/McuPackage.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/McuSubmodules/McuMessages.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgraderBase.h"

namespace McuPackage {

namespace {

constexpr const char* kImageName = "k9031_McuApp.bin";
constexpr mode_t kDirectoryMode = 0755;

Failure PrepareDirectory(const std::string& directory) {
  if (!XRemoveDirectory(directory)) {
    LOGE("remove_all failed:%s", std::strerror(errno));
    return Fail(Reason::PartClear, "%s cannot be removed", directory.c_str());
  }
  if (!XCreateFullPathDir(directory, kDirectoryMode)) {
    LOGE("Can't create PackPath:%s", directory.c_str());
    return Fail(Reason::PartClear, "%s cannot be created", directory.c_str());
  }
  return {};
}

/// Runs a command of the unpacking; `onFailure` is what the log says when it fails.
Failure Unpacked(const std::string& command, const char* onFailure) {
  Failure failure = MustExec(Reason::PartUnpack, command);
  if (failure && failure.reason != Reason::Stopped) LOGE("%s", onFailure);
  return failure;
}

/// The version in the archive's name, if this base station works with it.
Failure ReadVersion(const std::string& archive, std::string& version) {
  std::optional<McuVersion> parsed;
  if (QVUpgradeTool::ParseVerNum(archive, version)) parsed = McuVersion::Parse(version);
  if (!parsed) {
    LOGE("Parse verison num failed!FwFileName:%s", archive.c_str());
    return Fail(Reason::PartVersion, "none in %s", archive.c_str());
  }
  if (*parsed < *McuVersion::Parse(m_strMinCompatibleVer)) {
    LOGE("Error fw verison!Minimum compatible version is:%s, now ver:%s", m_strMinCompatibleVer,
         version.c_str());
    return Fail(Reason::PartVersion, "%s, at least %s expected", version.c_str(), m_strMinCompatibleVer);
  }
  return {};
}

/// Makes sure that there is an image, before the MCU gives up its application for it, and that it survives a
/// power cut: the record will promise that an interrupted upgrade can be continued.
Failure SecureImage(const std::string& path) {
  const UniqueFd image = OpenRegularFile(path);
  if (!image || fsync(image.Get()) != 0) {
    return Fail(Reason::PartImage, "%s cannot be used: %s", path.c_str(), std::strerror(errno));
  }
  const int64_t size = XGetFileSize(path);
  if (size > 0 && size <= static_cast<int64_t>(kMaxImageBytes)) return {};
  return Fail(Reason::PartImage, "%s has no usable size: %lld bytes", path.c_str(),
              static_cast<long long>(size));
}

}  // namespace

Failure Unpack(const std::string& package, const std::string& directory, FwInfo_t& firmware) {
  if (Failure failure = PrepareDirectory(directory)) return failure;
  LOGI("MCU ota path:%s", package.c_str());
  const std::string untar = "tar -xf " + ShellQuote(package) + " -C " + ShellQuote(directory);
  LOGI("Unpack file. sysComd:%s", untar.c_str());
  if (Failure failure = Unpacked(untar, "Udisk tar file is error")) return failure;

  const std::string archive = QVUpgradeTool::ReadAllUpgradeFile(directory.c_str(), ".zip");
  if (archive.empty()) {
    LOGE("Get name of fw pack  error!");
    return Fail(Reason::PartImage, "no archive in %s", package.c_str());
  }
  if (Failure failure = ReadVersion(archive, firmware.m_strVersion)) return failure;
  const std::string path = directory + "/" + archive;
  const std::string unzip = "unzip " + ShellQuote(path) + " -d " + ShellQuote(directory);
  LOGI("Full path %s; Cmd:%s", path.c_str(), unzip.c_str());
  if (Failure failure = Unpacked(unzip, "Unzip error")) return failure;

  firmware.m_strFileName = kImageName;
  firmware.m_strFwPath = directory + "/" + kImageName;
  return SecureImage(firmware.m_strFwPath);
}

}  // namespace McuPackage

/// The root file system's way onto the next partition. Called by its base's thread; commands and their order
/// are fixed.
#include "UpgradeFrame/RootfsSubmodules/CQVUpgradeRootfs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

struct CQVUpgradeRootfs::Target {
  const char* partition;  ///< application partition it boots with
  std::string device;
  std::string mountPoint;
};

namespace {

constexpr int kErrorRootfs = 0x452;
constexpr uint32_t kUnpackPauseMs = 5000;
constexpr mode_t kMountPointMode = 0755;
/// An unpacked root file system is larger than its compressed archive; less than this part of it means files
/// are missing although tar was content.
constexpr double kLeastUsedShare = 0.9;

bool IsMountedDevice(const std::string& device) {
  const std::vector<MountEntry> mounts = ReadMountTable();
  return std::any_of(mounts.begin(), mounts.end(),
                     [&device](const MountEntry& mount) { return mount.device == device; });
}

}  // namespace

const SocUpgraderBase::Kind CQVUpgradeRootfs::m_kindRootfs = {
    "UpgradeRootfs",      UP_ROOTFS,       kErrorRootfs, "RootfsIdle",
    "RootfsCheckUpgrade", "RootfsSuccess", "RootfsFail"};
const SocUpgraderBase::Table CQVUpgradeRootfs::m_MapStateMachineFunc = MakeTable(m_kindRootfs);

CQVUpgradeRootfs::CQVUpgradeRootfs() : SocUpgraderBase(m_kindRootfs, m_MapStateMachineFunc) {}

CQVUpgradeRootfs::~CQVUpgradeRootfs() {
  StopBeforeDestruction();
}

bool CQVUpgradeRootfs::_CheckUpgrade(const QVUpgradingInfo& info) {
  LOGI("Rootfs path:%s", info.m_upgradeFilePath.c_str());
  static const Target targets[] = {
      {UpgradePaths::kAppA, "/dev/mmcblk2p2", "/run/media/mmcblk2p2"},
      {UpgradePaths::kAppB, "/dev/mmcblk2p3", "/run/media/mmcblk2p3"},
  };
  const auto* const target =
      std::find_if(std::begin(targets), std::end(targets),
                   [&info](const Target& candidate) { return info.m_flashPartition == candidate.partition; });
  if (target == std::end(targets)) {
    LOGE("Rootfs part error");
    return false;
  }
  if (!_MakeFileSystem(*target)) return false;
  if (!XCreateFullPathDir(target->mountPoint, kMountPointMode)) {
    LOGE("%s cannot be created: %s", target->mountPoint.c_str(), std::strerror(errno));
    return false;
  }
  if (!_MustExec("mount " + target->device + " " + target->mountPoint)) return false;
  const bool filled = _IsTargetMounted(target->mountPoint) && _Unpack(info, *target) &&
                      _CheckUsedSize(info.m_upgradeFilePath, *target);
  if (filled && !StopRequested()) return true;
  // Not through _Exec: our mount is undone after a stop too.
  if (QVUpgradeTool::ExecCommand("umount " + target->device) != 0) {
    LOGE("%s stays mounted", target->device.c_str());
  }
  return false;
}

bool CQVUpgradeRootfs::_MakeFileSystem(const Target& target) {
  // "umount" also fails when nothing was mounted: what counts is what the mount table says afterwards.
  _Exec("umount " + target.device);
  if (IsMountedDevice(target.device)) {
    LOGE("%s is in use and cannot be formatted", target.device.c_str());
    return false;
  }
  return _MustExec("mkfs.ext4 -F -L rootfs " + target.device);
}

bool CQVUpgradeRootfs::_Unpack(const QVUpgradingInfo& info, const Target& target) {
  // The variable is for tar builds that refuse links out of the tree; it ends with its own shell.
  _Exec("export EXTRACT_UNSAFE_SYMLINKS=1");
  _Exec("sync");
  if (!Pause(kUnpackPauseMs)) return false;

  LOGI(" Rootfs tar fileName:%s", info.m_upgradFileName.c_str());
  if (_Exec("tar zxf " + ShellQuote(info.m_upgradeFilePath) + " -C " + target.mountPoint) != 0) {
    LOGE("Udisk tar file is error");
    return false;
  }
  _Exec("sync");
  return true;
}

bool CQVUpgradeRootfs::_CheckUsedSize(const std::string& archive, const Target& target) {
  partition_usage_t usage;
  const int64_t archiveBytes = XGetFileSize(archive);
  if (!QVUpgradeTool::getPartitionUserSize(target.mountPoint.c_str(), &usage) || archiveBytes < 0) {
    LOGE("size of %s or of %s cannot be read", target.mountPoint.c_str(), archive.c_str());
    return false;
  }
  const long usedBytes = static_cast<long>(usage.used_bytes);
  LOGI("used_bytes :%ld", usedBytes);
  if (static_cast<double>(usedBytes) < kLeastUsedShare * static_cast<double>(archiveBytes)) {
    LOGE("tar rootfs error size error: used_bytes%ld", usedBytes);
    return false;
  }
  return true;
}

/// The root file system's way onto the next partition: formatted, mounted, filled, measured.
#include "UpgradeFrame/RootfsSubmodules/CQVUpgradeRootfs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/Mount.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr int kErrorRootfs = 0x452;
constexpr uint32_t kUnpackPauseMs = 5000;
constexpr mode_t kMountPointMode = 0755;
/// Where the unit mounts its root partitions, by side.
constexpr std::array<const char*, 2> kMountPoints = {"/run/media/mmcblk2p2", "/run/media/mmcblk2p3"};
/// An unpacked root file system is larger than its compressed archive; less than this part of it means files
/// are missing although tar was content.
constexpr double kLeastUsedShare = 0.9;

class RootfsPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override;

 private:
  static Failure _MakeFileSystem(const std::string& device);
  static Failure _Unpack(const QVUpgradingInfo& info, const std::string& mountPoint);
  static Failure _CheckUsedSize(const std::string& archive, const std::string& mountPoint);
};

Failure RootfsPayload::Install(const QVUpgradingInfo& info, const Steps& /*steps*/) {
  LOGI("Rootfs path:%s", info.m_upgradeFilePath.c_str());
  const Parts::Part& part = *Parts::Find(UP_ROOTFS);
  const char* const target = Parts::TargetOn(part, info.m_flashPartition);
  if (target == nullptr) {
    LOGE("Rootfs part error");
    return Fail(Reason::PartTarget, "%s is no partition", info.m_flashPartition.c_str());
  }
  const std::string device = target;
  const std::string mountPoint =
      kMountPoints[target == part.target[Parts::kSideA] ? Parts::kSideA : Parts::kSideB];
  if (Failure failure = _MakeFileSystem(device)) return failure;
  if (!XCreateFullPathDir(mountPoint, kMountPointMode)) {
    return Fail(Reason::PartMount, "%s cannot be created: %s", mountPoint.c_str(), std::strerror(errno));
  }
  const std::string command = "mount " + device + " " + mountPoint;
  Mount mount(mountPoint, command, {"umount " + device});
  if (!mount.IsMounted()) return Fail(Reason::PartMount, "command failed: %s", command.c_str());
  if (Failure failure = CheckMounted(mountPoint)) return failure;
  if (Failure failure = _Unpack(info, mountPoint)) return failure;
  if (Failure failure = _CheckUsedSize(info.m_upgradeFilePath, mountPoint)) return failure;
  if (CThread::StopRequested()) return {Reason::Stopped, {}};
  mount.Keep();
  return {};
}

Failure RootfsPayload::_MakeFileSystem(const std::string& device) {
  // "umount" also fails when nothing was mounted: what counts is what the mount table says afterwards.
  QVUpgradeTool::ExecUnlessStopped("umount " + device);
  const std::vector<MountEntry> mounts = ReadMountTable();
  if (std::any_of(mounts.begin(), mounts.end(),
                  [&device](const MountEntry& mount) { return mount.device == device; })) {
    return Fail(Reason::PartFormat, "%s is in use and cannot be formatted", device.c_str());
  }
  return MustExec(Reason::PartFormat, "mkfs.ext4 -F -L rootfs " + device);
}

Failure RootfsPayload::_Unpack(const QVUpgradingInfo& info, const std::string& mountPoint) {
  // For tar builds that refuse links out of the tree. What the command exports ends with its own shell: tar
  // gets the variable from here.
  QVUpgradeTool::ExecUnlessStopped("export EXTRACT_UNSAFE_SYMLINKS=1");
  const CommandVariable unsafeSymlinks("EXTRACT_UNSAFE_SYMLINKS=1");
  QVUpgradeTool::ExecUnlessStopped("sync");
  if (!CThread::Pause(kUnpackPauseMs)) return {Reason::Stopped, {}};

  LOGI(" Rootfs tar fileName:%s", info.m_upgradFileName.c_str());
  if (Failure failure = MustExec(Reason::PartUnpack,
                                 "tar zxf " + ShellQuote(info.m_upgradeFilePath) + " -C " + mountPoint)) {
    LOGE("Udisk tar file is error");
    return failure;
  }
  QVUpgradeTool::ExecUnlessStopped("sync");
  return {};
}

Failure RootfsPayload::_CheckUsedSize(const std::string& archive, const std::string& mountPoint) {
  partition_usage_t usage;
  const int64_t archiveBytes = XGetFileSize(archive);
  if (!QVUpgradeTool::getPartitionUserSize(mountPoint.c_str(), &usage) || archiveBytes < 0) {
    return Fail(Reason::PartSize, "size of %s or of %s cannot be read", mountPoint.c_str(), archive.c_str());
  }
  const long usedBytes = static_cast<long>(usage.used_bytes);
  LOGI("used_bytes :%ld", usedBytes);
  if (static_cast<double>(usedBytes) >= kLeastUsedShare * static_cast<double>(archiveBytes)) return {};
  LOGE("tar rootfs error size error: used_bytes%ld", usedBytes);
  return Fail(Reason::PartSize, "%ld bytes are used, the archive alone has %lld", usedBytes,
              static_cast<long long>(archiveBytes));
}

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeRootfs::m_kindRootfs = {
    "UpgradeRootfs",      UP_ROOTFS,       kErrorRootfs, "RootfsIdle",
    "RootfsCheckUpgrade", "RootfsSuccess", "RootfsFail"};
const OneShotUpgrader::Table CQVUpgradeRootfs::m_MapStateMachineFunc = MakeTable(m_kindRootfs);

CQVUpgradeRootfs::CQVUpgradeRootfs()
    : OneShotUpgrader(m_kindRootfs, m_MapStateMachineFunc, std::make_unique<RootfsPayload>()) {}

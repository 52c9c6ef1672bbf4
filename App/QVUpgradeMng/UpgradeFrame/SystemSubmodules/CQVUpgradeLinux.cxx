/// The boot files' way into the next boot partition. Called by its base's thread; commands and their order
/// are fixed.
#include "UpgradeFrame/SystemSubmodules/CQVUpgradeLinux.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

constexpr int kErrorLinux = 0x451;

/// Where the boot files of an application partition live; null for an unknown partition.
const char* BootMountPoint(const std::string& partition) {
  if (partition == UpgradePaths::kAppA) return "/run/media/mmcblk2p1";
  if (partition == UpgradePaths::kAppB) return "/run/media/mmcblk2p5";
  return nullptr;
}

}  // namespace

const SocUpgraderBase::Kind CQVUpgradeLinux::m_kindLinux = {
    "UpgradeSystem",      UP_SYSTEM,       kErrorLinux, "SystemIdle",
    "SystemCheckUpgrade", "SystemSuccess", "SystemFail"};
const SocUpgraderBase::Table CQVUpgradeLinux::m_MapStateMachineFunc = MakeTable(m_kindLinux);

CQVUpgradeLinux::CQVUpgradeLinux() : SocUpgraderBase(m_kindLinux, m_MapStateMachineFunc) {}

CQVUpgradeLinux::~CQVUpgradeLinux() {
  StopBeforeDestruction();
}

bool CQVUpgradeLinux::_CheckUpgrade(const QVUpgradingInfo& info) {
  const char* target = BootMountPoint(info.m_flashPartition);
  if (target == nullptr) {
    LOGE("system part error");
    return false;
  }
  if (!_IsTargetMounted(target)) return false;

  const std::string page = std::string(UpgradePaths::kPageSystem) + "/";
  const std::string& archive = info.m_upgradeFilePath;
  if (!_MustExec("tar xf " + ShellQuote(archive) + " -C " + page)) return false;
  // The archive lies among the files it held: what is left in the page is what belongs on the partition.
  if (!XDeleteFile(archive)) {
    LOGE("%s cannot be removed", archive.c_str());
    return false;
  }
  const bool copied = _MustExec("cp -rf " + page + ". " + target + "/");
  _Exec("sync");
  return copied;
}

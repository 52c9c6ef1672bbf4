/// The application's way into the next partition. Called by its base's thread; commands and their order are
/// fixed.
#include "UpgradeFrame/SocSubmodules/CQVUpgradeAppFs.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

constexpr int kErrorAppFs = 0x450;
constexpr uint32_t kRemovePauseMs = 1000;

}  // namespace

const SocUpgraderBase::Kind CQVUpgradeAppFs::m_kindAppFs = {
    "UpgradeApp", UP_APP, kErrorAppFs, "SocIdle", "SocCheckUpgrade", "SocSuccess", "SocFail"};
const SocUpgraderBase::Table CQVUpgradeAppFs::m_MapStateMachineFunc = MakeTable(m_kindAppFs);

CQVUpgradeAppFs::CQVUpgradeAppFs() : SocUpgraderBase(m_kindAppFs, m_MapStateMachineFunc) {}

CQVUpgradeAppFs::~CQVUpgradeAppFs() {
  StopBeforeDestruction();
}

bool CQVUpgradeAppFs::_CheckUpgrade(const QVUpgradingInfo& info) {
  const std::string& target = info.m_flashPartition;
  if (target != UpgradePaths::kAppA && target != UpgradePaths::kAppB) {
    LOGE("app part error: %s", target.c_str());
    return false;
  }
  if (!_IsTargetMounted(target)) return false;

  const std::string oldApplication = target + "/quorvalen";
  if (!XRemoveDirectory(oldApplication)) {
    LOGE("%s cannot be removed", oldApplication.c_str());
    return false;
  }
  if (!Pause(kRemovePauseMs)) return false;

  const std::string command = "tar xf " + ShellQuote(info.m_upgradeFilePath) + " -C " + target;
  LOGI("QVUpgradeAccessUdisk::  sysComd:%s", command.c_str());
  const bool unpacked = _Exec(command) == 0;
  if (unpacked) {
    LOGI("Udisk  tar ok");
  } else {
    LOGE("Udisk tar file is error");
  }
  _Exec("sync");
  return unpacked;
}

/// Moves the installed package to its place, and writes the boot loader with the commands that the board's
/// maker gives, in their order.
#include "UpgradeFrame/InstalledPackage.h"

#include <cstdint>
#include <string>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

constexpr const char* kUbootImage = "/firmware/upload/page/system/flash.bin";
constexpr const char* kUbootMarker = "/firmware/upload/page/system/flash.bin.upgrade";

struct Step {
  const char* command;
  uint32_t pauseMs;  ///< after it
};
constexpr Step kUbootSteps[] = {
    {"echo 0 > /sys/block/mmcblk2boot0/force_ro", 0},
    {"dd if=/dev/zero of=/dev/mmcblk2boot0 bs=1k count=256", 0},
    {"sync", 2000},
    {"dd if=/firmware/upload/page/system/flash.bin of=/dev/mmcblk2 bs=1k seek=32", 0},
    {"sync", 0},
};

void Run(const std::string& command) {
  if (QVUpgradeTool::ExecCommand(command) != 0) LOGE("package is not kept: %s", command.c_str());
}

}  // namespace

void InstalledPackage::_SaveUpgradePack(UPGRADEACCESSTYPE source) {
  const std::string kept = UpgradePaths::kNewPackage;
  const std::string page = UpgradePaths::kPage;
  if (!XRemoveDirectory(kept)) LOGE("%s cannot be removed", kept.c_str());
  QVUpgradeTool::ExecCommand("sync");
  // A download that was broken off is of a version that is behind now: nobody goes on with it.
  Run("rm -rf " + std::string(UpgradePaths::kDownload) + "/*" + UpgradePaths::kUnfinishedExtension);
  if (source == UP_UDISK) {
    Run("mkdir " + kept);
    Run("cp " + page + "/" + UpgradePaths::kManifestName + " " + kept + "/");
    Run("mv " + page + "/*.zip " + kept + "/");
  } else {
    Run("mv " + std::string(UpgradePaths::kDownload) + " " + kept);
  }
  QVUpgradeTool::ExecCommand("sync");
  LOGI("save page");
}

bool InstalledPackage::_UpgradeUboot() {
  if (!XIsRegularFile(kUbootImage) || !XIsRegularFile(kUbootMarker)) {
    LOGI("no upgrade uboot");
    return false;
  }
  for (const Step& step : kUbootSteps) {
    if (QVUpgradeTool::ExecCommand(step.command) != 0) {
      LOGE("upgrade uboot eroor:%s", step.command);
      return false;
    }
    if (step.pauseMs != 0) CThread::Pause(step.pauseMs);
  }
  return true;
}

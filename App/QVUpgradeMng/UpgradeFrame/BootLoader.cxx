/// Writes the boot loader with the commands that the board's maker gives, in their order.
#include "UpgradeFrame/BootLoader.h"

#include <cstdint>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

constexpr const char* kUbootImage = "/firmware/upload/page/system/flash.bin";
constexpr const char* kUbootMarker = "/firmware/upload/page/system/flash.bin.upgrade";
constexpr uint32_t kUbootPauseMs = 2000;

struct Step {
  const char* command;
  uint32_t pauseMs;  ///< after it
};
constexpr Step kSteps[] = {
    {"echo 0 > /sys/block/mmcblk2boot0/force_ro", 0},
    {"dd if=/dev/zero of=/dev/mmcblk2boot0 bs=1k count=256", 0},
    {"sync", kUbootPauseMs},
    {"dd if=/firmware/upload/page/system/flash.bin of=/dev/mmcblk2 bs=1k seek=32", 0},
    {"sync", 0},
};

}  // namespace

bool BootLoader::_UpgradeUboot() {
  if (!XIsRegularFile(kUbootImage) || !XIsRegularFile(kUbootMarker)) {
    LOGI("no upgrade uboot");
    return false;
  }
  for (const Step& step : kSteps) {
    if (QVUpgradeTool::ExecCommand(step.command) != 0) {
      LOGE("upgrade uboot eroor:%s", step.command);
      return false;
    }
    if (step.pauseMs != 0) CThread::Pause(step.pauseMs);
  }
  return true;
}

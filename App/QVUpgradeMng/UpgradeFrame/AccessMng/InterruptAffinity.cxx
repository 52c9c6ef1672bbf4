/// The two settings of the seven interrupts.
#include "UpgradeFrame/AccessMng/InterruptAffinity.h"

#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

/// All seven interrupts on all four cores.
constexpr const char* kFreeCommand =
    "echo 15 > /proc/irq/70/smp_affinity &&echo 15 > /proc/irq/71/smp_affinity &&"
    "echo 15 > /proc/irq/79/smp_affinity &&echo 15 > /proc/irq/80/smp_affinity &&"
    "echo 15 > /proc/irq/66/smp_affinity &&echo 15 > /proc/irq/67/smp_affinity &&"
    "echo 15 > /proc/irq/46/smp_affinity";
/// Core 3 for 70, 71, 79, 80 and 46, core 0 for 66, core 2 for 67.
constexpr const char* kPinnedCommand =
    "echo 8 > /proc/irq/70/smp_affinity &&echo 8 > /proc/irq/71/smp_affinity &&"
    "echo 8 > /proc/irq/79/smp_affinity &&echo 8 > /proc/irq/80/smp_affinity &&"
    "echo 1 > /proc/irq/66/smp_affinity &&echo 4 > /proc/irq/67/smp_affinity &&"
    "echo 8 > /proc/irq/46/smp_affinity";

}  // namespace

void InterruptAffinity::_SetSmpAffinityToCpu0(bool change) {
  LOGI("djh _SetSmpAffinityToCpu0 bChange:%d", static_cast<int>(change));
  const int result =
      change ? QVUpgradeTool::ExecUnlessStopped(kFreeCommand) : QVUpgradeTool::ExecCommand(kPinnedCommand);
  if (result != 0) LOGE("interrupts cannot be moved: %d", result);
}

/// Which class upgrades which part: the one place that names them all, and the one to extend.
#include "UpgradeFrame/SubmoduleFactory.h"

#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"
#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"
#include "UpgradeFrame/RootfsSubmodules/CQVUpgradeRootfs.h"
#include "UpgradeFrame/SocSubmodules/CQVUpgradeAppFs.h"
#include "UpgradeFrame/SystemSubmodules/CQVUpgradeLinux.h"
#include "UpgradeFrame/UacSubmodules/CQVUpgradeUac.h"

std::shared_ptr<IQVUpgrade> SubmoduleFactory::Create(UPGRADETYPE type) {
  switch (type) {
    case UP_APP:
      return std::make_shared<CQVUpgradeAppFs>();
    case UP_SYSTEM:
      return std::make_shared<CQVUpgradeLinux>();
    case UP_FPGA:
      return std::make_shared<CQVUpgradeFpga>();
    case UP_UAC:
      return std::make_shared<CQVUpgradeUac>();
    case UP_MCU:
      return std::make_shared<McuSubmodules>();
    case UP_ROOTFS:
      return std::make_shared<CQVUpgradeRootfs>();
    default:
      return nullptr;
  }
}

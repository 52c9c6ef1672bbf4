/// The upgraders of the parts. The switch has no default, so that the compiler tells a part without its case.
#include "UpgradeFrame/SubmoduleFactory.h"

#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"
#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"
#include "UpgradeFrame/RootfsSubmodules/CQVUpgradeRootfs.h"
#include "UpgradeFrame/RtxSubmodules/CQVUpgradeRtx.h"
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
    case UP_RTX:
    case UP_NO_TYPE:
    case UP_7204:
    case UP_7204_EVT:
    case UP_7308:
      return nullptr;
  }
  return nullptr;
}

std::shared_ptr<IQVUpgrade> SubmoduleFactory::CreateRtx() {
  return std::make_shared<CQVUpgradeRtx>();
}

/// The FPGA's states are its base's. Called by its base's thread; command, device and texts are fixed.
#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"

#include "UpgradeFrame/FpgaSubmodules/FpgaImage.h"

namespace {

constexpr const char* kDriver = "/lib/modules/5.15.71-rt51/kernel/drivers/quorvalen/fpga_driver.ko";
constexpr const char* kDevice = "/dev/upgrade_fpga";

}  // namespace

const SocUpgraderBase::Kind CQVUpgradeFpga::m_kindFpga = {
    "CQVUpgradeFpga", UP_FPGA, kNoErrorCode, "FpgaIdle", "FpgaCheckUpgrade", "FpgaSuccess", "FpgaFail"};
const SocUpgraderBase::Table CQVUpgradeFpga::m_MapStateMachineFunc = MakeTable(m_kindFpga);

CQVUpgradeFpga::CQVUpgradeFpga() : SocUpgraderBase(m_kindFpga, m_MapStateMachineFunc) {}

CQVUpgradeFpga::~CQVUpgradeFpga() {
  StopBeforeDestruction();
}

bool CQVUpgradeFpga::StartUpgrade() {
  LOGI("StartUpgrade CQVUpgradeFpga");
  return SocUpgraderBase::StartUpgrade();
}

bool CQVUpgradeFpga::_CheckUpgrade(const QVUpgradingInfo& info) {
  LOGI("_FpgaCheckUpgrade");
  // The driver may be loaded already.
  if (_Exec(std::string("insmod ") + kDriver) != 0) LOGE("insmod fpga fpga_driver.ko error");
  LOGI("fpag bin file path:%s", info.m_upgradeFilePath.c_str());
  return !StopRequested() && _UpgardeFpga(info.m_upgradeFilePath);
}

bool CQVUpgradeFpga::_UpgardeFpga(const std::string& path) {
  return FpgaImage::Write(path, kDevice, [this](size_t done, size_t total) { _ReportSteps(done, total); });
}

void CQVUpgradeFpga::_OnEnd(bool succeeded) {
  LOGI("%s", succeeded ? "_FpgaSuccess" : "_FpgaFail");
}

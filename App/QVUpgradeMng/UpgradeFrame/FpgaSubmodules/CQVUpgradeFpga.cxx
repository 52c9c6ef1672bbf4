/// The FPGA's way to its new image: its driver is loaded, which then takes the image piece by piece.
#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"

#include "UpgradeFrame/FpgaSubmodules/FpgaImage.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr const char* kDriver = "/lib/modules/5.15.71-rt51/kernel/drivers/quorvalen/fpga_driver.ko";

class FpgaPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override;
  void Ended(const Failure& failure) override { LOGI("%s", failure ? "_FpgaFail" : "_FpgaSuccess"); }

 private:
  static Failure _UpgardeFpga(const std::string& path, const Steps& steps);
};

Failure FpgaPayload::Install(const QVUpgradingInfo& info, const Steps& steps) {
  LOGI("_FpgaCheckUpgrade");
  // The driver may be loaded already.
  if (QVUpgradeTool::ExecUnlessStopped(std::string("insmod ") + kDriver) != 0) {
    LOGE("insmod fpga fpga_driver.ko error");
  }
  LOGI("fpag bin file path:%s", info.m_upgradeFilePath.c_str());
  return CThread::StopRequested() ? Failure{Reason::Stopped, {}}
                                  : _UpgardeFpga(info.m_upgradeFilePath, steps);
}

Failure FpgaPayload::_UpgardeFpga(const std::string& path, const Steps& steps) {
  return FpgaImage::Write(path, Parts::Find(UP_FPGA)->target[Parts::kSideA], steps);
}

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeFpga::m_kindFpga = {
    "CQVUpgradeFpga", UP_FPGA, kNoErrorCode, "FpgaIdle", "FpgaCheckUpgrade", "FpgaSuccess", "FpgaFail"};
const OneShotUpgrader::Table CQVUpgradeFpga::m_MapStateMachineFunc = MakeTable(m_kindFpga);

CQVUpgradeFpga::CQVUpgradeFpga()
    : OneShotUpgrader(m_kindFpga, m_MapStateMachineFunc, std::make_unique<FpgaPayload>()) {}

bool CQVUpgradeFpga::StartUpgrade() {
  LOGI("StartUpgrade CQVUpgradeFpga");
  return OneShotUpgrader::StartUpgrade();
}

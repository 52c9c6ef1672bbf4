/// The application's way into the next partition: the old one is removed, the new one unpacked.
#include "UpgradeFrame/SocSubmodules/CQVUpgradeAppFs.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr int kErrorAppFs = 0x450;
constexpr uint32_t kRemovePauseMs = 1000;

class AppFsPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& /*steps*/) override {
    const char* const target = Parts::TargetOn(*Parts::Find(UP_APP), info.m_flashPartition);
    if (target == nullptr) {
      return Fail(Reason::PartTarget, "app part error: %s", info.m_flashPartition.c_str());
    }
    if (Failure failure = CheckMounted(target)) return failure;

    const std::string oldApplication = std::string(target) + "/quorvalen";
    if (!XRemoveDirectory(oldApplication)) {
      return Fail(Reason::PartClear, "%s cannot be removed", oldApplication.c_str());
    }
    if (!CThread::Pause(kRemovePauseMs)) return {Reason::Stopped, {}};

    const std::string command = "tar xf " + ShellQuote(info.m_upgradeFilePath) + " -C " + target;
    LOGI("QVUpgradeAccessUdisk::  sysComd:%s", command.c_str());
    Failure failure = MustExec(Reason::PartUnpack, command);
    if (failure) {
      LOGE("Udisk tar file is error");
    } else {
      LOGI("Udisk  tar ok");
    }
    QVUpgradeTool::ExecUnlessStopped("sync");
    return failure;
  }
};

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeAppFs::m_kindAppFs = {
    "UpgradeApp", UP_APP, kErrorAppFs, "SocIdle", "SocCheckUpgrade", "SocSuccess", "SocFail"};
const OneShotUpgrader::Table CQVUpgradeAppFs::m_MapStateMachineFunc = MakeTable(m_kindAppFs);

CQVUpgradeAppFs::CQVUpgradeAppFs()
    : OneShotUpgrader(m_kindAppFs, m_MapStateMachineFunc, std::make_unique<AppFsPayload>()) {}

/// The boot files' way into the next boot partition: unpacked in the page, copied over what is there.
#include "UpgradeFrame/SystemSubmodules/CQVUpgradeLinux.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr int kErrorLinux = 0x451;

class LinuxPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& /*steps*/) override {
    const char* const target = Parts::TargetOn(*Parts::Find(UP_SYSTEM), info.m_flashPartition);
    if (target == nullptr) {
      LOGE("system part error");
      return Fail(Reason::PartTarget, "%s is no partition", info.m_flashPartition.c_str());
    }
    if (Failure failure = CheckMounted(target)) return failure;

    const std::string page = std::string(UpgradePaths::kPageSystem) + "/";
    const std::string& archive = info.m_upgradeFilePath;
    if (Failure failure = MustExec(Reason::PartUnpack, "tar xf " + ShellQuote(archive) + " -C " + page)) {
      return failure;
    }
    // The archive lies among the files it held: what is left in the page is what belongs on the partition.
    if (!XDeleteFile(archive)) return Fail(Reason::PartClear, "%s cannot be removed", archive.c_str());
    Failure failure = MustExec(Reason::PartCopy, "cp -rf " + page + ". " + target + "/");
    QVUpgradeTool::ExecUnlessStopped("sync");
    return failure;
  }
};

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeLinux::m_kindLinux = {
    "UpgradeSystem",      UP_SYSTEM,       kErrorLinux, "SystemIdle",
    "SystemCheckUpgrade", "SystemSuccess", "SystemFail"};
const OneShotUpgrader::Table CQVUpgradeLinux::m_MapStateMachineFunc = MakeTable(m_kindLinux);

CQVUpgradeLinux::CQVUpgradeLinux()
    : OneShotUpgrader(m_kindLinux, m_MapStateMachineFunc, std::make_unique<LinuxPayload>()) {}

/// Moves the installed package to its place.
#include "UpgradeFrame/PackageKeeper.h"

#include <string>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

void Run(const std::string& command) {
  if (QVUpgradeTool::ExecCommand(command) != 0) LOGE("package is not kept: %s", command.c_str());
}

}  // namespace

void PackageKeeper::_SaveUpgradePack(UPGRADEACCESSTYPE source) {
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

/// Digest and unpacker. Every name that reaches the command line is quoted here.
#include "UpgradeFrame/AccessMng/PackageArchive.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace PackageArchive {

Failure _CheckFileMd5Sum(const std::string& path, const PackageManifest::Element& element) {
  LOGI("djh md5sum file path  :%s", path.c_str());
  const std::string digest = QVUpgradeTool::SumFileMd5(path.c_str());
  Failure failure = PackageManifest::CheckDigest(element, digest);
  if (failure) {
    LOGE("file md5sum is error strMd5Value:%s  upgradeFileMd5Sum:%s", digest.c_str(),
         Printable(element.md5).c_str());
  }
  return failure;
}

std::string UnpackCommand(const std::string& archive, const std::string& directory) {
  return "7za x -y " + ShellQuote(archive) + " -o" + ShellQuote(directory);
}

Failure Unpack(const std::string& archive, const std::string& directory, Reason reason) {
  XDeleteFile(directory + "/" + UpgradePaths::kManifestName);
  const int result = QVUpgradeTool::ExecUnlessStopped(UnpackCommand(archive, directory));
  if (result != 0) return Fail(reason, "the unpacker gave %d for %s", result, archive.c_str());
  QVUpgradeTool::ExecUnlessStopped("sync");
  return {};
}

}  // namespace PackageArchive

/// From the package's name to its files in the page. The commands are the device's own, to the letter.
#include "UpgradeFrame/AccessMng/PackageUnpack.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/AccessMng/DownloadDirectory.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePackage/PackageManifest.h"
#include "UpgradePackage/PackageName.h"

namespace PackageUnpack {

namespace {

constexpr const char* kUdiskCopyName = "ota.zip";

/// Ends the heavy processes whose memory the unpacker needs.
constexpr const char* kKillCommand =
    "(ps -ef |grep QVAudStreamMng|grep -v grep|awk '{print $2}'|xargs kill -9) && "
    "(ps -ef |grep QVFpgaMng|grep -v grep|awk '{print $2}'|xargs kill -9) && "
    "(ps -ef |grep QVZegoMng|grep -v grep|awk '{print $2}'|xargs kill -9)";

Failure BeginPage(const PackageClaim& claim, UPGRADEACCESSTYPE accessType,
                  std::initializer_list<UPGRADEACCESSTYPE> served);
Failure NoTask(const char* line, const std::string& why);
Failure CopyPack(const std::string& source, const std::string& target);
Failure UnpackArchive(const std::string& archive, const char* directory);
void _MoveUpgradePage();

/// The text after the last "/" or "\\" of a path: uploads may name their file in either way.
std::string UploadName(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

/// Frees the space of an archive that has been unpacked, or cannot be.
void DeleteArchive(const std::string& archive) {
  if (!XDeleteFile(archive)) LOGE("cannot delete %s: %s", archive.c_str(), std::strerror(errno));
}

}  // namespace

Failure Unpack(const AccessContext& access, UPGRADEACCESSTYPE accessType, const std::string& path) {
  if (Failure failure = BeginPage(access.claim, accessType, {UP_UDISK, UP_WEBS})) return failure;
  const std::string fileName = accessType == UP_UDISK
                                   ? QVUpgradeTool::ReadAllUpgradeFileOTAPack(path.c_str(), ".zip")
                                   : UploadName(path);
  if (fileName.empty()) return NoTask("get udisk zip file is error", "there is none in " + path);
  if (Failure failure = _CheckPackName(access.versions, accessType, fileName, true)) return failure;
  std::string archive = path;
  if (accessType == UP_UDISK) {
    LOGI("QVUpgradeAccessUdisk::  fileName:%s", fileName.c_str());
    archive = PackagePage::Path(kUdiskCopyName);
    if (Failure failure = CopyPack(path + "/" + fileName, archive)) return failure;
  }
  Failure failure = UnpackArchive(archive, UpgradePaths::kPage);
  DeleteArchive(archive);
  return failure;
}

Failure UnpackWebAndOTA(const AccessContext& access, UPGRADEACCESSTYPE accessType, const std::string& path,
                        bool checkVersion) {
  if (accessType == UP_WEBS) {
    Failure failure = _CheckPackName(access.versions, accessType, UploadName(path), checkVersion);
    if (failure) return failure;
  }
  if (Failure failure = BeginPage(access.claim, accessType, {UP_WEBS, UP_OTA})) return failure;
  DownloadDirectory::Clear(path);
  Failure failure = UnpackArchive(path, UpgradePaths::kDownload);
  if (!failure) _MoveUpgradePage();
  DeleteArchive(path);
  return failure;
}

Failure _CheckPackName(DeviceVersions& versions, UPGRADEACCESSTYPE accessType, const std::string& fileName,
                       bool checkVersion) {
  const char* const pattern = PackageName::Pattern(accessType, fileName);
  if (pattern == nullptr) return {};
  Failure failure;
  if (!PackageName::Matches(fileName, pattern)) {
    const std::string shown = Printable(fileName);
    LOGE("upgrade pack  name error fileName:%s fileNameBase:%s", shown.c_str(), pattern);
    failure = Fail(Reason::PackageName, "%s does not match %s", shown.c_str(), pattern);
  } else {
    const std::string newVersion = PackageName::SoftVersion(fileName);
    LOGI("fielName:%s newVerison:%s ", fileName.c_str(), newVersion.c_str());
    if (checkVersion)
      failure = PackagePage::CheckSoftVersion(newVersion, versions.getAllVersion().m_oldOverallVer);
  }
  if (failure) LOGE("Check pack name error");
  return failure;
}

namespace {

/// Refuses a package while another one is upgraded, else makes room for it; `served` are the sources that it
/// may come from.
Failure BeginPage(const PackageClaim& claim, UPGRADEACCESSTYPE accessType,
                  std::initializer_list<UPGRADEACCESSTYPE> served) {
  if (claim.GetStartUpgrade()) {
    LOGE("beingTask is have current upgrade  unpack failed.");
    return Fail(Reason::Busy, "the frame works on another package");
  }
  PackagePage::InitUpgradeFilePath();
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(UI_STATUS_STARTED, 0, kNoVersion, DataDef::EM_UPG_RRU);
  if (std::find(served.begin(), served.end(), accessType) != served.end()) return {};
  return NoTask("accessType is error not webs udisk ota",
                "nothing comes from source " + std::to_string(accessType));
}

Failure NoTask(const char* line, const std::string& why) {
  LOGE("%s", line);
  LOGI("Not have upgrade task");
  return Fail(Reason::PackageNone, "%s", why.c_str());
}

/// Copies the stick's package to `target`, by the shell when copying it ourselves fails.
Failure CopyPack(const std::string& source, const std::string& target) {
  LOGI("cp file old:%s new:%s", source.c_str(), target.c_str());
  XRemoveDirectory(PackagePage::kCoreDumps);
  QVUpgradeTool::ExecUnlessStopped("sync");
  if (CopyFile(source, target, CThread::StopRequested)) {
    QVUpgradeTool::ExecUnlessStopped("sync");
    LOGI("Udisk  copy file is ok");
    return {};
  }
  if (QVUpgradeTool::ExecUnlessStopped("cp " + ShellQuote(source) + "  " + ShellQuote(target)) == 0) {
    QVUpgradeTool::ExecUnlessStopped("sync");
    LOGI("comd cp file ok");
    return {};
  }
  LOGE("Udisk copy file error");
  partition_usage_t usage;
  QVUpgradeTool::getPartitionUserSize(UpgradePaths::kPage, &usage);
  return Fail(Reason::PackageCopy, "%s of %" PRId64 " bytes to %s, where %" PRIu64 " are free",
              source.c_str(), XGetFileSize(source), target.c_str(), usage.available_bytes);
}

Failure UnpackArchive(const std::string& archive, const char* directory) {
  QVUpgradeTool::ExecUnlessStopped(kKillCommand);
  LOGI("QVUpgradeAccessUdisk::  sysComd:%s", PackagePage::UnpackCommand(archive, directory).c_str());
  Failure failure = PackagePage::Unpack(archive, directory, Reason::PackageUnpack);
  LOGI("%s", failure ? "Udisk tar file is error" : "Udisk  tar ok");
  return failure;
}

std::string CopyToPageCommand(const std::string& name) {
  return FormatText("cp -rf %s %s", ShellQuote(std::string(UpgradePaths::kDownload) + "/" + name).c_str(),
                    UpgradePaths::kPage);
}

/// Copies the manifest and the archives that it names from the download directory to the page root. What is
/// not there then, the check refuses.
void _MoveUpgradePage() {
  XDeleteFile(PackagePage::Path(UpgradePaths::kManifestName));
  const std::string copyManifest = CopyToPageCommand(UpgradePaths::kManifestName);
  LOGI("cpVerisonFile:%s", copyManifest.c_str());
  QVUpgradeTool::ExecUnlessStopped(copyManifest);
  QVUpgradeTool::ExecUnlessStopped("sync");

  std::vector<PackageManifest::Element> elements;
  if (PackagePage::ReadManifest(elements)) return;
  for (const PackageManifest::Element& element : elements) {
    if (!PackagePage::IsForUnit(element)) continue;
    if (element.fileName.empty()) {
      LOGE("unusable file name of a %s package, not copied", element.type.c_str());
      continue;
    }
    const std::string copyPack = CopyToPageCommand(element.fileName);
    if (element.kind == PackageManifest::Kind::Portable) {
      LOGI("ppPackName:%s", copyPack.c_str());
    } else {
      LOGI("cpRRUPAck:%s", copyPack.c_str());
      LOGI("pagPath:%s/%s  subPath:%s", UpgradePaths::kDownload, element.fileName.c_str(),
           UpgradePaths::kPage);
    }
    if (QVUpgradeTool::ExecUnlessStopped(copyPack) != 0)
      LOGE("cannot copy %s to the page", element.fileName.c_str());
  }
  QVUpgradeTool::ExecUnlessStopped("sync");
}

}  // namespace

}  // namespace PackageUnpack

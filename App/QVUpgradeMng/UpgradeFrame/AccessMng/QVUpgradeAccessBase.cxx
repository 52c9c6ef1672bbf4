/// The common path of a package, in the order in which a package meets it: page, name, unpack, check, move.
/// The commands are the device's own, to the letter; what fails after the page was touched ends in
/// _FailAndReboot.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <stdexcept>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/AccessMng/PackageSteps.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/RebootCommands.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePackage/PackageName.h"
#include "UpgradePp/PpStore.h"

namespace {

using PackageSteps::Run;

constexpr mode_t kPageMode = 0765;
constexpr const char* kPageSubDirectories[] = {"/app",          "/system", "/rootfs", "/fpga",
                                               "/temp_all_ota", "/rtx",    "/mcu",    "/uac"};
constexpr const char* kCoreDumps = "/firmware/coredump";
constexpr const char* kUdiskCopyName = "/ota.zip";

/// Kept beside the logs for diagnosis when a manifest cannot be read, and how long the unit then stays as it
/// is.
constexpr const char* kBadManifestCopy = "/qv_data/11.json";
constexpr uint32_t kBadManifestPauseMs = 60'000;

/// Ends the heavy processes whose memory the unpacker needs.
constexpr const char* kKillCommand =
    "(ps -ef |grep QVAudStreamMng|grep -v grep|awk '{print $2}'|xargs kill -9) && "
    "(ps -ef |grep QVFpgaMng|grep -v grep|awk '{print $2}'|xargs kill -9) && "
    "(ps -ef |grep QVZegoMng|grep -v grep|awk '{print $2}'|xargs kill -9)";

/// All seven interrupts on all four cores: while the network needs the processor.
constexpr const char* kFreeAffinityCommand =
    "echo 15 > /proc/irq/70/smp_affinity &&echo 15 > /proc/irq/71/smp_affinity &&"
    "echo 15 > /proc/irq/79/smp_affinity &&echo 15 > /proc/irq/80/smp_affinity &&"
    "echo 15 > /proc/irq/66/smp_affinity &&echo 15 > /proc/irq/67/smp_affinity &&"
    "echo 15 > /proc/irq/46/smp_affinity";
/// The normal pinning: core 3 for 70, 71, 79, 80 and 46, core 0 for 66, core 2 for 67.
constexpr const char* kPinnedAffinityCommand =
    "echo 8 > /proc/irq/70/smp_affinity &&echo 8 > /proc/irq/71/smp_affinity &&"
    "echo 8 > /proc/irq/79/smp_affinity &&echo 8 > /proc/irq/80/smp_affinity &&"
    "echo 1 > /proc/irq/66/smp_affinity &&echo 4 > /proc/irq/67/smp_affinity &&"
    "echo 8 > /proc/irq/46/smp_affinity";

/// Ends the import of a portable-part package; does not leave this file.
class PpPackError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string PagePath(const std::string& name) {
  return std::string(UpgradePaths::kPage) + "/" + name;
}

std::string DownloadPath(const std::string& name) {
  return std::string(UpgradePaths::kDownload) + "/" + name;
}

std::string CopyToPageCommand(const std::string& name) {
  return FormatText("cp -rf %s %s", ShellQuote(DownloadPath(name)).c_str(), UpgradePaths::kPage);
}

/// The device type of an element of "otaList": empty, and logged, for anything but "RRU" and "PP".
std::string DeviceType(const Json::Value& item) {
  std::string type = JsonUtils::StringOr(item, "upgradeType", "");
  if (type == "RRU" || type == "PP") return type;
  LOGE("dev type error not RRU or PP!ErrVal:%s", Printable(type).c_str());
  return {};
}

/// Reads the page root's manifest; false, logged by the reader, when there is no list in it.
bool ReadPackageList(Json::Value& list) {
  const std::string path = PagePath(UpgradePaths::kManifestName);
  Json::Value manifest;
  if (!PackageSteps::IsRegularFileItself(path)) {
    LOGE("%s is no file", path.c_str());
    return false;
  }
  if (!QVUpgradeTool::readFileToJson(path.c_str(), manifest)) return false;
  if (!manifest.isObject() || !manifest["otaList"].isArray()) return false;
  list = manifest["otaList"];
  return true;
}

/// Keeps an unreadable manifest for diagnosis. Only a file of a manifest's size, and never through what an
/// earlier package left under the copy's name: both could lead the copy elsewhere.
void KeepBadManifest(const std::string& manifestFile) {
  const int64_t size = XGetFileSize(manifestFile);
  const bool harmless = PackageSteps::IsRegularFileItself(manifestFile) && size >= 0 &&
                        static_cast<uint64_t>(size) <= JsonUtils::kMaxDocumentBytes;
  if (!XRemoveDirectory(kBadManifestCopy) || !harmless) return;
  Run(FormatText("cp -rf %s %s", manifestFile.c_str(), kBadManifestCopy));
}

/// True, logged, while the frame works on a package.
bool IsUpgrading() {
  if (!QVUpgradeAccessFrame::getAccessFrame()->GetStartUpgrade()) return false;
  LOGE("beingTask is have current upgrade  unpack failed.");
  return true;
}

/// The text after the last "/" or "\\" of a path: uploads may name their file in either way.
std::string UploadName(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

/// Frees the space of an archive that has been unpacked.
void DeleteArchive(const std::string& archive) {
  if (!XDeleteFile(archive)) LOGE("cannot delete %s: %s", archive.c_str(), std::strerror(errno));
}

}  // namespace

void QVUpgradeAccessBase::InitUpgradeFilePath() {
  // Nothing of an earlier package, refused or broken, may become part of this one.
  if (!XRemoveDirectory(UpgradePaths::kPage)) {
    LOGE("cannot remove %s: %s", UpgradePaths::kPage, std::strerror(errno));
  }
  XCreateFullPathDir(UpgradePaths::kPage, kPageMode);
  for (const char* subDirectory : kPageSubDirectories) {
    const std::string directory = std::string(UpgradePaths::kPage) + subDirectory;
    if (!XCreateFullPathDir(directory, kPageMode)) {
      LOGE("cannot create %s: %s", directory.c_str(), std::strerror(errno));
    }
  }
  XRemoveDirectory(kCoreDumps);
}

bool QVUpgradeAccessBase::Unpack(UPGRADEACCESSTYPE accessType, const std::string& path) {
  if (IsUpgrading()) return false;
  InitUpgradeFilePath();
  _ReportStatus(UI_STATUS_STARTED);

  if (accessType != UP_UDISK && accessType != UP_WEBS) {
    LOGE("accessType is error not webs udisk ota");
    return _NoTask();
  }
  const std::string fileName = accessType == UP_UDISK
                                   ? QVUpgradeTool::ReadAllUpgradeFileOTAPack(path.c_str(), ".zip")
                                   : UploadName(path);
  if (fileName.empty()) {
    LOGE("get udisk zip file is error");
    return _NoTask();
  }
  if (!_CheckPackName(accessType, fileName, true)) {
    LOGE("Check pack name error");
    return false;
  }
  std::string archive = path;
  if (accessType == UP_UDISK) {
    LOGI("QVUpgradeAccessUdisk::  fileName:%s", fileName.c_str());
    archive = std::string(UpgradePaths::kPage) + kUdiskCopyName;
    if (!_CopyPack(path + "/" + fileName, archive)) {
      _FailAndReboot();
      return false;
    }
  }
  if (!_UnpackArchive(archive, UpgradePaths::kPage)) return false;
  DeleteArchive(archive);
  return true;
}

bool QVUpgradeAccessBase::UnpackWebAndOTA(UPGRADEACCESSTYPE accessType, const std::string& path,
                                          bool checkVersion) {
  if (accessType == UP_WEBS && !_CheckPackName(accessType, UploadName(path), checkVersion)) {
    LOGE("Check pack name error");
    return false;
  }
  if (IsUpgrading()) return false;
  InitUpgradeFilePath();
  _ReportStatus(UI_STATUS_STARTED);

  if (accessType != UP_WEBS && accessType != UP_OTA) {
    LOGE("accessType is error not webs udisk ota");
    return _NoTask();
  }
  PackageSteps::ClearDownloads(path);
  if (!_UnpackArchive(path, UpgradePaths::kDownload)) return false;
  _MoveUpgradePage();
  DeleteArchive(path);
  return true;
}

bool QVUpgradeAccessBase::_CheckPackName(UPGRADEACCESSTYPE accessType, const std::string& fileName,
                                         bool checkVersion) {
  const char* pattern = PackageName::Pattern(accessType, fileName);
  if (pattern == nullptr) return true;
  if (!PackageName::Matches(fileName, pattern)) {
    _ReportStatus(UI_STATUS_FAILED);
    LOGE("upgrade pack  name error fileName:%s fileNameBase:%s", Printable(fileName).c_str(), pattern);
    return false;
  }
  const std::string newVersion = PackageName::SoftVersion(fileName);
  LOGI("fielName:%s newVerison:%s ", fileName.c_str(), newVersion.c_str());
  if (!checkVersion) return true;

  const AllVersion versions = QVUpgradeAccessFrame::getAccessFrame()->getAllVersion();
  const std::string& oldVersion = versions.m_oldOverallVer.m_softVersion;
  if (newVersion != oldVersion) return true;
  LOGE("softVersion error new softVersion:%s  old softVerison:%s", newVersion.c_str(), oldVersion.c_str());
  _ReportStatus(UI_STATUS_SAME_VERSION);
  return false;
}

bool QVUpgradeAccessBase::_CopyPack(const std::string& source, const std::string& target) {
  LOGI("cp file old:%s new:%s", source.c_str(), target.c_str());
  XRemoveDirectory(kCoreDumps);
  Run("sync");
  if (CopyFile(source, target, CThread::StopRequested)) {
    Run("sync");
    LOGI("Udisk  copy file is ok");
    return true;
  }
  if (Run("cp " + ShellQuote(source) + "  " + ShellQuote(target)) == 0) {
    Run("sync");
    LOGI("comd cp file ok");
    return true;
  }
  LOGE("Udisk copy file error");
  return false;
}

bool QVUpgradeAccessBase::_UnpackArchive(const std::string& archive, const char* directory) {
  Run(kKillCommand);
  LOGI("QVUpgradeAccessUdisk::  sysComd:%s", PackageSteps::UnpackCommand(archive, directory).c_str());
  if (!PackageSteps::Unpack(archive, directory)) {
    LOGI("Udisk tar file is error");
    DeleteArchive(archive);  // it would fill the file system for the next one
    _FailAndReboot();
    return false;
  }
  LOGI("Udisk  tar ok");
  return true;
}

bool QVUpgradeAccessBase::_NoTask() {
  LOGI("Not have upgrade task");
  _ReportStatus(UI_STATUS_NO_TASK);
  return false;
}

bool QVUpgradeAccessBase::_MoveUpgradePage() {
  XDeleteFile(PagePath(UpgradePaths::kManifestName));
  const std::string copyManifest = CopyToPageCommand(UpgradePaths::kManifestName);
  LOGI("cpVerisonFile:%s", copyManifest.c_str());
  Run(copyManifest);
  Run("sync");

  Json::Value list;
  if (!ReadPackageList(list)) return false;
  for (const Json::Value& item : list) {
    const std::string type = DeviceType(item);
    if (type.empty()) continue;
    std::string fileName;
    if (!PackageSteps::GetArchiveName(item, "fileName", fileName)) {
      LOGE("unusable file name of a %s package, not copied", type.c_str());  // the check refuses it
      continue;
    }
    const std::string copyPack = CopyToPageCommand(fileName);
    if (type == "PP") {
      LOGI("ppPackName:%s", copyPack.c_str());
    } else {
      LOGI("cpRRUPAck:%s", copyPack.c_str());
      LOGI("pagPath:%s  subPath:%s", DownloadPath(fileName).c_str(), UpgradePaths::kPage);
    }
    if (Run(copyPack) != 0) LOGE("cannot copy %s to the page", fileName.c_str());
  }
  Run("sync");
  return true;
}

int QVUpgradeAccessBase::CheckPack(const AllVersion& current) {
  const std::string manifestFile = PagePath(UpgradePaths::kManifestName);
  LOGI("otaVersionFileName:%s", manifestFile.c_str());
  Json::Value list;
  if (!ReadPackageList(list)) {
    LOGE("readFile to json failed.File:%s", manifestFile.c_str());
    KeepBadManifest(manifestFile);
    CThread::Pause(kBadManifestPauseMs);
    return EM_RET_FAILED;
  }

  AllVersion versions = current;
  int result = EM_RET_FAILED;
  for (const Json::Value& item : list) {
    const std::string type = DeviceType(item);
    if (type == "PP") {
      _CheckPpPack(versions, item);
    } else if (type == "RRU") {
      result = _CheckRruPack(current, item);
      if (result == EM_RET_FAILED) break;  // the unit reboots: no later element may turn that into a success
    }
  }
  return result;
}

int QVUpgradeAccessBase::_CheckRruPack(const AllVersion& current, const Json::Value& item) {
  const OTAVersion& installed = current.m_oldOverallVer;
  OTAVersion offered;
  std::string fileName;
  std::string md5;
  if (!PackageSteps::GetVersion(item, "softVersion", offered.m_softVersion) ||
      !PackageSteps::GetVersion(item, "hardVersion", offered.m_hardVersion) ||
      !PackageSteps::GetArchiveName(item, "fileName", fileName) ||
      !JsonUtils::GetString(item, "fileMd5sum", md5)) {
    LOGE("checkFileMd5sum error");
    _FailAndReboot();
    return EM_RET_FAILED;
  }
  if (offered.m_softVersion == installed.m_softVersion) {
    LOGE("softVersion error new softVersion:%s  old softVerison:%s", offered.m_softVersion.c_str(),
         installed.m_softVersion.c_str());
    _ReportStatus(UI_STATUS_SAME_VERSION);
    return EM_RET_NO_NEED;
  }
  if (offered.m_hardVersion != installed.m_hardVersion) {
    LOGE("hardVersion error new hardVersion:%s  old hardVersion:%s", offered.m_hardVersion.c_str(),
         installed.m_hardVersion.c_str());
    _FailAndReboot();
    return EM_RET_FAILED;
  }

  const std::string archive = PagePath(fileName);
  LOGI("check file md5sum file:%s", archive.c_str());
  if (!_CheckFileMd5Sum(archive, md5)) {
    LOGE("checkFileMd5sum error");
    _FailAndReboot();
    return EM_RET_FAILED;
  }
  LOGI("newSoftVersion:%s  newHardVersion:%s oldSoft:%s  oldHard:%s", offered.m_softVersion.c_str(),
       offered.m_hardVersion.c_str(), installed.m_softVersion.c_str(), installed.m_hardVersion.c_str());
  LOGI("sysTarComd :%s", PackageSteps::UnpackCommand(archive, UpgradePaths::kPageRruStaging).c_str());
  if (!PackageSteps::Unpack(archive, UpgradePaths::kPageRruStaging)) {
    LOGE("tar %s  error", archive.c_str());
    _FailAndReboot();
    return EM_RET_FAILED;
  }
  QVUpgradeAccessFrame::getAccessFrame()->SetNewOverallVersion(offered);
  return EM_RET_SUCCESS;
}

bool QVUpgradeAccessBase::_CheckFileMd5Sum(const std::string& path, const std::string& md5,
                                           std::string* computed) {
  LOGI("djh md5sum file path  :%s", path.c_str());
  const std::string digest = QVUpgradeTool::SumFileMd5(path.c_str());
  if (computed != nullptr) *computed = digest;
  if (!digest.empty() && digest == md5) return true;
  LOGE("file md5sum is error strMd5Value:%s  upgradeFileMd5Sum:%s", digest.c_str(), Printable(md5).c_str());
  return false;
}

bool QVUpgradeAccessBase::_CheckPpPack(AllVersion& versions, const Json::Value& item) {
  LOGD("_CheckPpPack start");
  bool passed = true;
  int imported = 0;
  try {
    _ImportPpPack(versions, item, imported);
    LOGI("%s", imported > 0 ? "===Successfully imported PP upgrade package!===" : "No new package.");
  } catch (const PpPackError& error) {
    LOGE("%s", error.what());
    passed = false;
  }
  // Also after a failure: the store may have lost a package, or got one before.
  if (imported > 0 || !passed) QVUpgradeAccessFrame::getAccessFrame()->NotifyPpImported();
  LOGD("_CheckPpPack end");
  return passed;
}

void QVUpgradeAccessBase::_ImportPpPack(AllVersion& versions, const Json::Value& item, int& imported) {
  std::string fileName;
  std::string md5;
  if (!PackageSteps::GetArchiveName(item, "fileName", fileName) ||
      !JsonUtils::GetString(item, "fileMd5sum", md5)) {
    throw PpPackError("unusable element of a PP package");
  }
  const std::string archive = PagePath(fileName);
  std::string computed;
  if (!_CheckFileMd5Sum(archive, md5, &computed)) {
    throw PpPackError("checkFileMd5sum error! File val:" + Printable(md5) + ", calculation val:" + computed);
  }
  // The package that held this one may have put anything in its place, a link to elsewhere too.
  if (!XRemoveDirectory(UpgradePaths::kPagePp) || !XCreateFullPathDir(UpgradePaths::kPagePp, kPageMode)) {
    throw PpPackError(std::string("cannot clear ") + UpgradePaths::kPagePp + ": " + std::strerror(errno));
  }
  if (!PackageSteps::Unpack(archive, UpgradePaths::kPagePp)) {
    throw PpPackError("Unzip " + archive + "error!");
  }
  const std::string listFile = std::string(UpgradePaths::kPagePp) + "/" + UpgradePaths::kManifestName;
  Json::Value list;
  if (!QVUpgradeTool::readFileToJson(listFile.c_str(), list)) throw PpPackError("read version error");
  if (!list.isArray()) {
    throw PpPackError("jsPpInfo error content!ErrVal:" + Printable(JsonUtils::ToCompactText(list)));
  }
  for (const Json::Value& package : list) {
    if (_ImportPpFamily(versions, package)) ++imported;
  }
}

bool QVUpgradeAccessBase::_ImportPpFamily(AllVersion& versions, const Json::Value& package) {
  const char* const unusable = "unusable element in the list of a PP package";
  std::string pageType;
  if (!JsonUtils::GetString(package, "pageType", pageType)) throw PpPackError(unusable);
  const PpStore::Family* family = PpStore::Find(pageType);
  if (family == nullptr) {
    LOGW("Unknow type of PP, ErrVal:%s", Printable(pageType).c_str());
    return false;
  }
  std::string version;
  std::string pageName;
  if (!PackageSteps::GetVersion(package, "version", version) ||
      !PackageSteps::GetFileName(package, "pageName", pageName)) {
    throw PpPackError(unusable);
  }
  const std::string stored = *VersionRecord::Field(versions.m_SubmodulesVer, family->type);
  if (version == stored) {
    LOGW("%s version same! Stored ver:%s, intput ver:%s.", family->pageType, stored.c_str(), version.c_str());
    return false;
  }
  LOGI("%s version diff! Stored ver:%s, intput ver:%s.", family->pageType, stored.c_str(), version.c_str());
  const std::string source = std::string(UpgradePaths::kPagePp) + "/" + pageName;
  if (!PpStore::IsPackage(*family, source)) {
    throw PpPackError("not a package of " + pageType + ": " + source);
  }
  const auto storeVersion = [&](const std::string& value) {
    const auto store = [&](AllVersion& record) {
      *VersionRecord::Field(record.m_SubmodulesVer, family->type) = value;
    };
    store(versions);
    QVUpgradeAccessFrame::getAccessFrame()->SetVersion(store);
  };
  // While the packages are exchanged the store may hold none, and stays so after a power cut or a failed
  // move: neither package may then be taken for the one that is there already.
  storeVersion(kNoVersion);
  std::string error;
  if (!PpStore::Replace(*family, source, error)) throw PpPackError(error);
  storeVersion(version);
  return true;
}

bool QVUpgradeAccessBase::MovePack() {
  if (_MovePages()) return true;
  _FailAndReboot("mv pack error  reboot");
  return false;
}

bool QVUpgradeAccessBase::_MovePages() {
  const std::string staging = std::string(UpgradePaths::kPageRruStaging) + "/";
  Json::Value list;
  if (!QVUpgradeTool::readFileToJson((staging + UpgradePaths::kManifestName).c_str(), list)) {
    LOGE("read version error");
    return false;
  }
  if (!list.isArray()) {
    LOGE("upgradeVersion is null");
    return false;
  }
  const UpgradeTypeNames typeNames = QVUpgradeAccessFrame::getAccessFrame()->getUpgradeTypeName();
  std::set<UPGRADETYPE> moved;
  for (const Json::Value& item : list) {
    if (!item.isObject() || !item.isMember("pageType") || !item.isMember("version") ||
        !item.isMember("pageName")) {
      LOGE("page json file error not pagetype or version or pageName");
      continue;
    }
    const auto typeName = typeNames.find(JsonUtils::StringOr(item, "pageType", ""));
    if (typeName == typeNames.end()) {
      LOGE("not find pageType");
      continue;
    }
    std::string pageName;
    std::string version;
    if (!PackageSteps::GetFileName(item, "pageName", pageName) ||
        !PackageSteps::GetFileName(item, "version", version) || !IsValidUtf8(version) ||
        !moved.insert(typeName->second.second).second) {
      LOGE("unusable or second entry of %s", typeName->first.c_str());
      return false;
    }
    const std::string target = PagePath(typeName->second.first) + "/" + pageName;
    LOGI("pagPath:%s  subPath:%s", (staging + pageName).c_str(), target.c_str());
    if (!XRenameFile(staging + pageName, target)) {
      LOGE("cannot move %s to %s: %s", pageName.c_str(), target.c_str(), std::strerror(errno));
      return false;
    }
  }
  Run("sync");
  return true;
}

void QVUpgradeAccessBase::_SetSmpAffinityToCpu0(bool change) {
  LOGI("djh _SetSmpAffinityToCpu0 bChange:%d", static_cast<int>(change));
  const int result = change ? Run(kFreeAffinityCommand) : QVUpgradeTool::ExecCommand(kPinnedAffinityCommand);
  if (result != 0) LOGE("interrupts cannot be moved: %d", result);
}

void QVUpgradeAccessBase::_ReportStatus(int status) {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(status, 0, kNoVersion, DataDef::EM_UPG_RRU);
}

void QVUpgradeAccessBase::_FailAndReboot(const char* lastLine) {
  if (CThread::StopRequested()) return;
  _ReportStatus(UI_STATUS_FAILED);
  _BeforeReboot();
  Run(kStopDisplayWatchdogCommand);
  if (lastLine != nullptr) LOGE("%s", lastLine);
  Run(kRebootCommand);
}

/// The states of one upgrade, in the order in which it meets them, and what they write to the disk. Started
/// by the access frame. State names, commands and their order are fixed; a new state is a line in the table
/// and a handler.
#include "UpgradeFrame/QVUpgradeFrameBase.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/RebootCommands.h"
#include "UpgradeFrame/RtxSubmodules/CQVUpgradeRtx.h"
#include "UpgradeFrame/SubmoduleFactory.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeFrame/VersionRecord.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

constexpr const char* kStateIdle = "Idle";
constexpr const char* kStatePreprocess = "Areprocess";
constexpr const char* kStateCheck = "Check";
constexpr const char* kStateUpgrading = "Upgrading";
constexpr const char* kStateSuccess = "Success";
constexpr const char* kStateFaild = "Faild";
constexpr const char* kStateSwitch = "Switch";

constexpr int kVersionBroadcasts = 5;
constexpr uint32_t kBroadcastPauseMs = 2000;
constexpr uint32_t kStopServicesPauseMs = 5000;
constexpr uint32_t kUpgradingPassMs = 5000;
constexpr int kMaxUpgradingPasses = 400;
constexpr int kMaxPercent = 100;
constexpr uint32_t kBeforeReportPauseMs = 60000;
constexpr uint32_t kUbootPauseMs = 2000;
constexpr int kRebootAttempts = 3;
constexpr uint32_t kRebootPauseMs = 2000;

/// A package has a handful of parts; a manifest with more entries than this was not made by a packager.
constexpr Json::ArrayIndex kMaxManifestEntries = 64;
constexpr mode_t kVersionDirMode = 0755;

constexpr const char* kFirstUpgradeMarker = "/var/first_upgrade.ini";
constexpr const char* kUbootImage = "/firmware/upload/page/system/flash.bin";
constexpr const char* kUbootMarker = "/firmware/upload/page/system/flash.bin.upgrade";

/// The radio modules' upgrader is the frame's own; the factory makes the others.
std::shared_ptr<IQVUpgrade> CreateUpgrader(UPGRADETYPE type) {
  if (type == UP_RTX) return std::make_shared<CQVUpgradeRtx>();
  return SubmoduleFactory::Create(type);
}

}  // namespace

/// Idle -> Areprocess -> Check -> Upgrading -> Success or Faild -> Switch, where the unit reboots.
const QVUpgradeFrameBase::Table QVUpgradeFrameBase::m_MapStateMachineFunc = {
    {kStateIdle, &QVUpgradeFrameBase::_IdleState},
    {kStatePreprocess, &QVUpgradeFrameBase::_Preprocess},
    {kStateCheck, &QVUpgradeFrameBase::_CheckUpgrade},
    {kStateUpgrading, &QVUpgradeFrameBase::_Upgrading},
    {kStateSuccess, &QVUpgradeFrameBase::_UpgradSuccess},
    {kStateFaild, &QVUpgradeFrameBase::_UpgradFail},
    {kStateSwitch, &QVUpgradeFrameBase::_SwitchPartition},
};

QVUpgradeFrameBase::QVUpgradeFrameBase()
    : StateMachine("UpgradeFrame", m_MapStateMachineFunc, kStateIdle),
      m_submodules(&CreateUpgrader, &QVUpgradeFrameBase::UpgradePrecentCallback, this),
      m_versionBroadcast("UpgFrameVer") {
  if (!XRemoveDirectory(UpgradePaths::kPage)) LOGE("%s cannot be removed", UpgradePaths::kPage);
  _ReadPartitionFile();
}

void QVUpgradeFrameBase::_ReadPartitionFile() {
  m_currentPart = m_markers.RunningPartition();
  m_nextPart = m_currentPart == UpgradePaths::kAppA ? UpgradePaths::kAppB : UpgradePaths::kAppA;
  LOGI("New m_currentPart: %s  m_nextPart: %s\n", m_currentPart.c_str(), m_nextPart.c_str());
}

QVUpgradeFrameBase::~QVUpgradeFrameBase() {
  if (HasCrashed()) return;
  RequestStop();
  CleanUp();
}

bool QVUpgradeFrameBase::Init() {
  return CreateThread(0);
}

void QVUpgradeFrameBase::RequestStop() {
  DestroyThread(true, false);
  m_versionBroadcast.DestroyThread(true, false);
  m_mcuStartup.RequestStop();
  m_submodules.RequestStop();
}

bool QVUpgradeFrameBase::CleanUp() {
  const bool frameEnded = DestroyThread(true, true);
  const bool upgradersEnded = m_submodules.CleanUp();
  const bool broadcastEnded = m_versionBroadcast.DestroyThread(true, true);
  return frameEnded && upgradersEnded && broadcastEnded;
}

bool QVUpgradeFrameBase::startUpgrade(int /*accessType*/, AllVersion newVersion) {
  if (m_pAccess == nullptr) return false;
  return _QueueFromIdle(kStateIdle, kStatePreprocess, [&] {
    m_frameVersion = std::move(newVersion);
    LOGI("newHard:%s  newSoft:%s", m_frameVersion.m_newOverallVer.m_hardVersion.c_str(),
         m_frameVersion.m_newOverallVer.m_softVersion.c_str());
  });
}

bool QVUpgradeFrameBase::LoadVersion() {
  AllVersion versions;
  const bool loaded = VersionRecord::Read(m_currentPart + UpgradePaths::kVersionFile, versions) &&
                      _ChangeInIdle(kStateIdle, [&] { m_frameVersion = std::move(versions); });
  _LoadMcuVersion();
  return loaded;
}

/// A version that is only written differently, with a "V" as packages have it, stays as it is.
void QVUpgradeFrameBase::_LoadMcuVersion() {
  const std::optional<McuVersion> running = m_mcuStartup.Run();
  IUpgradeAccess* const access = m_pAccess;
  if (!running || access == nullptr) return;
  if (McuVersion::Parse(access->getAllVersion().m_SubmodulesVer.m_mcuVersion) == running) return;
  const auto enter = [&running](AllVersion& versions) {
    versions.m_SubmodulesVer.m_mcuVersion = running->Text();
  };
  access->SetVersion(enter);
  _ChangeInIdle(kStateIdle, [&] { enter(m_frameVersion); });
}

int QVUpgradeFrameBase::UpgradePrecentCallback(int progress, UPGRADETYPE type, void* ctx) {
  static_cast<QVUpgradeFrameBase*>(ctx)->m_submodules.ProgressSum(progress, type);
  return 0;
}

bool QVUpgradeFrameBase::registerSubModule(const std::string& name, const IQVUpgrade& upgrader) {
  const std::lock_guard<std::mutex> lock(m_registryMutex);
  return m_pUpgradeModels.emplace(name, &upgrader).second;
}

void QVUpgradeFrameBase::ThreadProc() {
  LOGD("Enter QVUpgradeFrameBase Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  StateMachine::ThreadProc();
}

std::string QVUpgradeFrameBase::_IdleState() {
  LOGI("QVUpgradeFrameBase::_IdleState");
  if (!m_versionBroadcast.Post([this] { _BroadcastVersion(); })) LOGE("version broadcast cannot be started");
  _WaitForQueuedState();
  return kStateIdle;
}

/// Tells a panel that starts later than this process what is installed. Broadcast thread.
void QVUpgradeFrameBase::_BroadcastVersion() {
  while (m_sendUIVersionNum < kVersionBroadcasts) {
    IUpgradeAccess* access = m_pAccess;
    if (access != nullptr) access->SendVersionUI();
    if (!Pause(kBroadcastPauseMs)) return;
    if (access != nullptr) ++m_sendUIVersionNum;
  }
}

std::string QVUpgradeFrameBase::_Preprocess() {
  LOGI("QVUpgradeFrameBase::_Preprocess");
  const std::string path = std::string(UpgradePaths::kPageRruStaging) + "/" + UpgradePaths::kManifestName;
  Json::Value manifest;
  bool readable = QVUpgradeTool::readFileToJson(path.c_str(), manifest);
  if (readable && !manifest.isArray()) {
    LOGE("%s is no list of parts", path.c_str());
    readable = false;
  }
  if (!readable) {
    _SendPanel(UI_STATUS_FAILED, 100, kNoVersion);
    return kStateFaild;
  }
  _SendPanel(UI_STATUS_STARTED, 0, kNoVersion);

  IUpgradeAccess* access = m_pAccess;
  const UpgradeTypeNames names = access->getUpgradeTypeName();
  QVUpgradeVersionInfo installed = access->getAllVersion().m_SubmodulesVer;
  if (manifest.size() > kMaxManifestEntries) {
    LOGE("manifest has %u entries, all after the first %u are skipped", manifest.size(), kMaxManifestEntries);
    manifest.resize(kMaxManifestEntries);
  }
  for (const Json::Value& entry : manifest) _AddManifestEntry(entry, names, installed);
  _WarnOfSkippedSocParts();
  return kStateCheck;
}

/// Notes the part that `entry` describes when it is one of this unit's, in another version than the installed
/// one.
void QVUpgradeFrameBase::_AddManifestEntry(const Json::Value& entry, const UpgradeTypeNames& names,
                                           QVUpgradeVersionInfo& installed) {
  std::string pageType;
  std::string version;
  std::string pageName;
  if (!JsonUtils::GetString(entry, "pageType", pageType) ||
      !JsonUtils::GetString(entry, "version", version) ||
      !JsonUtils::GetString(entry, "pageName", pageName)) {
    LOGE("manifest entry skipped: no text in pageType, version or pageName");
    return;
  }
  const auto name = names.find(pageType);
  if (name == names.end()) {
    LOGI("subModules:%s no upgrade required", pageType.c_str());
    return;
  }
  const auto& [directory, type] = name->second;
  const std::string* installedVersion = VersionRecord::Field(installed, type);
  if (installedVersion != nullptr && *installedVersion == version) {
    LOGI("subModulesType:%s  oldVer:%s  newVer:%s", pageType.c_str(), installedVersion->c_str(),
         version.c_str());
    return;
  }
  if (!IsPlainFileName(pageName) || !IsPlainFileName(version) || !IsValidUtf8(version)) {
    LOGE("manifest entry of %s skipped: unusable pageName or version", pageType.c_str());
    return;
  }

  QVUpgradingInfo info;
  info.m_modeulesType = type;
  info.m_flashPartition = m_nextPart;
  info.m_upgradeFilePath = std::string(UpgradePaths::kPage) + "/" + directory + "/" + pageName;
  info.m_upgradeVersion = version;
  info.m_upgradFileName = pageName;
  if (!m_submodules.AddRecord(info)) {
    LOGE("manifest entry skipped: %s stands there twice", pageType.c_str());
    return;
  }
  LOGI(
      "m_modeulesType:%d\n m_upgradeStatus:%d \n m_partitionFile:%s \n m_upgradeFilePath:%s\n "
      "m_upgradFileName:%s",
      info.m_modeulesType, info.m_upgradeStatus, info.m_flashPartition.c_str(),
      info.m_upgradeFilePath.c_str(), info.m_upgradFileName.c_str());
}

/// The switch takes application, system and root file system together, so a part left out is booted as the
/// next partition holds it, which may be older than the one that runs.
void QVUpgradeFrameBase::_WarnOfSkippedSocParts() const {
  constexpr std::pair<UPGRADETYPE, const char*> kSocParts[] = {
      {UP_APP, "app"}, {UP_SYSTEM, "system"}, {UP_ROOTFS, "rootfs"}};
  for (const auto& [type, name] : kSocParts) {
    if (!m_submodules.HasRecord(type)) {
      LOGW("%s is not upgraded: %s keeps the version it has", name, m_nextPart.c_str());
    }
  }
}

std::string QVUpgradeFrameBase::_CheckUpgrade() {
  LOGI("QVUpgradeFrameBase::_CheckUpgrade");
  m_submodules.BeginProgress();
  m_mcuStartup.HandOverLine();
  _StopQuorvalen();
  if (StopRequested()) return kStateUpgrading;
  QVUpgradeTool::ExecCommand("pkill -9 QVSysCtrl");
  if (!StopRequested()) m_submodules.Start();
  return kStateUpgrading;
}

void QVUpgradeFrameBase::_StopQuorvalen() {
  if (QVUpgradeTool::ExecCommand("systemctl stop quorvalen") == 0) {
    LOGI("stop quorvalen ok");
  } else {
    LOGE("stop quorvalen field");
  }
  if (Pause(kStopServicesPauseMs)) QVUpgradeTool::ExecCommand(kStopDisplayWatchdogCommand);
}

std::string QVUpgradeFrameBase::_Upgrading() {
  LOGI("QVUpgradeFrameBase::_Upgrading");
  std::string next = _JudgePass();
  ++m_upgradeTime;
  Pause(kUpgradingPassMs);
  return next;
}

std::string QVUpgradeFrameBase::_JudgePass() {
  m_submodules.LogProgress(m_upgradeTime);
  const bool timedOut = m_upgradeTime > kMaxUpgradingPasses;
  if (!m_submodules.AllFinished()) {
    if (!timedOut) {
      // A part may end between these two looks, and with its increments the sum may pass 100.
      _SendPanel(UI_STATUS_UPGRADING, std::min(kMaxPercent, m_submodules.Percent()), kNoVersion);
      return kStateUpgrading;
    }
    m_submodules.QueryProgress();
  }
  return m_submodules.CheckModeUpgrade() ? kStateSuccess : kStateFaild;
}

/// From the marker change to the end of the boot loader a stop ends pauses but no work: a unit that is
/// stopped there boots the new partition with the boot loader that belongs to it. A version file or marker
/// that cannot be written fails the upgrade: the other partition is not fit to boot.
std::string QVUpgradeFrameBase::_UpgradSuccess() {
  LOGI("QVUpgradeFrameBase::_UpgradSuccess");
  LOGI("m_currentPart:%s m_nextPart:%s", m_currentPart.c_str(), m_nextPart.c_str());
  if (!_WirteNewVersion() || !m_markers.SwitchFrom(m_currentPart)) return kStateFaild;
  _SaveUpgradePack();
  if (!XDeleteFile(kFirstUpgradeMarker)) LOGE("%s cannot be deleted", kFirstUpgradeMarker);
  if (_UpgradeUboot()) LOGI("upgrade uboot ok");

  if (Pause(kBeforeReportPauseMs)) {
    _SendPanel(UI_STATUS_FINISHED, 100, m_frameVersion.m_newOverallVer.m_softVersion);
  }
  return kStateSwitch;
}

std::string QVUpgradeFrameBase::_UpgradFail() {
  LOGI("QVUpgradeFrameBase::_UpgradFail");
  _WirteNewVersion();
  if (Pause(kBeforeReportPauseMs)) _SendPanel(UI_STATUS_FAILED, 100, kNoVersion);
  return kStateSwitch;
}

/// Writes the next partition's version file: the versions of the parts that succeeded, and the new overall
/// version only when all did.
bool QVUpgradeFrameBase::_WirteNewVersion() {
  const bool partsComplete = m_submodules.CollectVersions(m_frameVersion.m_SubmodulesVer);
  // An upgrade also fails before its parts are known, or after all of them succeeded.
  const bool complete = partsComplete && m_StateMachine != kStateFaild;
  const OTAVersion& overall = complete ? m_frameVersion.m_newOverallVer : m_frameVersion.m_oldOverallVer;
  LOGI("softVersion:%s  hardVersion:%s", overall.m_softVersion.c_str(), overall.m_hardVersion.c_str());

  Json::Value record = VersionRecord::ToJson(overall, m_frameVersion.m_SubmodulesVer);
  if (complete) {
    Json::Value otaList = _ReadOTAPackMsg();
    if (otaList.isArray() && !otaList.empty()) record["otaList"] = std::move(otaList);
  }
  const std::string path = m_nextPart + UpgradePaths::kVersionFile;
  if (!IsMountPoint(m_nextPart) || !XCreateFullPathDir(path.substr(0, path.rfind('/')), kVersionDirMode) ||
      !JsonUtils::WriteFileToJson(path, record, true)) {
    LOGE("%s cannot be written", path.c_str());
    return false;
  }
  LOGI("write version:%s", path.c_str());
  return true;
}

/// What the cloud said of the package, as its manifest has it; null for a package from elsewhere.
Json::Value QVUpgradeFrameBase::_ReadOTAPackMsg() const {
  if (m_upgradeType != UP_OTA) return {};
  const std::string path = std::string(UpgradePaths::kPage) + "/" + UpgradePaths::kManifestName;
  Json::Value manifest;
  if (!QVUpgradeTool::readFileToJson(path.c_str(), manifest) || !manifest.isObject()) return {};
  return manifest.get("otaList", Json::Value());
}

/// Keeps the installed package where the web page offers it.
void QVUpgradeFrameBase::_SaveUpgradePack() const {
  const std::string kept = UpgradePaths::kNewPackage;
  const std::string page = UpgradePaths::kPage;
  if (!XRemoveDirectory(kept)) LOGE("%s cannot be removed", kept.c_str());
  QVUpgradeTool::ExecCommand("sync");
  const auto exec = [](const std::string& command) {
    if (QVUpgradeTool::ExecCommand(command) != 0) LOGE("package is not kept: %s", command.c_str());
  };
  // A download that was broken off is of a version that is behind now: nobody goes on with it.
  exec("rm -rf " + std::string(UpgradePaths::kDownload) + "/*" + UpgradePaths::kUnfinishedExtension);
  if (m_upgradeType == UP_UDISK) {
    exec("mkdir " + kept);
    exec("cp " + page + "/" + UpgradePaths::kManifestName + " " + kept + "/");
    exec("mv " + page + "/*.zip " + kept + "/");
  } else {
    exec("mv " + std::string(UpgradePaths::kDownload) + " " + kept);
  }
  QVUpgradeTool::ExecCommand("sync");
  LOGI("save page");
}

/// Writes the package's boot loader. False when the package has none or it could not be written.
bool QVUpgradeFrameBase::_UpgradeUboot() {
  if (!XIsRegularFile(kUbootImage) || !XIsRegularFile(kUbootMarker)) {
    LOGI("no upgrade uboot");
    return false;
  }
  struct Step {
    const char* command;
    uint32_t pauseMs;  ///< after it
  };
  constexpr Step kSteps[] = {
      {"echo 0 > /sys/block/mmcblk2boot0/force_ro", 0},
      {"dd if=/dev/zero of=/dev/mmcblk2boot0 bs=1k count=256", 0},
      {"sync", kUbootPauseMs},
      {"dd if=/firmware/upload/page/system/flash.bin of=/dev/mmcblk2 bs=1k seek=32", 0},
      {"sync", 0},
  };
  for (const Step& step : kSteps) {
    if (QVUpgradeTool::ExecCommand(step.command) != 0) {
      LOGE("upgrade uboot eroor:%s", step.command);
      return false;
    }
    if (step.pauseMs != 0) Pause(step.pauseMs);
  }
  return true;
}

/// Reboots. After a stop it runs nothing more: whoever stopped the daemon decides what happens to the unit.
std::string QVUpgradeFrameBase::_SwitchPartition() {
  LOGI("QVUpgradeFrameBase::_SwitchPartition");
  LOGI("upgrade switchpartion ok reboot start");
  for (int attempt = 0; attempt < kRebootAttempts; ++attempt) {
    QVUpgradeTool::ExecCommand("sync");
    if (!Pause(kRebootPauseMs)) return kStateSwitch;
    if (!XRemoveDirectory(UpgradePaths::kPage)) LOGE("%s cannot be removed", UpgradePaths::kPage);
    QVUpgradeTool::ExecCommand(kStopDisplayWatchdogCommand);
    if (!Pause(kRebootPauseMs)) return kStateSwitch;
    LOGI("QVUpgradeFrameBase::_SwitchPartition sysComd:%s", kRebootCommand);
    QVUpgradeTool::ExecCommand(kRebootCommand);
    if (StopRequested()) return kStateSwitch;
  }
  m_submodules.CleanUpQVupgrade();
  LOGI("QVUpgradeFrameBase::_SwitchPartition sysComd:%s  ok", kRebootCommand);
  m_pAccess.load()->setmStartUpgrade(false);
  return kStateSwitch;
}

void QVUpgradeFrameBase::_SendPanel(int status, int percent, const std::string& version) {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(status, percent, version, DataDef::EM_UPG_RRU);
}

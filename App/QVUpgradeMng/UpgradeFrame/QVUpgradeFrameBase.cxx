/// The states of one upgrade, in the order in which it meets them. Log readers rely on the state names; a new
/// state is a line in the table and a handler.
#include "UpgradeFrame/QVUpgradeFrameBase.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "UpgradeFrame/InstalledPackage.h"
#include "UpgradeFrame/PackageEnd.h"
#include "UpgradeFrame/PartsManifest.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/RebootCommands.h"
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
constexpr int kRebootAttempts = 3;
constexpr uint32_t kRebootPauseMs = 2000;

constexpr const char* kFirstUpgradeMarker = "/var/first_upgrade.ini";

std::shared_ptr<IQVUpgrade> CreateUpgrader(UPGRADETYPE type) {
  return type == UP_RTX ? SubmoduleFactory::CreateRtx() : SubmoduleFactory::Create(type);
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

QVUpgradeFrameBase::QVUpgradeFrameBase(DeviceVersions& versions, PackageClaim& claim)
    : StateMachine("UpgradeFrame", m_MapStateMachineFunc, kStateIdle),
      m_versions(versions),
      m_claim(claim),
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
  if (!m_versions.IsLoaded()) return false;
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
  const std::string recorded = m_versions.getAllVersion().m_SubmodulesVer.m_mcuVersion;
  if (!running || McuVersion::Parse(recorded) == running) return;
  const auto enter = [&running](AllVersion& versions) {
    versions.m_SubmodulesVer.m_mcuVersion = running->Text();
  };
  m_versions.NoteVersion(enter);
  _ChangeInIdle(kStateIdle, [&] { enter(m_frameVersion); });
}

int QVUpgradeFrameBase::UpgradePrecentCallback(int progress, UPGRADETYPE type, void* ctx) {
  static_cast<QVUpgradeFrameBase*>(ctx)->m_submodules.ProgressSum(progress, type);
  return 0;
}

bool QVUpgradeFrameBase::registerSubModule(const std::string& name, const IQVUpgrade& upgrader) {
  const CLock lock(m_registryMutex);
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
    const bool isKnown = m_versions.IsLoaded();
    if (isKnown) m_versions.SendVersionUI();
    if (!Pause(kBroadcastPauseMs)) return;
    if (isKnown) ++m_sendUIVersionNum;
  }
}

std::string QVUpgradeFrameBase::_Preprocess() {
  LOGI("QVUpgradeFrameBase::_Preprocess");
  Json::Value entries;
  m_failure = PartsManifest::Read(entries);
  if (m_failure) {
    _SendPanel(UI_STATUS_FAILED, 100, kNoVersion);
    return kStateFaild;
  }
  _SendPanel(UI_STATUS_STARTED, 0, kNoVersion);
  const QVUpgradeVersionInfo installed = m_versions.getAllVersion().m_SubmodulesVer;
  m_submodules.SetRecords(PartsManifest::Select(std::move(entries), installed, m_nextPart));
  return kStateCheck;
}

std::string QVUpgradeFrameBase::_CheckUpgrade() {
  LOGI("QVUpgradeFrameBase::_CheckUpgrade");
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
    m_submodules._QueryProgress();
  }
  if (m_submodules._CheckModeUpgrade()) return kStateSuccess;
  m_failure = m_submodules.FirstFailure();
  return kStateFaild;
}

/// From the marker change to the end of the boot loader a stop ends pauses but no work: a unit that is
/// stopped there boots the new partition with the boot loader that belongs to it. A version file or marker
/// that cannot be written fails the upgrade: the other partition is not fit to boot.
std::string QVUpgradeFrameBase::_UpgradSuccess() {
  LOGI("QVUpgradeFrameBase::_UpgradSuccess");
  LOGI("m_currentPart:%s m_nextPart:%s", m_currentPart.c_str(), m_nextPart.c_str());
  m_failure = _RecordVersions(true);
  if (!m_failure) m_failure = m_markers.SwitchFrom(m_currentPart);
  if (m_failure) return kStateFaild;
  InstalledPackage::_SaveUpgradePack(m_upgradeType);
  if (!XDeleteFile(kFirstUpgradeMarker)) LOGE("%s cannot be deleted", kFirstUpgradeMarker);
  if (InstalledPackage::_UpgradeUboot()) LOGI("upgrade uboot ok");
  PackageEnd::Tell(m_failure);

  if (Pause(kBeforeReportPauseMs)) {
    _SendPanel(UI_STATUS_FINISHED, 100, m_frameVersion.m_newOverallVer.m_softVersion);
  }
  return kStateSwitch;
}

std::string QVUpgradeFrameBase::_UpgradFail() {
  LOGI("QVUpgradeFrameBase::_UpgradFail");
  PackageEnd::Tell(m_failure);
  if (const Failure failure = _RecordVersions(false)) LOGE("%s", failure.Text().c_str());
  if (Pause(kBeforeReportPauseMs)) _SendPanel(UI_STATUS_FAILED, 100, kNoVersion);
  return kStateSwitch;
}

/// Records the versions of the parts that succeeded, and the new overall version only when all is done: an
/// upgrade also fails before its parts are known, or after all of them succeeded.
Failure QVUpgradeFrameBase::_RecordVersions(bool succeeded) {
  const bool partsComplete = m_submodules.CollectVersions(m_frameVersion.m_SubmodulesVer);
  return VersionRecord::_WirteNewVersion(m_nextPart, m_frameVersion, partsComplete && succeeded,
                                         m_upgradeType);
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
  m_claim.setmStartUpgrade(false);
  return kStateSwitch;
}

void QVUpgradeFrameBase::_SendPanel(int status, int percent, const std::string& version) {
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIPrecent(status, percent, version, DataDef::EM_UPG_RRU);
}

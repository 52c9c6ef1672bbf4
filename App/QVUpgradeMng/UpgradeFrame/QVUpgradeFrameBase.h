/// The upgrade frame: carries out one upgrade of the base station. It reads the unpacked package, has the
/// parts whose version differs upgraded, tells the panel how far that is, records the new versions, switches
/// the partition marker and reboots. Created and initialised by main; the access frame starts it.
#pragma once

#include <atomic>
#include <string>
#include <unordered_map>

#include "BSW/MultiTask/CTaskQue.h"
#include "BSW/StateMachine/StateMachine.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/IQVUpgrade.h"
#include "UpgradeFrame/McuSubmodules/McuStartup.h"
#include "UpgradeFrame/PackageClaim.h"
#include "UpgradeFrame/PartitionMarkers.h"
#include "UpgradeFrame/SubmoduleRunner.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/Reasons.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

class QVUpgradeFrameBase : public StateMachine<QVUpgradeFrameBase> {
 public:
  /// Removes what an interrupted run left in the page root and reads the partition markers. Both objects
  /// outlive the frame. Until `versions` is loaded the idle broadcast waits and no package is taken.
  QVUpgradeFrameBase(DeviceVersions& versions, PackageClaim& claim);
  ~QVUpgradeFrameBase() override;

  /// Starts the frame thread.
  bool Init();
  /// Asks the frame and all its upgraders to stop and returns at once.
  void RequestStop();
  /// Joins the frame's thread and its upgraders'. Once RequestStop was called, in the time of the commands
  /// that run.
  bool CleanUp();

  /// Takes a prepared package: accepted only in "Idle" with nothing queued, and once the versions are loaded;
  /// else false and nothing changes. Any thread.
  bool startUpgrade(int accessType, AllVersion newVersion);
  /// The source of the package that is being prepared. Any thread.
  void setUpgradeType(UPGRADEACCESSTYPE type) { m_upgradeType = type; }
  /// Root of the running partition, "/app_A" or "/app_B".
  std::string getCurrentPatten() const { return m_currentPart; }
  /// Reads the running partition's version record into the frame's, while no upgrade runs. False when one
  /// runs or the file cannot be read; then the frame's record stays as it was. Then asks the MCU for its
  /// version, which goes into both the frame's record and the device's, and continues an upgrade of it
  /// that was interrupted; RequestStop ends that. Once, on a thread that may wait.
  bool LoadVersion();

  /// The callback given to every upgrader; `ctx` is the frame. Runs on the upgrader's thread. Always 0.
  static int UpgradePrecentCallback(int progress, UPGRADETYPE type, void* ctx);

  /// Registers an upgrader under a name, not owned; no upgrade uses it, and nobody calls it yet. False when
  /// the name is taken. Any thread.
  bool registerSubModule(const std::string& name, const IQVUpgrade& upgrader);

 protected:
  void ThreadProc() override;

 private:
  std::string _IdleState();
  std::string _Preprocess();
  std::string _CheckUpgrade();
  std::string _Upgrading();
  std::string _UpgradSuccess();
  std::string _UpgradFail();
  std::string _SwitchPartition();

  void _ReadPartitionFile();
  void _LoadMcuVersion();
  void _BroadcastVersion();
  static void _StopQuorvalen();
  std::string _JudgePass();
  Failure _RecordVersions(bool succeeded);
  static void _SendPanel(int status, int percent, const std::string& version);

  static const Table m_MapStateMachineFunc;

  DeviceVersions& m_versions;
  PackageClaim& m_claim;
  SubmoduleRunner m_submodules;
  McuStartup m_mcuStartup;
  const PartitionMarkers m_markers;
  std::string m_currentPart;  ///< the running partition's root; like m_nextPart fixed at construction
  std::string m_nextPart;     ///< the other one's, the target of the upgrade

  std::atomic<UPGRADEACCESSTYPE> m_upgradeType{UP_NO_ACCESSTYPE};
  AllVersion m_frameVersion;  ///< written in "Idle" under m_queueNextMutex, else the frame thread's alone
  int m_upgradeTime = 0;      ///< passes spent in "Upgrading"; frame thread
  Failure m_failure;          ///< why the upgrade fails; frame thread

  CMutex m_registryMutex;
  std::unordered_map<std::string, const IQVUpgrade*> m_pUpgradeModels GUARDED_BY(m_registryMutex);

  int m_sendUIVersionNum = 0;  ///< version broadcasts so far; used by m_versionBroadcast's thread alone
  CTaskQue m_versionBroadcast;
};

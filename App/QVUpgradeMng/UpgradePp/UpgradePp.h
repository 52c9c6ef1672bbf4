/// Upgrades portable parts (belt packs) that are plugged into the base station: notices one through the
/// hot-plug monitor, finds out which family it is and which protocol it speaks, compares its versions with
/// the firmware held on the base station, and upgrades or pairs it. One part at a time; others wait for their
/// turn.
///
/// Threads: the state thread (this CThread) walks the states, sends every request and waits for the answers.
/// The hot-plug monitor's and the clock report's threads tell of devices (PpHotPlug), the threads of the
/// ports (PpLink) and of the radio module's upgrade set flags. Main starts and stops it.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePp/Pp7204Sequence.h"
#include "UpgradePp/Pp7308Sequence.h"
#include "UpgradePp/PpDevices.h"
#include "UpgradePp/PpHotPlug.h"
#include "UpgradePp/PpLink.h"
#include "UpgradePp/PpTypes.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call the public members.
class UpgradePp : public CThread, public CSingleton<UpgradePp> {
 public:
  /// Takes the version record after portable-part packages were imported. Returns at once: the firmware is
  /// loaded anew when no part is under way.
  using ImportCallback = std::function<void(const AllVersion&)>;

  ~UpgradePp() override;

  /// Main, once: registers with the hot-plug monitor, loads the firmware information (as long as unzip takes)
  /// and starts the threads. `deviceId` names this end in dumps. Without firmware parts are still paired.
  /// False, logged, when a thread cannot start: no part is handled then.
  bool Init(const std::string& deviceId);
  /// Main, at shutdown: asks everything to end and returns at once; CleanUp then joins.
  void RequestStop();
  /// Ends an attempt under way, whatever it waits for, and closes both ports. For good.
  void CleanUp();

  /// Loads the firmware information anew as soon as no part is under way; returns at once.
  void ReloadVeriosn() EXCLUDES(m_flags.Mutex());
  /// For the package sources, after Init.
  ImportCallback GetImportCallback() {
    return [this](const AllVersion& /*versions*/) { ReloadVeriosn(); };
  }

  /// The controller's report whether the cascade clock is in sync. While it is not, devices are recorded but
  /// not handled; once it is again, they are.
  void SetClockStatus(bool bStatus) { m_hotPlug.SetClockStatus(bStatus); }

  /// The firmware held, per family: always of one load. No caller yet.
  UpgPp::PpFwMap GetPpPackageInfo() EXCLUDES(m_flags.Mutex());

  /// The debug command: asks the part whose port is open for its versions, and logs state and flags. False
  /// when nothing could be sent.
  bool Debug();

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;

 private:
  friend class CSingleton<UpgradePp>;
  UpgradePp();

  using UpgradeStateType = UpgPp::UpgradeStateType;

  struct State {
    const char* name;
    UpgradeStateType (UpgradePp::*handler)();
  };
  static const char* _TraceState(UpgradeStateType state);

  /// What the idle state has to do next.
  enum class Task {
    Wait,
    Reload,    ///< load the firmware information anew
    TakeTurn,  ///< begin with the next device
    AskAgain,  ///< the part that had its turn last has reported that it is ready
  };

  // The state thread. A handler gives the next state.
  void _HandleState();
  UpgradeStateType _HandleIdleState();
  UpgradeStateType _HandleIdentifyState();
  UpgradeStateType _HandleCheckVerState();
  UpgradeStateType _Check7308(const std::string& version);
  UpgradeStateType _Check7204(const std::string& version);
  /// Shows both versions; true when the part has that of the firmware held for it.
  bool _IsStored(const std::string& version) const;
  UpgradeStateType _HandleUpgPpState();
  UpgradeStateType _HandleReqPairState();
  UpgradeStateType _HandleInterruptState();
  UpgradeStateType _HandleUpgSuccessState();
  UpgradeStateType _HandleFailedState();
  UpgradeStateType _HandleUnknownState();
  /// A part that reports again and again comes after everything else.
  Task _NextTask() REQUIRES(m_flags.Mutex());
  /// Until something changes, or the next device is due.
  void _WaitForTask() REQUIRES(m_flags.Mutex());
  /// Begins the turn of the next device.
  void _TakeTurn() REQUIRES(m_flags.Mutex());
  /// True when the port of the part that had its turn last is still open.
  bool _IsListening() const;
  /// Closes the part's ports and forgets it.
  UpgradeStateType _EndAttempt();
  /// Forgets the part and what it answered.
  void _CleanCache();
  UpgradeStateType _State();
  std::string _CurrentDevice();
  /// Replaces the firmware information; false when there is none. State thread, or Init before it runs.
  bool _LoadFwInfo() EXCLUDES(m_flags.Mutex());

  /// Changes the state, unless a rule refuses it.
  void _ToggleState(UpgradeStateType state) REQUIRES(m_flags.Mutex());

  /// A part reported that it is ready. On a receive thread.
  void _ProcPpReady() EXCLUDES(m_flags.Mutex());

  static const std::array<State, UpgPp::EM_STATE_MAX> m_States;

  CFlags m_flags{UpgPp::kLongTermFlags};
  UpgradeStateType m_emState GUARDED_BY(m_flags.Mutex()) = UpgPp::EM_STATE_IDLE;
  PpDevices m_devices GUARDED_BY(m_flags.Mutex());
  UpgPp::PpFwMap m_mapPpFwInfo GUARDED_BY(m_flags.Mutex());
  bool m_bReload GUARDED_BY(m_flags.Mutex()) = false;  ///< the firmware information is to be loaded anew
  /// The part reported that it is ready since its identification began.
  bool m_bReadyMeanwhile GUARDED_BY(m_flags.Mutex()) = false;

  // Of the part under way; state thread only:
  UpgPp::PpType m_emCheckedType = UpgPp::EM_PP_MAX;
  UpgPp::PpFw_t m_firmware;  ///< held for its type when it was checked

  PpLink m_link;
  Pp7308Sequence m_7308;
  Pp7204Sequence m_7204;
  PpHotPlug m_hotPlug;
};

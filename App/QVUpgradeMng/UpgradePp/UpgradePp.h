/// Upgrades portable parts (belt packs) that are plugged into the base station: notices one through the
/// hot-plug monitor, finds out which family it is and which protocol it speaks, compares its versions with
/// the firmware held on the base station, and upgrades or pairs it. One part at a time; others wait for their
/// turn.
///
/// Threads: the state thread (this CThread) walks the states, sends every request and waits for the answers.
/// The hot-plug monitor's and the clock report's threads tell of devices, the threads of the ports and of the
/// radio module's upgrade set flags. Main starts and stops it.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePp/Pp7204Sequence.h"
#include "UpgradePp/Pp7308Sequence.h"
#include "UpgradePp/PpDevices.h"
#include "UpgradePp/PpLink.h"
#include "UpgradePp/PpSignals.h"
#include "UpgradePp/PpState.h"
#include "UpgradePp/PpTypes.h"

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
  void ReloadVeriosn();
  /// For the package sources, after Init.
  ImportCallback GetImportCallback() const { return m_importCallback; }

  /// The controller's report whether the cascade clock is in sync. While it is not, devices are recorded but
  /// not handled; once it is again, they are.
  void SetClockStatus(bool bStatus);

  /// The firmware held, per family: always of one load.
  UpgPp::PpFwMap GetPpPackageInfo();

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
  UpgradeStateType _Check7308(const PpInfo_t& info, const UpgPp::PpFw_t& firmware);
  UpgradeStateType _Check7204(const PpInfo_t& info, const UpgPp::PpFw_t& firmware);
  UpgradeStateType _HandleUpgPpState();
  UpgradeStateType _HandleReqPairState();
  UpgradeStateType _HandleInterruptState();
  UpgradeStateType _HandleUpgSuccessState();
  UpgradeStateType _HandleFailedState();
  UpgradeStateType _HandleUnknownState();
  /// The lock is held, as in the two below. A part that reports again and again comes after everything else.
  Task _NextTask() const;
  /// Until something changes, or the next device is due.
  void _WaitForTask(PpSignals::Lock& lock);
  /// Begins the turn of the next device.
  void _TakeTurn(const PpSignals::Lock& lock);
  /// True when the port of the part that had its turn last is still open.
  bool _IsListening() const;
  /// Forgets the part and what it answered.
  void _CleanCache();
  UpgradeStateType _State();
  std::string _CurrentDevice();
  /// Replaces the firmware information. State thread, or Init before it runs; no lock held.
  bool _LoadFwInfo();

  /// Changes the state, unless a rule refuses it. The lock is held.
  void _ToggleState(const PpSignals::Lock& lock, UpgradeStateType state);

  // The threads of the hot-plug monitor and of the clock report.
  int _UsbHotPlugProcessCallback(const std::string& device, bool plugged);
  /// m_plugMutex is held, as in the two below.
  void _HandleHotPlug(const PpDevices::UsbHotPlugInfo& info);
  void _PlugIn(const std::string& device);
  void _PlugOut(const std::string& device);
  /// The device went: if it is the one under way, its turn is over, though not yet its state. True if it was.
  bool _EndTurn(const std::string& device);
  int _LoadStorageDevCallback(const std::string& node, bool present);

  /// A part reported that it is ready. On a receive thread.
  void _ProcPpReady();

  static const std::array<State, UpgPp::EM_STATE_MAX> m_States;

  /// Serialises hot-plug events and their replay; taken before every other lock here.
  std::mutex m_plugMutex;
  std::atomic<bool> m_bCascadeClockSync{true};
  std::atomic<bool> m_bUsbInsert{false};  ///< a serial device of a part is present
  ImportCallback m_importCallback;        ///< built by Init

  PpSignals m_signals;
  // Guarded by the lock of m_signals:
  UpgradeStateType m_emState = UpgPp::EM_STATE_IDLE;
  PpDevices m_devices;
  UpgPp::PpFwMap m_mapPpFwInfo;    ///< changed by the state thread alone
  bool m_bReload = false;          ///< the firmware information is to be loaded anew
  bool m_bReadyMeanwhile = false;  ///< the part reported that it is ready since its identification began

  UpgPp::PpType m_emCheckedType = UpgPp::EM_PP_MAX;  ///< of the part under way; state thread only

  PpLink m_link;
  Pp7308Sequence m_7308;
  Pp7204Sequence m_7204;
};

/// Upgrades the MCU: unpacks the package, asks the MCU for its version, switches it into its boot loader,
/// sends the image and asks again. What is said is told in McuMessages.h, McuLine says it. The frame runs it
/// in an upgrade; McuStartup uses another one when the daemon starts.
#pragma once

#include <array>
#include <functional>
#include <optional>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/McuSubmodules/McuLine.h"
#include "UpgradeFrame/McuSubmodules/McuMessages.h"
#include "UpgradeFrame/McuSubmodules/McuUpgRecord.h"
#include "UpgradeFrame/UpgraderBase.h"
#include "common/Mutex.h"

/// One object serves one run, after which its line is closed and a further start is refused.
class McuSubmodules final : public UpgraderBase, private CThread {
 public:
  enum UpgradeStateType {
    EM_STATE_IDLE = 0,
    EM_STATE_INIT = 1,
    EM_STATE_CHECK_VER = 2,
    EM_STATE_ENTER_BOOT = 3,
    EM_STATE_UPG_MCU = 4,
    EM_STATE_RE_CHECK_VER = 5,
    EM_STATE_SUCCESS = 6,
    EM_STATE_FAILED = 7,
    EM_STATE_WAIT_RESTART = 8,
    EM_STATE_MAX = 9,
  };

  /// Called on the state thread with the end of a run: true when it succeeded.
  using RetUpgResultCb_T = std::function<void(bool)>;

  static constexpr const char* m_strUartName = McuLine::m_strUartName;
  /// The directory of the unpacked firmware and its record.
  static constexpr const char* m_stStoredPath = "/firmware/mcu";

  McuSubmodules();
  ~McuSubmodules() override;

  /// Opens the line, starts the state thread and stops the services that use the MCU. Once only: later calls
  /// change nothing.
  bool Init() override;
  /// A run that is cut off reports nothing and leaves its record as it is, so that it is continued after a
  /// restart.
  bool CleanUp() override;
  /// False before Init and during and after a run.
  bool StartUpgrade() override;
  bool FinishUpgrade() override;
  /// Leaves `result` as it is: the end is known from the report alone.
  void GetUpgradeStatus(int& result, int seconds) override;
  void RequestStop() override { DestroyThread(true, false); }

  /// Asks the MCU what it is, outside a run, over the line of its own that Init opened, else over one that is
  /// open only for this. Waits up to 10 s: Silent when no answer came. Empty when there is no line or this
  /// was stopped. Any thread that is none of the line's.
  std::optional<McuMessages::Identity> LoadVersion();

  /// Continues the run that the record describes, after Init, in EM_STATE_CHECK_VER or EM_STATE_UPG_MCU.
  bool ContinueUpg(UpgradeStateType state);
  McuMessages::Identity LastIdentity() { return m_line.LastIdentity(); }

  /// Tells that the MCU must go on until other parts are done: a run then only prepares the firmware, and
  /// McuStartup writes it after the unit's restart. No caller yet.
  void SetUpgFlag(bool existOtherModule);
  void RegRetUpgResultCb(const RetUpgResultCb_T& callback);
  void UnregRetUpgResultCb() { RegRetUpgResultCb(nullptr); }

 private:
  enum RetValType {
    EM_RET_SUCESS = 0,
    EM_RET_ERROR = 1,
    EM_RET_TIMEOUT = 2,
    EM_RET_BAD_PARAMER = 3,
    EM_RET_END = 4,
  };

  struct State {
    const char* name;
    UpgradeStateType (McuSubmodules::*handler)();
  };
  /// True when a run may begin.
  bool _CanStart() const REQUIRES(m_flags.Mutex());
  void _Start(UpgradeStateType state) REQUIRES(m_flags.Mutex());
  /// Ends the run as failed: gives that state.
  UpgradeStateType _Fail(Failure failure);

  void ThreadProc() override;
  void OnStopRequested() override { m_flags.End(); }
  RetValType _HandleState();
  void _ToggleState(UpgradeStateType state);

  UpgradeStateType _HandleIdleState();
  UpgradeStateType _HandleInitState();
  UpgradeStateType _HandleCheckVerState();
  UpgradeStateType _HandleEnterBootState();
  UpgradeStateType _HandleUpgMcuState();
  Failure _RrepareFwInfo();
  Failure _RrepareFwDataPack();
  UpgradeStateType _HandleReCheckVerState();
  UpgradeStateType _HandleSuccessState();
  UpgradeStateType _HandleFailedState();
  UpgradeStateType _HandleWaitRestartState();
  /// Records `state`, closes the line, reports the end; gives Idle.
  UpgradeStateType _EndRun(UpgradeStateType state, const Failure& failure);

  bool _SaveFwInfo() { return m_record.Save(m_stFwInfo); }
  bool _LoadFwInfo() { return m_record.Load(m_stFwInfo); }
  bool _SaveUpgState(UpgradeStateType state) { return m_record.SaveState(m_States[state].name); }

  static const std::array<State, EM_STATE_MAX> m_States;
  /// A running application older than this cannot be upgraded by this base station.
  static constexpr const char* m_strMinVer = "1.0.6.00";

  const McuUpgRecord m_record{m_stStoredPath};
  CFlags m_flags{McuLine::EM_FLAG_INIT_DONE | McuLine::EM_FLAG_RESTART_AND_UPG_MCU};
  UpgradeStateType m_emState GUARDED_BY(m_flags.Mutex()) = EM_STATE_IDLE;
  RetUpgResultCb_T m_RetResultFunc GUARDED_BY(m_flags.Mutex());
  McuLine m_line{m_flags};
  FwInfo_t m_stFwInfo;  ///< written before the run starts, or by it; then the state thread's alone
  Failure m_failure;    ///< of the run; the state thread's alone
};

/// Upgrades the MCU: unpacks the package, asks the MCU for its version, switches it into its boot loader,
/// sends the image and asks again. What is said on the line is told in McuMessages.h. The frame runs it in an
/// upgrade; McuStartup uses another one when the daemon starts.
///
/// Threads: the state thread walks the states and sends the requests; the parser thread of the line takes the
/// answers, sets a flag for each and wakes whoever waits for it.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/SerialProtocolMng.h"
#include "BSW/Serial/UartMngInfo.h"
#include "UpgradeFrame/IQVUpgrade.h"
#include "UpgradeFrame/McuSubmodules/McuMessages.h"
#include "UpgradeFrame/McuSubmodules/McuUpgRecord.h"
#include "UpgradeFrame/ProgressReporter.h"

/// One object serves one run, after which its line is closed and a further start is refused.
class McuSubmodules : public IQVUpgrade, public CThread {
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

  /// The line and the directory of the unpacked firmware and its record.
  static constexpr const char* m_strUartName = "/dev/ttymxc3";
  static constexpr const char* m_stStoredPath = "/firmware/mcu";

  McuSubmodules();
  ~McuSubmodules() override;

  /// Opens the line, starts the state thread and stops the services that use the MCU. Once only: later calls
  /// change nothing.
  bool Init() override;
  bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) override;
  bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) override;
  /// A run that is cut off reports nothing and leaves its record as it is, so that it is continued after a
  /// restart.
  bool CleanUp() override;
  /// False before Init and during and after a run.
  bool StartUpgrade() override;
  bool FinishUpgrade() override;
  bool setUpgradeInfo(QVUpgradingInfo info) override;
  /// Leaves `result` as it is: the end is known from the report alone.
  void GetUpgradeStatus(int& result, int seconds) override;
  int UploadPrecent(int percent) override;
  void RequestStop() override;

  /// Asks the MCU what it is, outside a run, over the line of its own that Init opened, else over one that is
  /// open only for this. Waits up to 10 s: Silent when no answer came. Empty when there is no line or this
  /// was stopped. Any thread that is none of the line's.
  std::optional<McuMessages::Identity> LoadVersion();

  /// Continues the run that the record describes, after Init, in EM_STATE_CHECK_VER or EM_STATE_UPG_MCU.
  bool ContinueUpg(UpgradeStateType state);
  /// What the MCU answered last.
  McuMessages::Identity LastIdentity();

  /// Tells that the MCU must go on until other parts are done: a run then only prepares the firmware, and
  /// McuStartup writes it after the unit's restart.
  void SetUpgFlag(bool existOtherModule);
  void RegRetUpgResultCb(const RetUpgResultCb_T& callback);
  void UnregRetUpgResultCb();

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;

 private:
  enum RetValType {
    EM_RET_SUCESS = 0,
    EM_RET_ERROR = 1,
    EM_RET_TIMEOUT = 2,
    EM_RET_BAD_PARAMER = 3,
    EM_RET_END = 4,
  };

  enum FlagType : uint32_t {
    EM_FLAG_INIT_DONE = 0x1,
    EM_FLAG_CLEAN_DONE = 0x2,
    EM_FLAG_START_UPG = 0x4,
    EM_FLAG_GET_VER = 0x8,
    EM_FLAG_START_UPG_ACK = 0x10,
    EM_FLAG_SEND_FW_INFO_ACK = 0x20,
    EM_FLAG_SEND_PACK_ACK = 0x40,
    EM_FLAG_UPG_DONE_ACK = 0x80,
    EM_FLAG_ESIXT_OTHER_MODULE = 0x100,
    EM_FLAG_RESTART_AND_UPG_MCU = 0x200,
  };

  using CmdCode = McuMessages::CmdCode;
  using ProtocolData_t = SerialProtocolMng::ProtocolData_t;
  using Bytes = std::vector<uint8_t>;

  struct State {
    const char* name;
    UpgradeStateType (McuSubmodules::*handler)();
  };
  struct Response {
    CmdCode code;
    void (McuSubmodules::*handler)(const Bytes& data);
  };

  /// True when a run may begin. Like _Start called with m_SateLock held.
  bool _CanStart() const;
  void _Start(UpgradeStateType state);
  bool _IsStopped();

  RetValType _HandleState();
  void _ToggleState(UpgradeStateType state);

  UpgradeStateType _HandleIdleState();
  UpgradeStateType _HandleInitState();
  UpgradeStateType _HandleCheckVerState();
  UpgradeStateType _HandleEnterBootState();
  UpgradeStateType _HandleUpgMcuState();
  bool _RrepareFwInfo();
  bool _RrepareFwDataPack();
  UpgradeStateType _HandleReCheckVerState();
  UpgradeStateType _HandleSuccessState();
  UpgradeStateType _HandleFailedState();
  UpgradeStateType _HandleWaitRestartState();
  /// Records `state`, closes the line, reports the end.
  void _EndRun(UpgradeStateType state, bool succeeded);

  bool _SaveFwInfo();
  bool _LoadFwInfo();
  bool _SaveUpgState(UpgradeStateType state);

  bool _OpenLine();
  /// Closes the line, if there is one. The caller holds no lock and is none of the line's threads.
  void _CloseLine();
  std::shared_ptr<SerialProtocolMng> _Line();

  bool _SendCmd(CmdCode code);
  bool _SendCmd(CmdCode code, const Bytes& data);
  /// Sends a request and waits for the flag of its answer.
  bool _Request(CmdCode code, FlagType flag, const Bytes& data = {});
  bool _WaitFlag(FlagType flag);
  void _SetFlag(FlagType flag);

  bool _ProtocolDataRecvCb(const ProtocolData_t& data);
  void _HandleRspVer(const Bytes& data);
  void _HandleRspStartUpg(const Bytes& data);
  void _HandleRspFwInfo(const Bytes& data);
  void _HandleRspPackage(const Bytes& data);
  void _HandleRspUpgDone(const Bytes& data);
  void _HandleRspStatus(const Bytes& data, FlagType flag, const char* success, const char* failure);

  static const std::array<State, EM_STATE_MAX> m_States;
  static const std::array<Response, 5> m_Responses;
  static const SerialProtocolMng::PayloadCfg_t m_stPayloadCfg;
  static const UART_MNG_INFO_S m_stUartCfg;
  static constexpr int m_iWaitTime = 10000;  ///< milliseconds
  /// A running application older than this cannot be upgraded by this base station.
  static constexpr const char* m_strMinVer = "1.0.6.00";

  const std::string m_strDevId = "MCU";
  const McuUpgRecord m_record{m_stStoredPath};
  std::atomic<uint32_t> m_iFlags{0};          ///< of the exchange and the run; set under m_SateLock
  std::atomic<uint32_t> m_iLongTermFlags{0};  ///< EM_FLAG_INIT_DONE, EM_FLAG_RESTART_AND_UPG_MCU

  std::mutex m_SateLock;                         ///< guards the members down to m_stFwInfo
  std::condition_variable m_cvStateMachineCtrl;  ///< a flag was set, or a stop is asked for
  bool m_bStopped = false;                       ///< for good
  UpgradeStateType m_emState = EM_STATE_IDLE;
  McuMessages::Identity m_identity;  ///< what the MCU answered last
  RetUpgResultCb_T m_RetResultFunc;
  std::shared_ptr<SerialProtocolMng> m_ProtocolMng;  ///< null while the line is closed
  QVUpgradingInfo m_stUpgInfo;
  ProgressReporter m_UploadProcessCb{UP_MCU};
  FwInfo_t m_stFwInfo;  ///< written before the run starts, or by it; then the state thread's alone
};

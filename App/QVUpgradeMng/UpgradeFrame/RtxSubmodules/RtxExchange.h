/// The upgrade of radio modules over a serial line: the states, the parser of what the module sends, and
/// every wait. The base station's upgrader and the portable part's derive from it; they differ in how long
/// they wait, how a module gets into its boot loader, where the files are and who hears of the end.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/SerialPort.h"
#include "UpgradeFrame/RtxSubmodules/RtxFlash.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"
#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"

/// Three threads meet here: the port's receive thread queues bytes, the parser thread makes flags of them and
/// sends the pre-loader, the state thread (this CThread) sends everything else and waits for the flags.
class RtxExchange : public CThread {
 public:
  enum UpgradeStateType {
    EM_STATE_IDLE = 0,
    EM_STATE_INIT = 1,
    EM_STATE_ENTER_BOOT = 2,
    EM_STATE_DL_PRE_LOADER = 3,
    EM_STATE_CHANGE_BAUD_RATE = 4,
    EM_STATE_DL_FLASH_LOADER = 5,
    EM_STATE_WRITE_CFG_OF_FLASH = 6,
    EM_STATE_DL_FIRMWARE = 7,
    EM_STATE_SUCCESS = 8,
    EM_STATE_FAILED = 9,
    EM_STATE_MAX = 10,
  };

 protected:
  /// Bits of m_iFlags and m_iLongTermFlags.
  enum FlagType : uint32_t {
    EM_FLAG_RECV_STX = 0x1,
    EM_FLAG_RECV_PL_ACK = 0x2,
    EM_FLAG_RECV_PL_CRC = 0x4,
    EM_FLAG_PL_READY = 0x8,
    EM_FLAG_BAUDREADY = 0x10,
    EM_FLAG_RECV_FL_CRC = 0x20,
    EM_FLAG_RECV_SW_VER = 0x40,
    EM_FLAG_WRITE_CFG_CFM = 0x80,
    EM_FLAG_EARSE_SECTOR_CFM = 0x100,
    EM_FLAG_PROGRAM_SECTOR_CFM = 0x200,
    EM_FLAG_VERIFY_SECTOR_CFM = 0x400,
    EM_FLAG_INIT_DONE = 0x800,
    EM_FLAG_CREATE_UART = 0x1000,
    EM_FLAG_UPGING_RTX2 = 0x2000,
    EM_FLAG_UPG_RTX1_SUCCESS = 0x4000,
    EM_FLAG_UPG_RTX2_SUCCESS = 0x8000,
    EM_FLAG_RECV_CORRECT_CRC = 0x10000,
    EM_FLAG_UART_OPEN = 0x20000,  ///< of m_iLongTermFlags
  };

  /// `threadName` names the state thread, `uartName` the port. `waitTime` is the wait for an answer, in
  /// milliseconds; for the check value of the pre-loader, in seconds.
  RtxExchange(const char* threadName, const char* uartName, int waitTime);
  ~RtxExchange() override = default;

  /// Starts the threads; false, logged, when one cannot start.
  bool _OpenExchange();
  /// Ends a run under way and all threads, and closes the port. Idempotent. Every derived destructor calls
  /// it, because the threads call the operations below.
  bool _CloseExchange();

  /// Begins a run with the module on `device`. False when the threads do not run, the name is too long, or a
  /// run is under way: that lasts until the exchange is idle again, a moment after its _RunEnded has
  /// returned. Any thread.
  bool _StartRun(const char* device);
  /// Ends a run under way as failed: its wait, and a transfer that the line holds up, end at once. Without a
  /// run it does nothing. Does not wait for _RunEnded. Any thread.
  void _AbortRun();

  // What tells one upgrader from another. All but _Module are called on the state thread with no lock held.

  /// Puts the three files in place and names them with _SetFiles; false, logged, when that fails.
  virtual bool _PrepareFiles() = 0;
  /// Gets the module to start its boot loader. The line is open; the module's answer decides.
  virtual void _EnterBoot() = 0;
  /// The number of the module under upgrade, from 1. Any thread.
  virtual int _Module() const = 0;
  /// A program request of the module was confirmed: `done` of its `total`.
  virtual void _ChunkProgrammed(size_t done, size_t total) = 0;
  /// The module is done; its line is closed. The device of a further module, which takes the same firmware;
  /// null when it was the last.
  virtual const char* _ModuleSucceeded() = 0;
  virtual void _ModuleFailed() = 0;
  /// The run is over; a new one is accepted a moment after this has returned. Called once for each run that
  /// no stop ended.
  virtual void _RunEnded(bool success) = 0;

  /// Where the failed run ended and whether it was aborted, for people. State thread only.
  std::string _FailureText() const;

  /// Names the files of a run by the directory that holds them: the two loaders and the one "*.spihex".
  /// False, logged, when there is no firmware.
  bool _SetFiles(const std::string& directory);

  /// Sets bits of m_iFlags and wakes who waits for them.
  void _SetFlags(uint32_t flags);
  bool _HasFlag(FlagType flag) const { return (m_iFlags & flag) != 0; }

 private:
  /// One state: its name in the log and what it does. A handler gives the next state.
  struct State {
    const char* name;
    UpgradeStateType (RtxExchange::*handler)();
  };
  static const State& _StateOf(UpgradeStateType state);

  /// The parser's thread.
  class Parser final : public CThread {
   public:
    explicit Parser(RtxExchange& exchange) : CThread("UpgRtxRecver"), m_exchange(exchange) {}

   protected:
    void ThreadProc() override { m_exchange._ProcessUartData(); }
    void OnStopRequested() override;

   private:
    RtxExchange& m_exchange;
  };

  // The state thread.
  void ThreadProc() override;
  void OnStopRequested() override;
  void _HandleState();
  void _ToggleState(UpgradeStateType state);
  UpgradeStateType _HandleIdleState();
  UpgradeStateType _HandleInitState();
  UpgradeStateType _HandleEnterBootState();
  UpgradeStateType _HandleDlPreLoaderState();
  UpgradeStateType _HandleChangeBaudRateState();
  UpgradeStateType _HandleDlFlashLoaderState();
  UpgradeStateType _HandleWriteCfgOfFlashState();
  UpgradeStateType _HandleDlFirmwareState();
  UpgradeStateType _HandleSuccessState();
  UpgradeStateType _HandleFailedState();
  bool _ParseFwFile();
  bool _EraseSectors();
  bool _ProgramSectors();
  bool _VerifySectors();

  /// Sends `payload` as a packet and waits for its confirmation; false, logged as `onTimeout` when
  /// there is none in time.
  bool _Ask(const Rtx::Bytes& payload, FlagType confirmation, const char* onTimeout);
  bool _SendPacket(const Rtx::Bytes& payload);
  bool _SendRaw(const Rtx::Bytes& bytes);
  /// Waits for the flag; false, logged as `onTimeout`, when it does not come in m_iWaitTime ms.
  bool _WaitFor(FlagType flag, const char* onTimeout);
  /// The same without a log line.
  bool _Wait(FlagType flag, std::chrono::milliseconds time);
  /// True from the acceptance of a run until the exchange is idle again. m_SateLock must be held.
  bool _RunUnderWay() const { return m_bStart || m_emState != EM_STATE_IDLE; }
  /// True when the run is to end: waits and transfers do not begin any more.
  bool _Ending() const { return !IsRunning() || m_bAborted; }

  /// Forgets what came before a request, so that nothing stale is taken for its answer.
  void _ClearAnswers(uint32_t flags);
  /// Ends a transfer under way.
  void _CloseLine();
  /// Forgets the exchange with one module, so that nothing of it reaches the next; the firmware stays. The
  /// line is closed.
  void _CleanCache();

  // The port's receive thread.
  int _UartRecvHandler(const void* data, short length);

  // The parser thread.
  void _ProcessUartData();
  void _ParseUartData(const Rtx::Bytes& chunk);
  void _ParsePreLoaderData(const Rtx::Bytes& chunk);
  void _SendPreLoader();
  void _ParseBaudRateData(const Rtx::Bytes& chunk);
  void _ProcFlPacketData(const Rtx::Bytes& chunk);
  void _ProcConfirmation(const Rtx::FlPayload_t& payload);

  const int m_iWaitTime;
  const std::unique_ptr<SerialPort> m_pSerial;
  Parser m_UartHandler{*this};

  std::mutex m_RunLock;  ///< held to begin and to abort a run: an abort never closes the line of the next one
  std::mutex m_SateLock;  ///< the state thread waits with it; guards changes of the members up to m_joiner
  std::condition_variable m_cvStateMachineCtrl;
  std::atomic<UpgradeStateType> m_emState{EM_STATE_IDLE};
  std::atomic<uint32_t> m_iFlags{0};                 ///< of the module under upgrade
  std::atomic<uint32_t> m_iLongTermFlags{0};         ///< of the line
  bool m_bStart = false;                             ///< a run was accepted and is to leave Idle
  std::atomic<bool> m_bAborted{false};               ///< the run is to end
  std::shared_ptr<const Rtx::Bytes> m_vecPreloader;  ///< the parser sends it when the module asks for it
  Rtx::RtxPacketJoiner m_joiner;

  std::atomic<uint8_t> m_iPlCrc{0};      ///< check value of the pre-loader file
  std::atomic<uint8_t> m_iFlCrcRecv{0};  ///< check value that the module gave for the flash loader
  std::atomic<uint32_t> m_iCrcRecv{0};   ///< CRC-32 that the flash loader gave

  std::mutex m_UartDataLock;  ///< the parser waits with it; guards the next three members
  std::condition_variable m_cvUartRecvCtrl;
  std::deque<Rtx::Bytes> m_deqUartRecvList;
  bool m_bParsing = false;  ///< the parser has a chunk in hand

  // The state thread's own; m_stUartInfo is also set by _StartRun, while that thread is idle.
  UpgradeStateType m_emLastState = EM_STATE_MAX;
  UpgradeStateType m_emFailedState = EM_STATE_MAX;  ///< which a run that failed had reached
  UART_MNG_INFO_S m_stUartInfo;
  std::string m_strPreLoaderFile;
  std::string m_strFlashLoaderFile;
  std::string m_strFirmwareFile;
  std::deque<Rtx::FwData_t> m_deqFwData;  ///< empty until the run's first module is programmed
};

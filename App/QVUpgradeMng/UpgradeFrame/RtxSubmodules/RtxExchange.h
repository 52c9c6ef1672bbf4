/// The upgrade of radio modules over a serial line: the states of a run. The base station's upgrader and the
/// portable part's own one each; they differ in how long it waits and in their IRtxHost.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/RtxSubmodules/RtxFiles.h"
#include "UpgradeFrame/RtxSubmodules/RtxFirmware.h"
#include "UpgradeFrame/RtxSubmodules/RtxLine.h"
#include "UpgradeFrame/RtxSubmodules/RtxParser.h"
#include "UpgradePackage/Reasons.h"
#include "common/Mutex.h"

/// What tells one user of the exchange from another. It calls all of this on its state thread with no lock
/// held.
class IRtxHost {
 public:
  /// Puts the three files of a run in place and names their directory.
  virtual Failure PrepareFiles(std::string& directory) = 0;
  /// Gets module 1 or 2 to start its boot loader. The line is open; the module's answer decides.
  virtual void EnterBoot(int module) = 0;
  /// A program request of the module was confirmed: `done` of its `total`.
  virtual void ChunkProgrammed(int module, size_t done, size_t total) = 0;
  /// The module is done; its line is closed. After module 1 the device of module 2, which takes the same
  /// firmware; null when there is none.
  virtual const char* ModuleSucceeded(int module) = 0;
  /// The run is over, with `module`; a new one is accepted a moment after this has returned. Called once for
  /// each run that no stop ended.
  virtual void RunEnded(int module, const Failure& failure) = 0;

 protected:
  ~IRtxHost() = default;
};

/// Three threads meet here: the port's receive thread queues bytes, the parser thread makes flags of them,
/// the state thread (this CThread) sends and waits for the flags. The last member of its host, which it calls
/// until it is destroyed.
class RtxExchange final : private CThread {
 public:
  using UpgradeStateType = Rtx::UpgradeStateType;

  /// `threadName` names the state thread, `uartName` the port. `waitTime` is the wait for an answer, in
  /// milliseconds; for the check value of the pre-loader, in seconds.
  RtxExchange(const char* threadName, const char* uartName, int waitTime, IRtxHost& host);
  ~RtxExchange() override { Close(); }

  /// Starts the threads, if they do not run; false, logged, when one cannot start.
  bool Open();
  /// Asks the threads to stop and returns at once.
  void RequestStop() { DestroyThread(true, false); }
  /// Ends a run under way and all threads, and closes the port. Idempotent; Open may follow.
  bool Close();

  /// Begins a run with module 1 on `device`. False when the threads do not run, the name is too long, or a
  /// run is under way: that lasts until the exchange is idle again, a moment after the host's RunEnded has
  /// returned. Any thread.
  bool StartRun(const char* device);
  /// Ends a run under way as failed: its wait, and a transfer that the line holds up, end at once. Without a
  /// run it does nothing. Does not wait for RunEnded. Any thread.
  void AbortRun();
  /// Where the failed run ended and whether it was aborted, for people. RunEnded may ask.
  [[nodiscard]] std::string FailureText() const;

 private:
  /// One state: its name in the log, what it does, and what follows on success.
  struct State {
    const char* name;
    Failure (RtxExchange::*handler)();
    UpgradeStateType next;
  };
  static const State& _StateOf(UpgradeStateType state);

  void ThreadProc() override;
  void OnStopRequested() override { m_flags.End(); }
  void _HandleState();
  void _ToggleState(UpgradeStateType state);
  Failure _HandleIdleState();
  Failure _HandleInitState();
  Failure _HandleEnterBootState();
  Failure _HandleDlPreLoaderState();
  Failure _HandleChangeBaudRateState();
  Failure _HandleDlFlashLoaderState();
  Failure _HandleWriteCfgOfFlashState();
  Failure _HandleDlFirmwareState();
  Failure _HandleSuccessState();
  Failure _HandleFailedState();
  Failure _ParseFwFile();
  Failure _EraseSectors();
  Failure _ProgramSectors();
  Failure _VerifySectors();

  /// Sends a byte or a packet and waits for its answer, which fails, logged as `onTimeout`, when there is
  /// none in time.
  Failure _AskRaw(const Rtx::Bytes& bytes, Rtx::FlagType answer, const char* onTimeout);
  Failure _Ask(const Rtx::Bytes& payload, Rtx::FlPrimitiveIdType confirmation);

  /// True from the acceptance of a run until the exchange is idle again.
  bool _RunUnderWay() const REQUIRES(m_flags.Mutex()) { return m_bStart || m_emState != Rtx::EM_STATE_IDLE; }

  IRtxHost& m_host;
  CMutex m_RunLock;  ///< held to begin and to abort a run: an abort never closes the line of the next one
  CFlags m_flags{Rtx::EM_FLAG_UART_OPEN};
  std::atomic<UpgradeStateType> m_emState{Rtx::EM_STATE_IDLE};  ///< changed with the flags' lock held
  bool m_bStart GUARDED_BY(m_flags.Mutex()) = false;            ///< a run was accepted and is to leave Idle
  RtxLine m_line;
  RtxParser m_UartHandler{m_line, m_flags, m_emState};

  // The state thread's own.
  UpgradeStateType m_emLastState = Rtx::EM_STATE_MAX;
  UpgradeStateType m_emFailedState = Rtx::EM_STATE_MAX;  ///< which a run that failed had reached
  Failure m_failure;                                     ///< of the run; empty while it goes well
  RtxFiles m_files;
  std::deque<Rtx::FwData_t> m_deqFwData;  ///< empty until the run's first module is programmed
};

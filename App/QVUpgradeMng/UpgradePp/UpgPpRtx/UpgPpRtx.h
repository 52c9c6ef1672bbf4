/// The upgrader of a portable part's radio module. The part itself puts its module into the boot loader and
/// passes bytes through; the exchange is the base station's (RtxExchange), with shorter waits. UpgradePp owns
/// the one instance, starts it once the part has agreed, and stops it when the part is pulled out.
#pragma once

#include <functional>
#include <string>

#include "UpgradeFrame/RtxSubmodules/RtxExchange.h"
#include "common/Mutex.h"

class UpgPpRtx final : private IRtxHost {
 public:
  /// Success and, on failure, what went wrong. Called once for each run that was accepted, on the exchange's
  /// thread with no lock held; not for a run that CleanUp ended. The next run is accepted a moment after it
  /// has returned.
  using ResultCallBack = std::function<void(bool success, const std::string& message)>;

  /// Before Init.
  void RegUpgRxResultCallBack(const ResultCallBack& callback) { m_resultCb = callback; }
  /// Starts the threads; false, logged, when one cannot start. Does nothing when they run.
  bool Init() { return m_exchange.Open(); }
  /// Ends a run under way and the threads; waits for a callback that runs: hold no lock that it takes. Not on
  /// the callback's thread. Idempotent; Init may follow.
  bool CleanUp() { return m_exchange.Close(); }

  /// Begins the upgrade of the module behind `device` with the files in `directory` (the two loaders and one
  /// "*.spihex"). False, logged, before Init, while a run is under way, and for a device name over 63 bytes.
  /// Any thread; the result comes through the callback, perhaps before this returns.
  bool StartUpgrade(const std::string& directory, const std::string& device);
  /// Ends a run at once, as a failure, and does not wait for its callback. Without a run it does nothing. Any
  /// thread.
  void StopUpgrad() { m_exchange.AbortRun(); }

 private:
  static constexpr int m_iWaitTime = 3000;  ///< ms

  Failure PrepareFiles(std::string& directory) override;
  void EnterBoot(int module) override;
  void ChunkProgrammed(int module, size_t done, size_t total) override;
  const char* ModuleSucceeded(int /*module*/) override { return nullptr; }
  void RunEnded(int module, const Failure& failure) override;

  ResultCallBack m_resultCb;  ///< set before the threads start
  CMutex m_filesLock;
  std::string m_strDirectory GUARDED_BY(m_filesLock);
  RtxExchange m_exchange{"UpgPpRtx", "PpRtxUpgradeUart", m_iWaitTime, *this};
};

/// What the threads of a portable part's upgrade tell each other: one word of flags for the attempt under
/// way, one for what outlives it, and the lock and the condition variable with which everything waits. A flag
/// that somebody may wait for is set with the lock held, so that no wake-up is lost; a request's flag is
/// cleared before the request is sent, so that no answer is.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace UpgPp {

/// The values are shown in the log as sums.
enum FlagType : uint32_t {
  EM_FLAG_RSP = 0x1,
  EM_FLAG_CLEAN_UP = 0x2,  ///< the upgrade of portable parts ends for good
  EM_FLAG_OLD_UART_OPEN = 0x4,
  EM_FLAG_NEW_UART_OPEN = 0x8,
  EM_FLAG_GET_VER = 0x10,
  EM_FLAG_SEND_FW_INFO_ACK = 0x20,
  EM_FLAG_START_UPG_ACK = 0x40,
  EM_FLAG_SEND_PACK_ACK = 0x80,
  EM_FLAG_SEND_PACK_DONE_ACK = 0x100,
  EM_FLAG_7204_RE_INSERT = 0x200,  ///< the part under way came back after it had gone
  EM_FLAG_7308_VER_INFO_LOADED = 0x400,
  EM_FLAG_UPG_PP_RTX_SUCCESS = 0x800,
  EM_FLAG_UPG_RTX_RESULT = 0x1000,
  EM_FLAG_START_UPG_RTX = 0x2000,  ///< an upgrade of the radio module is under way
  EM_FLAG_REQ_UPG_RTX_ACK = 0x4000,
  EM_FLAG_NOTIFY_PP_RTX_RESULT_ACK = 0x8000,
  EM_FLAG_DO_NOT_UPG = 0x10000,  ///< the user declined on the part
  EM_FLAG_PLUG_IN = 0x20000,     ///< the part under way has been in since its turn began
  EM_FLAG_LOAD_STORAGE = 0x40000,
  EM_FLAG_LOAD_7204_EVT_PACKAGE = 0x80000,
  EM_FLAG_LOAD_7204_DVT_PACKAGE = 0x100000,
};

}  // namespace UpgPp

/// Any thread may call any member.
class PpSignals {
 public:
  using Lock = std::unique_lock<std::mutex>;

  /// The lock that guards all state of a portable part's upgrade. Hold it briefly: receive threads wait for
  /// it, and never while a port is opened or closed, which waits for receive threads.
  Lock Hold() { return Lock(m_SateLock); }

  /// Sets flags and wakes whoever waits. Not with the lock held.
  void Set(uint32_t flags);
  /// The same with the lock held.
  void Set(const Lock& lock, uint32_t flags);
  void Clear(uint32_t flags);
  /// Clears what belongs to one attempt; which ports are open stays.
  void ClearAttempt();

  /// True when one of the flags is set.
  [[nodiscard]] bool Has(uint32_t flags) const;
  [[nodiscard]] bool Stopping() const { return Has(UpgPp::EM_FLAG_CLEAN_UP); }
  /// The whole words, for the log.
  [[nodiscard]] int Flags() const { return static_cast<int>(m_iFlags.load()); }
  [[nodiscard]] int LongTermFlags() const { return static_cast<int>(m_iLongTermFlags.load()); }

  /// Wakes whoever waits for something that is no flag. Change it with the lock held.
  void Notify() { m_cvStateMachineCtrl.notify_all(); }

  /// Waits until one of the flags is set. False when the time is up, and at once on EM_FLAG_CLEAN_UP.
  bool WaitFor(uint32_t flags, std::chrono::milliseconds time);
  /// Waits until `done`, which is asked with the lock held. False as above.
  template <class Predicate>
  bool WaitFor(Lock& lock, std::chrono::milliseconds time, Predicate done) {
    m_cvStateMachineCtrl.wait_for(lock, time, [&] { return Stopping() || done(); });
    return !Stopping() && done();
  }
  /// Waits for the next notification, at most until `until` where that is given; may return without one.
  void WaitOnce(Lock& lock) { m_cvStateMachineCtrl.wait(lock); }
  void WaitOnce(Lock& lock, std::chrono::steady_clock::time_point until) {
    m_cvStateMachineCtrl.wait_until(lock, until);
  }

 private:
  std::atomic<uint32_t> m_iFlags{0};          ///< of the attempt, and which ports are open
  std::atomic<uint32_t> m_iLongTermFlags{0};  ///< what outlives one attempt
  std::mutex m_SateLock;
  std::condition_variable m_cvStateMachineCtrl;
};

/// Named flags with which threads wait for each other's news, as the exchange with a chip or a belt pack
/// needs: the receive thread sets the flag of an answer, the state thread waits for it. An owner has one enum
/// of flags; the same lock guards the rest of what its threads share.
///
/// A flag is set with the lock held, so that no wake-up is lost, and cleared before the request goes out, so
/// that no answer is.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member.
class CFlags {
 public:
  /// `longTerm`: the flags that ClearAttempt leaves, kept in a word of their own.
  explicit CFlags(uint32_t longTerm = 0) : m_iLongTerm(longTerm) {}

  /// The lock. Hold it briefly: receive threads wait for it, and never while a port is opened or closed,
  /// which waits for receive threads.
  CMutex& Mutex() const RETURN_CAPABILITY(m_SateLock) { return m_SateLock; }

  /// Sets flags and wakes whoever waits.
  void Set(uint32_t flags) EXCLUDES(m_SateLock);
  void SetHeld(uint32_t flags) REQUIRES(m_SateLock);
  /// Clears flags; nobody is woken.
  void Clear(uint32_t flags);
  /// Clears all flags of the attempt under way but `kept`.
  void ClearAttempt(uint32_t kept = 0) { m_iFlags &= kept; }
  /// True when one of the flags is set.
  [[nodiscard]] bool Has(uint32_t flags) const { return ((m_iFlags | m_iLongTermFlags) & flags) != 0; }
  /// The whole words, as logs show them.
  [[nodiscard]] int Flags() const { return static_cast<int>(m_iFlags.load()); }
  [[nodiscard]] int LongTermFlags() const { return static_cast<int>(m_iLongTermFlags.load()); }

  /// Ends every wait with a time limit, now and until Begin: the attempt is over, or the thread is to stop.
  void End() EXCLUDES(m_SateLock);
  void EndHeld() REQUIRES(m_SateLock);
  void BeginHeld() REQUIRES(m_SateLock) { m_bEnding = false; }
  [[nodiscard]] bool Ending() const { return m_bEnding; }

  /// Wakes whoever waits for something that is no flag. Change it with the lock held.
  void Notify() { m_cvStateMachineCtrl.NotifyAll(); }

  /// Waits until one of the flags is set. False when the time is up, and at once after End.
  bool WaitFor(uint32_t flags, std::chrono::milliseconds time) EXCLUDES(m_SateLock);
  /// Waits until `done`, which is asked with the lock held. False as above.
  template <class Done>
  bool WaitHeld(std::chrono::milliseconds time, Done done) REQUIRES(m_SateLock) NO_THREAD_SAFETY_ANALYSIS {
    m_cvStateMachineCtrl.WaitFor(m_SateLock, time,
                                 [&]() NO_THREAD_SAFETY_ANALYSIS { return Ending() || done(); });
    return !Ending() && done();
  }
  /// Waits for the next notification, at most until `until` where that is given; may return without one.
  /// End wakes it but is not kept for it: whoever waits in a loop asks Ending first.
  void WaitOnce() REQUIRES(m_SateLock) { m_cvStateMachineCtrl.Wait(m_SateLock); }
  void WaitOnce(CCondition::Clock::time_point until) REQUIRES(m_SateLock) {
    m_cvStateMachineCtrl.WaitUntil(m_SateLock, until);
  }

 private:
  const uint32_t m_iLongTerm;
  std::atomic<uint32_t> m_iFlags{0};          ///< of the attempt
  std::atomic<uint32_t> m_iLongTermFlags{0};  ///< what outlives one attempt
  std::atomic<bool> m_bEnding{false};         ///< changed with the lock held
  mutable CMutex m_SateLock;
  CCondition m_cvStateMachineCtrl;
};

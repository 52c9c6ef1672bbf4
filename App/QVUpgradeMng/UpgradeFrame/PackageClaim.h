/// Who may have a package under way: one at a time, from its arrival to its end. Made by main; the package
/// sources take the claim, the frame tells that an upgrade runs.
#pragma once

#include <atomic>

/// Any thread may call any member.
class PackageClaim {
 public:
  /// A source takes it before it touches the page, and gives it back when its package ends without a start;
  /// after a start it is kept until the reboot.
  bool TryClaim() { return !m_bClaimed.exchange(true); }
  void ReleaseClaim() { m_bClaimed = false; }
  [[nodiscard]] bool IsClaimed() const { return m_bClaimed; }

  /// The start flag: set once the frame took a package. While set, no package is unpacked.
  [[nodiscard]] bool GetStartUpgrade() const { return m_startUpgrade; }
  void setmStartUpgrade(bool started) { m_startUpgrade = started; }

 private:
  std::atomic<bool> m_bClaimed{false};
  std::atomic<bool> m_startUpgrade{false};
};

/// The messages that a peer heard, in order, with waiting. Owned by Panel and WebServer, whose listeners fill
/// it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "VirtualStation/Envelope.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// A progress report (command 100) or any other message; the figures are those of a progress report.
struct Report : Envelope {
  int type = 0;     ///< 1 base station, 2 portable part
  int status = 0;   ///< "UpgradeStatus"
  int percent = 0;  ///< "UpgradePrecent"
  bool IsProgress() const { return cmd == 100; }
};

/// Any thread may call any member.
class Reports {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Test = std::function<bool(const Report&)>;

  void Add(const std::string& text);

  std::vector<Report> All() const;
  /// The progress reports of the base station alone.
  std::vector<Report> Progress() const;
  void Clear();

  /// The nth message since the last Clear that passes, waited for if need be; nothing when time is up.
  std::optional<Report> WaitFor(const Test& test, Milliseconds timeout, std::size_t nth = 1) const;
  /// The same for a progress report of the base station with this status.
  std::optional<Report> WaitForStatus(int status, Milliseconds timeout) const;
  std::optional<Report> WaitForCmd(int cmd, Milliseconds timeout, std::size_t nth = 1) const;

  /// Called with every further message on the listener's thread, before any waiter learns of it, for a
  /// display; set before the daemon starts.
  void OnReport(std::function<void(const Report&)> show);

 private:
  mutable CMutex m_mutex;
  mutable CCondition m_added;
  std::vector<Report> m_reports GUARDED_BY(m_mutex);
  std::function<void(const Report&)> m_show GUARDED_BY(m_mutex);
};

}  // namespace station

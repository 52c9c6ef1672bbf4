/// The system bus of the simulated machine: a dbus-daemon of its own with the shipped policy. Owned by
/// Station; outlives the daemon's restarts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace station {

inline constexpr const char* kDaemonBusName = "org.Upgread.server";

/// Any thread may call any member; each call uses a connection of its own.
class Bus {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Starts the bus and returns when it takes connections; halts when it does not start.
  Bus();
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  const std::string& Address() const { return m_address; }

  /// Calls a method of the upgrade daemon with one string; the reply's string, or nothing when no reply or an
  /// error came in time.
  std::optional<std::string> Call(const std::string& path, const std::string& interface,
                                  const std::string& member, const std::string& text,
                                  Milliseconds timeout) const;
  /// Waits until somebody owns `name`. False when time is up.
  bool WaitForOwner(const std::string& name, Milliseconds timeout) const;

 private:
  std::string m_address;
  pid_t m_pid = -1;
};

}  // namespace station

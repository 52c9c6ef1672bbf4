/// The shipped daemon as a process of the simulated machine. Owned by Station.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "VirtualStation/Bus.h"

namespace station {

/// One thread at a time, but Kill, Running, Log and Output from any.
class Daemon {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Environment = std::map<std::string, std::string>;
  using CommandLine = std::vector<std::string>;

  /// Exit status of a daemon that a sanitizer ended.
  static constexpr int kSanitizerExit = 86;

  /// Put in front of a program's command line: runs it under the filters and capabilities of the shipped
  /// unit.
  static CommandLine Confinement();

  /// `launcher` stands in front of the daemon's command line, `environment` is added to its environment;
  /// `pauseDivisor` shortens its long pauses (1: real time).
  Daemon(const Bus& bus, unsigned pauseDivisor, Environment environment, CommandLine launcher);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Starts it and waits until it owns its bus name. False, with the reason on stderr, when it does not
  /// within 20 s.
  bool Start();
  /// Sends `signal` and waits for the end: the wait status (see waitpid), or nothing when it had to be
  /// killed.
  std::optional<int> Stop(int signal = SIGTERM, Milliseconds timeout = std::chrono::seconds(10));
  /// The wait status once the daemon has ended by itself (a reboot kills it); nothing when time is up.
  std::optional<int> WaitExit(Milliseconds timeout);
  /// SIGKILL to the daemon and every command it runs; all are dead when it returns.
  void Kill();
  bool Running() const;
  pid_t Pid() const { return m_pid; }

  /// What it printed, and its system log, since the station was made (the log: what is on /firmware).
  static std::string Output();
  static std::string Log();
  /// Waits until the log holds `text` at `from` (in bytes) or behind. False when time is up.
  static bool WaitForLog(const std::string& text, Milliseconds timeout, std::size_t from = 0);
  /// Everything that sanitizers reported of the daemon; empty when all is well.
  static std::string SanitizerReports();

 private:
  void _End();

  const Bus& m_bus;
  unsigned m_pauseDivisor;
  Environment m_environment;
  CommandLine m_commandLine;
  std::atomic<pid_t> m_pid{-1};  ///< of the process and of its session
  std::atomic<int> m_pidFd{-1};
  std::optional<int> m_status;  ///< of the last one that ended
};

}  // namespace station

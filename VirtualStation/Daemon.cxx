/// Starts, kills and watches the daemon. It leads a session of its own, in which every command that it runs
/// stays, also in a process group of its own: a kill of the session is what the end of its control group
/// would be on the device.
#include "VirtualStation/Daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <utility>

#include "VirtualStation/Box.h"
#include "VirtualStation/Commands.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kLogDir = "/firmware/log/QVUpgradeMng";
const std::string kLogFile = kLogDir + "/system.log";

std::string OutputFile() {
  return std::string(kStationDir) + "/daemon.out";
}
std::string SanitizerPrefix() {
  return std::string(kStationDir) + "/sanitizer";
}

std::string Inherited(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

int RemainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

Daemon::CommandLine Daemon::Confinement() {
  // The preloaded library takes itself out of the environment of whatever comes next.
  return {STATION_CONFINE, STATION_UNIT, "env", "LD_PRELOAD=" STATION_SHORT_PAUSES};
}

Daemon::Daemon(const Bus& bus, unsigned pauseDivisor, Environment environment, CommandLine launcher)
    : m_bus(bus),
      m_pauseDivisor(pauseDivisor),
      m_environment(std::move(environment)),
      m_commandLine(std::move(launcher)) {
  m_commandLine.emplace_back(STATION_DAEMON);
  // A killed daemon's commands become children of this process, so that their end can be waited for.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  WriteText(OutputFile(), "");
}

Daemon::~Daemon() {
  _End();
}

bool Daemon::Start() {
  _End();
  const std::string reports =
      ":exitcode=" + std::to_string(kSanitizerExit) + ":log_path=" + SanitizerPrefix();
  Environment environment = {
      {"PATH", Commands::ProgramDir() + ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"},
      {"HOME", "/root"},
      {"STATION_COMMANDS", Commands::SocketPath()},
      {"DBUS_SYSTEM_BUS_ADDRESS", m_bus.Address()},
      {"LD_PRELOAD", STATION_SHORT_PAUSES},
      {"QV_PAUSE_DIVISOR", std::to_string(m_pauseDivisor)},
      {"ASAN_OPTIONS", Inherited("ASAN_OPTIONS") + ":verify_asan_link_order=0" + reports},
      {"TSAN_OPTIONS", Inherited("TSAN_OPTIONS") + reports},
      {"UBSAN_OPTIONS", Inherited("UBSAN_OPTIONS") + ":print_stacktrace=1" + reports},
      {"LSAN_OPTIONS", Inherited("LSAN_OPTIONS")}};
  for (const auto& [name, value] : m_environment) {
    environment[name] = value;
  }
  std::vector<std::string> variables;
  std::vector<char*> envp;
  variables.reserve(environment.size());
  for (const auto& [name, value] : environment) {
    envp.push_back(variables.emplace_back(name).append("=").append(value).data());
  }
  envp.push_back(nullptr);

  std::vector<char*> argv;
  for (std::string& word : m_commandLine) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, OutputFile().c_str(), O_WRONLY | O_APPEND, 0);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addchdir_np(&actions, "/");
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    Halt(std::string("cannot run ") + argv[0], error);
  }
  m_pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  m_pid = pid;

  constexpr std::chrono::seconds kStartLimit(20);
  if (m_bus.WaitForOwner(kDaemonBusName, kStartLimit)) {
    return true;
  }
  std::cerr << "virtual station: the daemon did not come up on the bus; its output:\n"
            << Output() << std::endl;
  return false;
}

std::optional<int> Daemon::Stop(int signal, Milliseconds timeout) {
  if (m_pid > 0) {
    kill(m_pid, signal);
  }
  const std::optional<int> status = WaitExit(timeout);
  if (!status) {
    _End();
  }
  return status;
}

std::optional<int> Daemon::WaitExit(Milliseconds timeout) {
  if (m_pid > 0) {
    pollfd wait = {m_pidFd, POLLIN, 0};
    const auto deadline = Clock::now() + timeout;
    while (poll(&wait, 1, RemainingMs(deadline)) < 0 && errno == EINTR) {
    }
    if (wait.revents == 0) {
      return std::nullopt;
    }
    _End();  // commands may have outlived it
  }
  return m_status;
}

void Daemon::Kill() {
  const pid_t session = m_pid;
  if (session > 0) {
    KillSession(session);
  }
}

/// Kills what is left of the session and reaps it: what lost its parent has become a child of this process.
void Daemon::_End() {
  const pid_t session = m_pid;
  if (session <= 0) {
    return;
  }
  Kill();
  for (std::vector<pid_t> dead = {session}; !dead.empty(); dead = ProcessesOf(session)) {
    for (const pid_t pid : dead) {
      int status = 0;
      if (waitpid(pid, &status, 0) == session) {
        m_status = status;
      }
    }
  }
  m_pid = -1;
  close(m_pidFd);
  m_pidFd = -1;
}

bool Daemon::Running() const {
  pollfd ended = {m_pidFd, POLLIN, 0};
  return m_pid > 0 && poll(&ended, 1, 0) == 0;
}

std::string Daemon::Output() {
  return ReadText(OutputFile());
}

std::string Daemon::Log() {
  return ReadText(kLogFile);
}

bool Daemon::WaitForLog(const std::string& text, Milliseconds timeout, std::size_t from) {
  const auto deadline = Clock::now() + timeout;
  // The host limits how many may watch; other stations may have used that up.
  constexpr int kUnwatchedMs = 50;
  const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  inotify_add_watch(watch, kLogDir.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
  bool found = false;
  while (true) {
    found = Log().find(text, from) != std::string::npos;
    const int remaining = RemainingMs(deadline);
    if (found || remaining == 0) {
      break;
    }
    pollfd wait = {watch, POLLIN, 0};
    poll(&wait, 1, watch < 0 ? std::min(remaining, kUnwatchedMs) : remaining);
    char events[4096];
    while (read(watch, events, sizeof events) > 0) {
    }
  }
  close(watch);
  return found;
}

std::string Daemon::SanitizerReports() {
  std::string reports;
  for (const auto& entry : std::filesystem::directory_iterator(kStationDir)) {
    if (entry.path().string().rfind(SanitizerPrefix(), 0) == 0) {
      reports += ReadText(entry.path());
    }
  }
  return reports;
}

}  // namespace station

/// Serves the programs that stand in for commands. One connects to a socket (one message is one packet),
/// sends "B<line>" before it runs the command, and gets "r" (run it) or "x<code>" (end with this code);
/// having run it, it sends "E<code>" and gets "k". A held command gets its answer late. The programs are
/// members of the daemon's session, by which the daemon is found and killed.
#include "VirtualStation/Commands.h"

#include <fnmatch.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

/// Journalled, and successful without doing anything: they would act on the machine.
const std::set<std::string> kInert = {"reboot", "systemctl", "pkill", "insmod", "kill"};
/// Journalled and run.
const std::set<std::string> kReal = {"7za",   "chmod", "cp", "dd",   "findmnt", "mkdir",  "mkfs.ext4",
                                     "mount", "mv",    "rm", "sync", "tar",     "umount", "unzip"};
constexpr const char* kReboot = "reboot -f";
constexpr int kKilled = 128 + SIGKILL;
constexpr std::size_t kMaxMessage = 64 * 1024;

bool Matches(const std::string& pattern, const std::string& line) {
  return fnmatch(pattern.c_str(), line.c_str(), 0) == 0;
}

void Reply(int socket, const std::string& text) {
  // Fails when the program was killed meanwhile; its hang-up is seen by the serving thread.
  static_cast<void>(send(socket, text.data(), text.size(), MSG_NOSIGNAL));
}

}  // namespace

std::string Commands::ProgramDir() {
  return std::string(kStationDir) + "/bin";
}
std::string Commands::SocketPath() {
  return std::string(kStationDir) + "/commands";
}

Commands::Commands() {
  namespace fs = std::filesystem;
  fs::remove_all(ProgramDir());
  fs::create_directories(ProgramDir());
  for (const auto* names : {&kInert, &kReal}) {
    for (const std::string& name : *names) {
      fs::create_symlink(STATION_SHIM, ProgramDir() + "/" + name);
    }
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  SocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(address.sun_path);
  m_listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  constexpr int kBacklog = 64;
  if (bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(m_listener, kBacklog) != 0) {
    Halt("cannot watch the commands", errno);
  }
  m_thread = std::thread(&Commands::_Serve, this);
}

Commands::~Commands() {
  {
    const CLock lock(m_mutex);
    m_stop = true;
  }
  m_wake.Ring();
  m_thread.join();
  for (const auto& session : m_sessions) {
    close(session.first);
  }
  close(m_listener);
}

std::vector<Command> Commands::Journal() const {
  const CLock lock(m_mutex);
  return m_journal;
}

std::vector<std::string> Commands::Lines() const {
  std::vector<std::string> lines;
  for (const Command& command : Journal()) {
    lines.push_back(command.line);
  }
  return lines;
}

std::size_t Commands::Count(const std::string& pattern) const {
  const std::vector<std::string> lines = Lines();
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const std::string& line) { return Matches(pattern, line); }));
}

void Commands::Clear() {
  {
    const CLock lock(m_mutex);
    m_journal.clear();
    ++m_generation;
    m_failures.clear();
    m_holds.clear();
    m_kills.clear();
  }
  m_wake.Ring();
}

bool Commands::WaitForStart(const std::string& pattern, Milliseconds timeout, std::size_t count) const {
  return _WaitFor(timeout, count, [&](const Command& command) { return Matches(pattern, command.line); });
}

bool Commands::WaitForEnd(const std::string& pattern, Milliseconds timeout, std::size_t count) const {
  return _WaitFor(timeout, count,
                  [&](const Command& command) { return command.ended && Matches(pattern, command.line); });
}

bool Commands::_WaitFor(Milliseconds timeout, std::size_t count,
                        const std::function<bool(const Command&)>& test) const {
  const CLock lock(m_mutex);
  return m_changed.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) {
    return static_cast<std::size_t>(std::count_if(m_journal.begin(), m_journal.end(), test)) >= count;
  });
}

void Commands::Fail(const std::string& pattern, int exitCode) {
  const CLock lock(m_mutex);
  m_failures[pattern] = exitCode;
}

void Commands::Hold(const std::string& pattern) {
  const CLock lock(m_mutex);
  m_holds.insert(pattern);
}

void Commands::Release(const std::string& pattern) {
  {
    const CLock lock(m_mutex);
    m_holds.erase(pattern);
  }
  m_wake.Ring();
}

void Commands::KillBefore(const std::string& pattern, std::size_t nth) {
  const CLock lock(m_mutex);
  m_kills.push_back({pattern, nth, false});
}

void Commands::KillAfter(const std::string& pattern, std::size_t nth) {
  const CLock lock(m_mutex);
  m_kills.push_back({pattern, nth, true});
}

void Commands::_Serve() {
  std::string message(kMaxMessage, '\0');
  while (true) {
    std::vector<pollfd> fds = {m_wake.Watch(), {m_listener, POLLIN, 0}};
    for (const auto& session : m_sessions) {
      fds.push_back({session.first, POLLIN, 0});
    }
    poll(fds.data(), fds.size(), -1);

    const CLock lock(m_mutex);
    if (fds[0].revents != 0) {
      m_wake.Quiet();
      if (m_stop) {
        return;
      }
      for (auto& session : m_sessions) {
        _Answer(session.first, session.second);
      }
    }
    if (fds[1].revents != 0) {
      const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (socket >= 0) {
        m_sessions[socket] = {};
      }
    }
    for (auto fd = fds.begin() + 2; fd != fds.end(); ++fd) {
      if (fd->revents == 0) {
        continue;
      }
      const ssize_t length = recv(fd->fd, message.data(), message.size(), MSG_DONTWAIT);
      Session& session = m_sessions[fd->fd];
      if (length > 0 && message[0] == 'B') {
        _Begin(fd->fd, session, message.substr(1, static_cast<std::size_t>(length) - 1));
      } else if (length > 0) {
        _Finish(fd->fd, session, std::atoi(message.c_str() + 1), "k");
      } else if (length == 0 || errno != EAGAIN) {
        if (session.phase != Session::Phase::Ended) {
          _Note(session, kKilled);
        }
        close(fd->fd);
        m_sessions.erase(fd->fd);
      }
    }
  }
}

void Commands::_Begin(int socket, Session& session, const std::string& line) {
  session.entry = m_journal.size();
  session.generation = m_generation;
  session.line = line;
  m_journal.push_back({line});
  m_changed.NotifyAll();
  for (auto kill = m_kills.begin(); kill != m_kills.end();) {
    if (!Matches(kill->pattern, line) || --kill->remaining > 0) {
      ++kill;
      continue;
    }
    if (!kill->after) {
      m_kills.erase(kill);
      _KillDaemonOf(socket);
      return;
    }
    session.killAfter = true;
    kill = m_kills.erase(kill);
  }
  session.phase = Session::Phase::Waiting;
  _Answer(socket, session);
}

void Commands::_Answer(int socket, Session& session) {
  const auto matches = [&](const auto& pattern) { return Matches(pattern, session.line); };
  if (session.phase != Session::Phase::Waiting || std::any_of(m_holds.begin(), m_holds.end(), matches)) {
    return;
  }
  const auto failure = std::find_if(m_failures.begin(), m_failures.end(),
                                    [&](const auto& item) { return matches(item.first); });
  const bool inert = kInert.count(session.line.substr(0, session.line.find(' '))) != 0;
  if (failure == m_failures.end() && !inert) {
    session.phase = Session::Phase::Running;
    Reply(socket, "r");
    return;
  }
  if (failure == m_failures.end() && session.line == kReboot) {
    session.phase = Session::Phase::Ended;
    _Note(session, 0);
    _KillDaemonOf(socket);
    return;
  }
  _Finish(socket, session, failure == m_failures.end() ? 0 : failure->second, "x");
}

void Commands::_Finish(int socket, Session& session, int exitCode, const std::string& reply) {
  session.phase = Session::Phase::Ended;
  if (session.killAfter) {
    _KillDaemonOf(socket);
  } else {
    Reply(socket, reply + std::to_string(exitCode));
  }
  _Note(session, exitCode);
}

void Commands::_Note(const Session& session, int exitCode) {
  if (session.generation == m_generation && session.entry < m_journal.size()) {
    m_journal[session.entry].ended = true;
    m_journal[session.entry].exitCode = exitCode;
  }
  m_changed.NotifyAll();
}

void Commands::_KillDaemonOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return;
  }
  const pid_t session = getsid(peer.pid);
  if (session > 0 && session != getsid(0)) {
    KillSession(session);
  }
}

}  // namespace station

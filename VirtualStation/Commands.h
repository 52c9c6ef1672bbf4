/// The commands of the simulated machine: the first directory in the daemon's PATH holds one small program
/// under many names, which asks here before it runs the real command. So this object keeps the journal, lets
/// chosen commands fail or wait, and cuts the power at a chosen one. Owned by Station; tests and scenarios
/// arm it and read it.
///
/// reboot, systemctl, pkill, insmod and kill are journalled and do nothing, but "reboot -f" kills the daemon,
/// with all commands it runs. All others run for real.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include "VirtualStation/WakeUp.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// One journalled command.
struct Command {
  std::string line;  ///< name and arguments with single blanks between them: "7za x -y ..."
  bool ended = false;
  int exitCode = -1;  ///< when ended: the exit code, or 128 + signal
};

/// All members: any thread. A pattern is a shell pattern over the whole line ("mkfs.ext4 *"); "*" matches
/// every command.
class Commands {
 public:
  using Milliseconds = std::chrono::milliseconds;

  Commands();
  ~Commands();
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  /// Directory to put first in PATH, and the socket to name in the environment variable STATION_COMMANDS.
  static std::string ProgramDir();
  static std::string SocketPath();

  /// All commands since the last Clear, in the order in which they began, and the same as lines.
  std::vector<Command> Journal() const;
  std::vector<std::string> Lines() const;
  std::size_t Count(const std::string& pattern) const;
  /// Forgets the journal and disarms everything; held commands go on.
  void Clear();

  /// Waits until `count` commands that match have begun, or ended, since the last Clear. False when time is
  /// up.
  bool WaitForStart(const std::string& pattern, Milliseconds timeout, std::size_t count = 1) const;
  bool WaitForEnd(const std::string& pattern, Milliseconds timeout, std::size_t count = 1) const;

  /// Every command that matches fails with `exitCode` without being run, until Clear.
  void Fail(const std::string& pattern, int exitCode);
  /// Every command that matches waits before it runs, until Release of the same pattern (or Clear).
  void Hold(const std::string& pattern);
  void Release(const std::string& pattern);
  /// Kills the daemon and everything it runs (SIGKILL) in place of the nth command that matches from now on,
  /// or right after it ended, before the daemon learns of it. It happens once.
  void KillBefore(const std::string& pattern, std::size_t nth = 1);
  void KillAfter(const std::string& pattern, std::size_t nth = 1);

 private:
  struct Kill {
    std::string pattern;
    std::size_t remaining;
    bool after;
  };
  struct Session {  ///< one command that is under way
    enum class Phase { Silent, Waiting, Running, Ended };
    Phase phase = Phase::Silent;
    std::string line;
    std::size_t entry = 0;  ///< in the journal of its generation
    std::size_t generation = 0;
    bool killAfter = false;
  };

  bool _WaitFor(Milliseconds timeout, std::size_t count,
                const std::function<bool(const Command&)>& test) const;
  void _Serve();
  void _Begin(int socket, Session& session, const std::string& line) REQUIRES(m_mutex);
  void _Answer(int socket, Session& session) REQUIRES(m_mutex);
  void _Finish(int socket, Session& session, int exitCode, const std::string& reply) REQUIRES(m_mutex);
  void _Note(const Session& session, int exitCode) REQUIRES(m_mutex);
  static void _KillDaemonOf(int socket);

  mutable CMutex m_mutex;
  mutable CCondition m_changed;
  std::vector<Command> m_journal GUARDED_BY(m_mutex);
  std::size_t m_generation GUARDED_BY(m_mutex) = 0;  ///< counts the Clears
  std::map<std::string, int> m_failures GUARDED_BY(m_mutex);
  std::multiset<std::string> m_holds GUARDED_BY(m_mutex);
  std::vector<Kill> m_kills GUARDED_BY(m_mutex);
  bool m_stop GUARDED_BY(m_mutex) = false;

  std::map<int, Session> m_sessions;  ///< by socket; the serving thread's alone
  int m_listener = -1;
  WakeUp m_wake;  ///< stop, or a hold was released
  std::thread m_thread;
};

}  // namespace station

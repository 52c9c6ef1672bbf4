/// The one place where the daemon starts another process. QVUpgradeTool::ExecCommand logs what happened here;
/// the log itself uses it directly, because it cannot log.
#pragma once

#include <string>

/// What became of a shell command.
struct ShellResult {
  enum class Outcome {
    Exited,         ///< `exitCode` holds the command's code
    Killed,         ///< ended by a signal
    SigmaskFailed,  ///< the remaining ones: a system call failed, its error in `error`
    SigactionFailed,
    ForkFailed,
    WaitFailed,
    ChildVanished,  ///< somebody else reaped the child; its result is unknown
  };
  Outcome outcome = Outcome::ForkFailed;
  int exitCode = -1;  ///< 0 to 255 when Exited, else -1
  int rawStatus = 0;  ///< as waitpid gave it
  int error = 0;      ///< errno of a failed call
};

/// While it lives, the commands of the calling thread have one more variable in their environment, or one of
/// another value; of several the innermost counts. The process's own environment, which other threads read,
/// stays as it is.
class CommandVariable {
 public:
  /// `assignment`, a literal, is "NAME=value".
  explicit CommandVariable(const char* assignment);
  ~CommandVariable();
  CommandVariable(const CommandVariable&) = delete;
  CommandVariable& operator=(const CommandVariable&) = delete;

 private:
  const char* const m_outer;
};

/// Runs `command` with "/bin/sh -c" and waits for it to end, however long that takes. The child reads from
/// /dev/null and gets no descriptor of this process above 2, SIGPIPE and SIGCHLD at their defaults and the
/// caller's signal mask. Any thread may call, several at once: while at least one command runs, SIGCHLD has
/// its default disposition, so no handler can reap a command's status; the last one to end restores what the
/// first one found.
ShellResult RunShell(const char* command);

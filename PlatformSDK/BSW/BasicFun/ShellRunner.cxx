/// Runs shell commands: called by the upgrade tool, the log and the hot-plug monitor, from any number of
/// threads. The order of the steps is what keeps a command's result from being reaped by somebody else:
/// change it with care.
#include "BSW/BasicFun/ShellRunner.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string_view>
#include <vector>

#include "BSW/BasicFun/UniqueFd.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace {

constexpr int kCannotExec = 127;

/// The thread's CommandVariable; null when there is none.
thread_local const char* t_assignment = nullptr;

/// SIGCHLD has its default disposition while any runner holds this: the first in saves what it finds, the
/// last out restores it.
class ChildSignalHold {
 public:
  ChildSignalHold() {
    const CLock lock(s_mutex);
    if (s_holders == 0) {
      struct sigaction standard {};
      standard.sa_handler = SIG_DFL;
      sigemptyset(&standard.sa_mask);
      if (sigaction(SIGCHLD, &standard, &s_found) != 0) {
        m_error = errno;
        return;
      }
    }
    ++s_holders;
  }
  ~ChildSignalHold() {
    if (m_error != 0) return;
    const CLock lock(s_mutex);
    if (--s_holders == 0) sigaction(SIGCHLD, &s_found, nullptr);
  }
  ChildSignalHold(const ChildSignalHold&) = delete;
  ChildSignalHold& operator=(const ChildSignalHold&) = delete;

  /// errno of the failed installation, 0 when SIGCHLD is held.
  int Error() const { return m_error; }

 private:
  inline static CMutex s_mutex;
  inline static int s_holders GUARDED_BY(s_mutex) = 0;
  inline static struct sigaction s_found GUARDED_BY(s_mutex) {};
  int m_error = 0;
};

ShellResult Failure(ShellResult::Outcome outcome, int error) {
  ShellResult result;
  result.outcome = outcome;
  result.error = error;
  return result;
}

/// Lets exec close everything above standard error. Older kernels cannot do it in one call.
void CloseOnExecFrom(unsigned first, unsigned limit) {
  if (close_range(first, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  for (unsigned fd = first; fd < limit; ++fd) {
    fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
  }
}

/// The process's environment with the thread's CommandVariable in it, in the form that exec takes.
std::vector<const char*> CommandEnvironment() {
  std::vector<const char*> environment;
  const std::string_view assignment = t_assignment == nullptr ? "" : t_assignment;
  const std::string_view name = assignment.substr(0, assignment.find('=') + 1);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (name.empty() || std::string_view(*entry).substr(0, name.size()) != name)
      environment.push_back(*entry);
  }
  if (!name.empty()) environment.push_back(t_assignment);
  environment.push_back(nullptr);
  return environment;
}

/// The child, from fork to exec: async-signal-safe calls only.
[[noreturn]] void ExecShell(const char* command, const char* const* environment, const sigset_t& mask,
                            unsigned descriptorLimit) {
  signal(SIGPIPE, SIG_DFL);  // the daemon ignores it, and exec would hand that on
  // A command that asks gets no answer instead of waiting for one.
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing >= 0) dup2(nothing, STDIN_FILENO);
  CloseOnExecFrom(STDERR_FILENO + 1, descriptorLimit);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  execle("/bin/sh", "sh", "-c", command, nullptr, environment);
  execle("/bin/bash", "bash", "-c", command, nullptr, environment);
  _exit(kCannotExec);
}

ShellResult WaitForChild(pid_t child) {
  int status = 0;
  if (RetryInterrupted([&] { return waitpid(child, &status, 0); }) < 0) {
    return Failure(errno == ECHILD ? ShellResult::Outcome::ChildVanished : ShellResult::Outcome::WaitFailed,
                   errno);
  }
  ShellResult result;
  result.rawStatus = status;
  result.outcome = ShellResult::Outcome::Killed;
  if (WIFEXITED(status)) {
    result.outcome = ShellResult::Outcome::Exited;
    result.exitCode = WEXITSTATUS(status);
  }
  return result;
}

}  // namespace

CommandVariable::CommandVariable(const char* assignment) : m_outer(t_assignment) {
  t_assignment = assignment;
}

CommandVariable::~CommandVariable() {
  t_assignment = m_outer;
}

ShellResult RunShell(const char* command) {
  sigset_t childSignal;
  sigset_t oldMask;
  sigemptyset(&childSignal);
  sigaddset(&childSignal, SIGCHLD);
  const int maskError = pthread_sigmask(SIG_BLOCK, &childSignal, &oldMask);
  if (maskError != 0) return Failure(ShellResult::Outcome::SigmaskFailed, maskError);

  const ChildSignalHold hold;
  if (hold.Error() != 0) {
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    return Failure(ShellResult::Outcome::SigactionFailed, hold.Error());
  }

  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const std::vector<const char*> environment = CommandEnvironment();
  const pid_t child = fork();
  if (child == 0) {
    ExecShell(command, environment.data(), oldMask, static_cast<unsigned>(descriptors.rlim_cur));
  }
  const int forkError = errno;
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  if (child < 0) return Failure(ShellResult::Outcome::ForkFailed, forkError);
  return WaitForChild(child);
}

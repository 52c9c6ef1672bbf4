// Commands from many threads, beside a SIGCHLD handler that would steal their results, and what a child
// inherits.
#include "BSW/BasicFun/ShellRunner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "BSW/BasicFun/UniqueFd.h"
#include "TempDirectory.h"

namespace {

void ReapEverything(int /*signal*/) {
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

// The signal set that a line of /proc/PID/status names.
unsigned long SignalSet(const std::string& status, const std::string& name) {
  return std::stoul(status.substr(status.find(name + ":") + name.size() + 1), nullptr, 16);
}

constexpr unsigned long Bit(int signal) {
  return 1UL << static_cast<unsigned>(signal - 1);
}

}  // namespace

TEST(ShellRunner, GivesEveryThreadItsOwnExitCodeBesideAForeignChildHandler) {
  constexpr int kThreads = 8;
  constexpr int kCommands = 20;
  struct sigaction thief {};
  struct sigaction before {};
  thief.sa_handler = ReapEverything;
  sigaction(SIGCHLD, &thief, &before);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::vector<std::string> faults(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &faults] {
      for (int i = 0; i < kCommands; ++i) {
        const int code = thread * kCommands + i;
        const ShellResult result = RunShell(("exit " + std::to_string(code)).c_str());
        if (result.outcome == ShellResult::Outcome::Exited && result.exitCode == code) continue;
        faults[static_cast<size_t>(thread)] += " " + std::to_string(code);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& fault : faults) EXPECT_EQ(fault, "");
  struct sigaction after {};
  sigaction(SIGCHLD, &before, &after);
  EXPECT_EQ(after.sa_handler, ReapEverything);
}

TEST(ShellRunner, TellsAKilledCommandFromAFailedOne) {
  const ShellResult killed = RunShell("kill -9 $$");
  EXPECT_EQ(killed.outcome, ShellResult::Outcome::Killed);
  EXPECT_EQ(killed.exitCode, -1);
  EXPECT_EQ(RunShell("no-such-command-here 2>/dev/null").exitCode, 127);
  EXPECT_EQ(RunShell((std::string(300000, ' ') + "true").c_str()).exitCode, 127);  // longer than exec takes
}

TEST(ShellRunner, GivesAVariableToTheCommandsOfItsOwnThreadWhileItLives) {
  const auto sees = [](const char* name, const std::string& value) {
    return RunShell(("test \"$" + std::string(name) + "\" = '" + value + "'").c_str()).exitCode == 0;
  };
  const std::string home = getenv("HOME") == nullptr ? "" : getenv("HOME");
  {
    const CommandVariable outer("QV_UNIT=1");
    EXPECT_TRUE(sees("QV_UNIT", "1") && sees("HOME", home));
    {
      const CommandVariable inner("HOME=/no where");
      EXPECT_TRUE(sees("HOME", "/no where"));
      std::thread([&] { EXPECT_TRUE(sees("HOME", home) && sees("QV_UNIT", "")); }).join();
    }
    EXPECT_TRUE(sees("QV_UNIT", "1"));
    EXPECT_EQ(getenv("QV_UNIT"), nullptr);
  }
  EXPECT_TRUE(sees("QV_UNIT", "") && sees("HOME", home));
}

TEST(ShellRunner, HandsTheChildNoDescriptorAndTheSignalsAsPromised) {
  const TempDirectory directory;
  const UniqueFd leaky(open("/dev/null", O_RDONLY));  // NOLINT(android-cloexec-open): must be inheritable
  sigset_t blocked;
  sigset_t oldMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, &oldMask);
  const auto oldPipe = signal(SIGPIPE, SIG_IGN);
  const std::string command = "cat /proc/self/status > " + directory / "status" + "; test ! -e /proc/$$/fd/" +
                              std::to_string(leaky.Get());
  EXPECT_EQ(RunShell(command.c_str()).exitCode, 0);
  signal(SIGPIPE, oldPipe);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, &oldMask, &mask);
  EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&mask, SIGCHLD), 0);
  const std::string status = ReadText(directory / "status");
  EXPECT_EQ(SignalSet(status, "SigIgn") & Bit(SIGPIPE), 0U);
}

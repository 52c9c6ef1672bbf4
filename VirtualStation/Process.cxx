/// Spawns the station's own programs and waits for them; reads and writes small text files.
#include "VirtualStation/Process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

namespace station {
namespace {

bool IsDead(pid_t pid) {
  const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name = stat.rfind(") ");  // the name may hold anything; one letter follows
  return name == std::string::npos || std::strchr("ZX", stat[name + 2]) != nullptr;
}

}  // namespace

void Halt(const std::string& what, int error) {
  std::cerr << "virtual station: " << what;
  if (error != 0) {
    std::cerr << ": " << std::strerror(error);
  }
  std::cerr << std::endl;
  constexpr int kStationFault = 70;
  _exit(kStationFault);
}

int RunProgram(const std::vector<std::string>& arguments, const std::string& directory) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    Halt("cannot run " + arguments[0], error);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      Halt("cannot wait for " + arguments[0], errno);
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void MustRun(const std::vector<std::string>& arguments, const std::string& directory) {
  const int code = RunProgram(arguments, directory);
  if (code == 0) {
    return;
  }
  std::string line;
  for (const std::string& argument : arguments) {
    line += argument + ' ';
  }
  Halt(line + "(in " + directory + ") ended with " + std::to_string(code));
}

std::vector<pid_t> ProcessesOf(pid_t session) {
  std::vector<pid_t> processes;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const pid_t pid = std::atoi(entry.path().filename().c_str());
    if (pid > 0 && getsid(pid) == session) {
      processes.push_back(pid);
    }
  }
  return processes;
}

void KillSession(pid_t session) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (true) {
    const std::vector<pid_t> processes = ProcessesOf(session);
    for (const pid_t pid : processes) {
      kill(pid, SIGKILL);
    }
    if (std::all_of(processes.begin(), processes.end(), IsDead)) {
      return;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      Halt("a command does not die of SIGKILL");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string ReadText(const std::string& path) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
  std::error_code ignored;  // the open below tells
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << text) || !file.flush()) {
    Halt("cannot write " + path, errno);
  }
}

}  // namespace station

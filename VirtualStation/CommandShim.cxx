/// Stands in the daemon's PATH under the name of every command that the station watches. It asks the station
/// what is to be done (see Commands.h), runs the real command and tells how it ended. No sanitizer, no
/// library: it is started for every command.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kNoStation = 126;
constexpr const char* kRealPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

int Connect() {
  const char* path = std::getenv("STATION_COMMANDS");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path == nullptr || std::strlen(path) >= sizeof address.sun_path) {
    return -1;
  }
  std::memcpy(address.sun_path, path, std::strlen(path) + 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? fd : -1;
}

/// Sends a message and gives the answer; without one the station is gone and the command must not act.
std::string Ask(int station, const std::string& message) {
  char answer[16] = {};
  if (send(station, message.data(), message.size(), MSG_NOSIGNAL) < 0 ||
      recv(station, answer, sizeof answer - 1, 0) <= 0) {
    std::exit(kNoStation);
  }
  return answer;
}

}  // namespace

int main(int /*argc*/, char* argv[]) {
  const char* slash = std::strrchr(argv[0], '/');
  argv[0] = slash == nullptr ? argv[0] : const_cast<char*>(slash) + 1;
  std::string line = "B";
  for (char** word = argv; *word != nullptr; ++word) {
    line += (word == argv ? "" : " ") + std::string(*word);
  }
  const int station = Connect();
  if (station < 0) {
    std::fprintf(stderr, "%s: the station's command socket does not answer\n", argv[0]);
    return kNoStation;
  }
  const std::string answer = Ask(station, line);
  if (answer[0] == 'x') {
    return std::atoi(answer.c_str() + 1);
  }
  const pid_t pid = fork();
  if (pid == 0) {
    setenv("PATH", kRealPath, 1);
    execvp(argv[0], argv);
    _exit(127);
  }
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const int code = pid < 0 ? kNoStation : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  Ask(station, "E" + std::to_string(code));
  if (pid > 0 && WIFSIGNALED(status)) {
    std::signal(WTERMSIG(status), SIG_DFL);
    std::raise(WTERMSIG(status));
  }
  return code;
}

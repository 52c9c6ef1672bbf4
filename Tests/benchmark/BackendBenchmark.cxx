// What a download costs, against `curl -o` followed by `openssl md5` in the same run, and the memory that it
// takes. The counter "ratio" is bare time over ours, so 1 is as fast; "ratio_synced" gives the bare commands
// a `sync` of the file, which ours always does. Run by hand; see Docs/performance.md.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "../unit/Backend/LoopbackListener.h"
#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "Backend/QuorvalenDownloadManager.h"
#include "Backend/TransferLoop.h"

namespace {

using namespace Quorvalen;
using Clock = std::chrono::steady_clock;
constexpr int64_t kMiB = 1024 * 1024;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void ServeFile(const LoopbackListener& listener, const std::string& path) {
  signal(SIGPIPE, SIG_IGN);
  for (;;) {
    const UniqueFd line = listener.Accept();
    const UniqueFd file(open(path.c_str(), O_RDONLY));
    struct stat info {};
    fstat(file.Get(), &info);
    std::string question(4096, '\0');
    if (recv(line.Get(), question.data(), question.size(), 0) <= 0) continue;
    const std::string head =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(info.st_size) + "\r\n\r\n";
    send(line.Get(), head.data(), head.size(), 0);
    while (sendfile(line.Get(), file.Get(), nullptr, static_cast<size_t>(kMiB)) > 0) {
    }
  }
}

// A server of one file, in a process of its own.
class FileServer {
 public:
  explicit FileServer(const std::string& path) : m_child(fork()) {
    if (m_child == 0) ServeFile(m_listener, path);
  }
  ~FileServer() {
    kill(m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
  }
  FileServer(const FileServer&) = delete;
  FileServer& operator=(const FileServer&) = delete;
  std::string Url() const { return m_listener.Url("/package.zip"); }

 private:
  const LoopbackListener m_listener;
  const pid_t m_child;
};

// VmHWM of this process in MiB.
double PeakMemory() {
  std::ifstream status("/proc/self/status");
  std::string word;
  double kib = 0;
  while (status >> word && word != "VmHWM:") {
  }
  status >> kib;
  return kib / 1024;
}

// Downloads in a process of its own. Its peak memory in MiB; 0 when the download failed.
double Download(const DownloadRequest& request) {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) return 0;
  const pid_t child = fork();
  if (child == 0) {
    TransferLoop loop;
    QuorvalenDownloadManager manager(loop);
    std::promise<bool> end;
    std::string error;
    const auto task = manager.Add(
        request,
        [&end](const DownloadTask::Status& status) {
          if (status.state == DownloadTask::State::Done) end.set_value(true);
          if (status.state == DownloadTask::State::Failed) end.set_value(false);
        },
        error);
    const bool done = task && loop.Start() && end.get_future().get();
    loop.Stop();
    const double peak = done ? PeakMemory() : 0;
    _exit(write(ends[1], &peak, sizeof peak) == sizeof peak ? 0 : 1);
  }
  double peak = 0;
  const bool got = read(ends[0], &peak, sizeof peak) == sizeof peak;
  waitpid(child, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
  return got ? peak : 0;
}

double TimeOf(const std::string& command, benchmark::State& state) {
  const auto start = Clock::now();
  if (RunShell(command.c_str()).exitCode != 0) state.SkipWithError("the bare commands failed");
  return SecondsSince(start);
}

void DownloadAgainstCurlAndOpenssl(benchmark::State& state) {
  std::string directory = "/tmp/qv-benchmark-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) return state.SkipWithError("no directory");
  const std::string source = directory + "/source";
  {
    std::vector<char> block(static_cast<size_t>(kMiB), 'q');
    std::ofstream out(source, std::ios::binary);
    for (int64_t i = 0; i < state.range(0); ++i) out.write(block.data(), kMiB);
  }
  sync();
  const FileServer server(source);
  const DownloadRequest request = {server.Url(), directory, "ours",
                                   static_cast<uint64_t>(state.range(0) * kMiB), md5::MD5(source)};
  const std::string copy = directory + "/bare";
  const std::string fetch = "curl -s -o " + copy + " " + server.Url();
  const std::string check = " && openssl md5 " + copy + " >/dev/null";
  const std::string fetchAndCheck = fetch + check;
  const std::string fetchSyncAndCheck = fetch + " && sync " + copy + check;
  const std::string remove = "rm -f " + copy + " " + directory + "/ours; sync";
  double ours = 0;
  double bare = 0;
  double bareSynced = 0;
  double peak = 0;
  while (state.KeepRunning()) {
    const auto start = Clock::now();
    peak = Download(request);
    ours += SecondsSince(start);
    if (peak == 0) state.SkipWithError("the download failed");
    RunShell(remove.c_str());
    bare += TimeOf(fetchAndCheck, state);
    RunShell(remove.c_str());
    bareSynced += TimeOf(fetchSyncAndCheck, state);
    RunShell(remove.c_str());
  }
  state.counters["ratio"] = bare / ours;
  state.counters["ratio_synced"] = bareSynced / ours;
  state.counters["peak_MiB"] = peak;
  RunShell(("rm -rf " + directory).c_str());
}
BENCHMARK(DownloadAgainstCurlAndOpenssl)->Arg(64)->Arg(1024)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// What the daemon costs on the virtual station: start, idling, the transfer to a portable part, and the
// intake of a large package against the bare commands in the same run. Prints one line a figure. Run by hand,
// as root; see Docs/performance.md.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "VirtualStation/Box.h"
#include "VirtualStation/Pps/Pp7308.h"
#include "VirtualStation/Station.h"

using namespace station;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = 600s;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double SecondsFor(const std::string& command) {
  const auto start = Clock::now();
  if (std::system(command.c_str()) != 0) std::fprintf(stderr, "failed: %s\n", command.c_str());
  return SecondsSince(start);
}

// Peak resident memory of a process in KiB.
long PeakKiB(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    long value = 0;
    if (word == "VmHWM:" && status >> value) return value;
  }
  return -1;
}

// Processor seconds that a process has used.
double CpuSeconds(pid_t process) {
  std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
  std::string field;
  for (int i = 0; i < 13; ++i) stat >> field;
  double user = 0;
  double system = 0;
  stat >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Milliseconds of the day of the first log line that holds `text`.
double LoggedAt(const std::string& log, const std::string& text) {
  const auto at = log.find(text);
  if (at == std::string::npos) return -1;
  const auto line = log.rfind('\n', at);
  unsigned hours = 0;
  unsigned minutes = 0;
  unsigned seconds = 0;
  unsigned milliseconds = 0;
  std::sscanf(log.c_str() + (line == std::string::npos ? 0 : line + 1), "[%u:%u:%u,%u]", &hours, &minutes,
              &seconds, &milliseconds);
  return ((hours * 60.0 + minutes) * 60.0 + seconds) * 1000.0 + milliseconds;
}

void MeasureStartAndIdle() {
  Station station;
  const auto start = Clock::now();
  if (!station.daemon().Start()) return;
  std::printf("start to bus name owned: %.0f ms\n", SecondsSince(start) * 1000);
  station.panel().WaitForCmd(200, kPatience);
  std::this_thread::sleep_for(12s);  // the five version reports are over
  const double before = CpuSeconds(station.daemon().Pid());
  const auto idleStart = Clock::now();
  std::this_thread::sleep_for(20s);
  std::printf("idle: %.2f %% of a core\n",
              100 * (CpuSeconds(station.daemon().Pid()) - before) / SecondsSince(idleStart));
}

void MeasureIntake(std::uint64_t bytes) {
  StationOptions options;
  options.firmwareBytes = bytes * 6;
  Station station(options);
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", bytes).Build();

  // The bare commands, in the daemon's order, on the same disks.
  const std::string page = "/firmware/bare";
  std::filesystem::create_directories(page);
  double bare = SecondsFor("sync && cp " + package.path + " " + page + "/ota.zip && sync");
  bare += SecondsFor("7za x -y " + page + "/ota.zip -o" + page + " >/dev/null && sync");
  std::filesystem::remove(page + "/ota.zip");
  bare += SecondsFor("openssl md5 " + page + "/*.zip >/dev/null");
  bare += SecondsFor("7za x -y " + page + "/*.zip -o" + page + "/temp >/dev/null && sync");
  std::filesystem::remove_all(page);
  SecondsFor("sync");

  if (!station.Start()) return;
  station.commands().Hold("systemctl stop quorvalen");
  station.InsertStick(package);
  if (!station.commands().WaitForStart("systemctl stop quorvalen", kPatience)) return;
  const std::string log = Daemon::Log();
  const double ours = (LoggedAt(log, "check and move ota is ok") - LoggedAt(log, "cp file old:")) / 1000;
  std::printf("intake of %.0f MiB: %.1f s, bare commands %.1f s, ratio %.3f\n",
              static_cast<double>(bytes) / (1 << 20), ours, bare, ours / bare);
  std::printf("peak memory: %ld KiB\n", PeakKiB(station.daemon().Pid()));
}

// From the arrival of the first packet to that of the message behind the last, at a part that answers at
// once.
void MeasurePpTransfer() {
  constexpr std::size_t kPackets = 200;
  Station station;
  Install(Make7308Package("S1.0.2.5", "V2.0.0.01", kPackets * 1024));
  if (!station.Start()) return;
  Pp7308 part;
  if (!part.conduct().WaitFor(Phase::PpPacket, kPatience)) return;
  const auto start = Clock::now();
  if (!part.conduct().WaitFor(Phase::PpDone, kPatience)) return;
  std::printf("portable part: %.2f ms per packet of 1,024 bytes\n",
              SecondsSince(start) * 1000 / static_cast<double>(kPackets));
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t mebibytes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
  return RunInBox([mebibytes] {
    MeasureStartAndIdle();
    MeasurePpTransfer();
    MeasureIntake(mebibytes << 20U);
    return 0;
  });
}

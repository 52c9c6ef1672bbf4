// What a flood of the system controller's messages costs on the virtual station: the time that a burst takes
// until its last message has had its effect, and the daemon's memory over many messages (argument, default
// 1,000,000). Prints one line a figure. Run by hand, as root; see Docs/performance.md.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "VirtualStation/Box.h"
#include "VirtualStation/Station.h"

using namespace station;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = 600s;
constexpr int kVersionReport = 200;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Resident memory of a process in KiB.
long ResidentKiB(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    long value = 0;
    if (word == "VmRSS:" && status >> value) return value;
  }
  return -1;
}

std::string Battery(int number) {
  Json::Value data;
  data["Battery"] = 50;
  return Controller::Message(Controller::kBattery, data, number);
}

// The burst ends with a request whose answer shows that all before it was handled.
void MeasureBurst(Station& station) {
  constexpr int kBurst = 1000;
  station.panel().Clear();
  const auto start = Clock::now();
  for (int i = 1; i < kBurst; ++i) station.controller().Signal(Battery(i));
  station.controller().Signal(Controller::Message(Controller::kVersionRequest, Json::Value(), kBurst));
  const bool answered = station.panel().WaitForCmd(kVersionReport, kPatience).has_value();
  std::printf("burst of %d messages: %.3f s%s\n", kBurst, SecondsSince(start),
              answered ? "" : ", not handled");
}

void MeasureMemory(Station& station, int messages) {
  constexpr int kWindow = 100;  // sent before their acknowledgements are waited for
  const int sample = std::max(messages / 10, kWindow);
  const auto start = Clock::now();
  for (int sent = 0; sent < messages;) {
    station.controller().Clear();
    for (int i = 0; i < kWindow; ++i) station.controller().Signal(Battery(++sent));
    if (!station.controller().WaitForAck(sent, kPatience)) {
      std::printf("message %d was not acknowledged\n", sent);
      return;
    }
    if (sent % sample == 0) {
      std::printf("memory after %d messages: %ld KiB\n", sent, ResidentKiB(station.daemon().Pid()));
    }
  }
  std::printf("messages a second: %.0f\n", messages / SecondsSince(start));
}

}  // namespace

int main(int argc, char** argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 1'000'000;
  return RunInBox([messages] {
    Station station;
    // Its five reports after the start would be taken for the answer.
    if (!station.Start() || !station.panel().WaitForCmd(kVersionReport, kPatience, 5)) return 1;
    MeasureBurst(station);
    MeasureMemory(station, messages);
    const bool refused = Daemon::Log().find("Out of max cache msg") != std::string::npos;
    std::printf("messages refused: %s\n", refused ? "some" : "none in the log that is left");
    return 0;
  });
}

/// The scenarios, the one that run-station shows first on top; what they share stands below them.
#include "VirtualStation/Scenarios.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "UpgradePackage/Parts.h"
#include "VirtualStation/Box.h"
#include "VirtualStation/Pps/Pp7204.h"
#include "VirtualStation/Pps/Pp7308.h"
#include "VirtualStation/Pps/PpLegacy.h"
#include "VirtualStation/Process.h"
#include "VirtualStation/Station.h"
#include "VirtualStation/TreeCompare.h"

namespace station {
namespace {

namespace fs = std::filesystem;
using std::chrono::minutes;
using std::chrono::seconds;

bool ShowUpgrade(Screen& screen, unsigned pauseDivisor);
bool ShowWeb(Screen& screen, unsigned pauseDivisor);
bool ShowCloud(Screen& screen, unsigned pauseDivisor);
bool ShowHostile(Screen& screen, unsigned pauseDivisor);
bool ShowKill(Screen& screen, unsigned pauseDivisor);
bool ShowPp(Screen& screen, unsigned pauseDivisor);
bool ShowShell(Screen& screen, unsigned pauseDivisor);

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> all = {
      {"upgrade",
       "a USB stick brings all seven parts: files, a boot loader, every chip's firmware; then a belt pack's",
       ShowUpgrade},
      {"web", "the same package comes from the web server", ShowWeb},
      {"cloud", "the cloud has a newer package; its download breaks off and goes on", ShowCloud},
      {"hostile", "a few bad packages, and what the station answers", ShowHostile},
      {"kill", "the power is cut in the middle of an upgrade, and the station recovers", ShowKill},
      {"pp", "belt packs of three families are plugged in: upgraded, restarted, paired", ShowPp},
      {"shell", "a shell inside the station, beside the running daemon", ShowShell},
  };
  return all;
}

namespace {

/// An upgrade of everything takes far less, also at the device's own pace.
constexpr minutes kUpgradeLimit(10);
/// The same for a portable part.
constexpr minutes kPpLimit(2);

const char* Name(Partition p) {
  return p == Partition::A ? "A" : "B";
}

/// A started station whose panel is shown on the screen.
class ShownStation : public Station {
 public:
  /// With firmware for portable parts.
  ShownStation(Screen& screen, unsigned pauseDivisor, const std::vector<PpPackage>& firmware = {})
      : Station(Options(pauseDivisor)) {
    for (const PpPackage& package : firmware) {
      Install(package);
    }
    panel().OnReport([&screen](const Report& report) { screen.Progress(report); });
    screen.Check(Start(), "the daemon is up on the bus");
  }

 private:
  static StationOptions Options(unsigned pauseDivisor) {
    StationOptions options;
    options.pauseDivisor = pauseDivisor;
    return options;
  }
};

Package ShowPackage(Screen& screen, const PackageBuilder& builder) {
  Package package = builder.Build();
  screen.Line(package.name + ", " + std::to_string(fs::file_size(package.path) / 1024) + " KiB");
  return package;
}

void ShowVersions(Screen& screen, const Station& station) {
  const auto heading = [&](Partition p) {
    return std::string(Name(p)) + (p == station.Running() ? " (running)" : "");
  };
  const Json::Value a = Station::Versions(Partition::A);
  const Json::Value b = Station::Versions(Partition::B);
  const auto row = [&](std::string_view title, const char* group,
                       const char* key) -> std::vector<std::string> {
    return {std::string(title), a[group][key].asString(), b[group][key].asString()};
  };
  std::vector<std::vector<std::string>> rows = {{"partition", heading(Partition::A), heading(Partition::B)},
                                                row("overall", "totalVersion", "softVersion")};
  for (const Parts::Part& part : Parts::kAll) {
    if (part.isStation) rows.push_back(row(part.page, "subModulesVersion", part.versionKey));
  }
  screen.Table(rows);
}

/// A copy of a partition's trees, to see later that nobody touched them.
class PartitionCopy {
 public:
  PartitionCopy(const Station& station, Partition p) : m_partition(p), m_versions(Station::Versions(p)) {
    fs::remove_all(kBase);
    fs::create_directories(kBase);
    for (const auto& [name, directory] : _Directories(station)) {
      fs::copy(directory, kBase + name, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
  }
  /// `imported` is what a package brought for portable parts, which is recorded at once: versions by type.
  std::vector<std::string> Differences(const Station& station,
                                       const std::map<std::string, std::string>& imported = {}) const {
    std::vector<std::string> all;
    for (const auto& [name, directory] : _Directories(station)) {
      const std::vector<std::string> differences =
          TreeDifferences(kBase + name, directory, {{"quorvalen/version.json"}});
      all.insert(all.end(), differences.begin(), differences.end());
    }
    Json::Value versions = m_versions;
    for (const auto& [type, version] : imported) {
      versions["subModulesVersion"][type + "Version"] = version;
    }
    if (Station::Versions(m_partition) != versions) {
      all.emplace_back("the version record");
    }
    return all;
  }

 private:
  std::map<std::string, std::string> _Directories(const Station& station) const {
    return {{"/app", Disks::AppDir(m_partition)},
            {"/system", Disks::SystemDir(m_partition)},
            {"/rootfs", station.disks().RootfsDir(m_partition)}};
  }
  const std::string kBase = std::string(kStationDir) + "/copy";
  Partition m_partition;
  Json::Value m_versions;
};

/// The panel's story of a successful upgrade: perhaps a download, then started, upgrading, finished with the
/// version; the bar never goes back in either.
bool PanelSawUpgrade(const Reports& panel, const Package& package) {
  const std::vector<Report> reports = panel.Progress();
  const auto upgrade = std::find_if(reports.begin(), reports.end(),
                                    [](const Report& report) { return report.status != kDownloading; });
  const auto less = [](const Report& left, const Report& right) { return left.percent < right.percent; };
  const bool ordered =
      std::is_sorted(reports.begin(), upgrade, less) && std::is_sorted(upgrade, reports.end(), less);
  const bool sound =
      std::all_of(reports.begin(), reports.end(), [](const Report& report) { return report.fault.empty(); });
  return ordered && sound && upgrade != reports.end() && upgrade->status == kStarted &&
         reports.back().status == kFinished && reports.back().percent == 100 &&
         reports.back().property["softVersion"] == package.softVersion;
}

/// From the delivery of a package to the station that runs it.
void FollowUpgrade(Screen& screen, Station& station, const Package& package,
                   const std::function<void()>& deliver) {
  const Partition before = station.Running();
  const Partition target = Other(before);
  const PartitionCopy untouched(station, before);
  deliver();

  screen.Step("The front panel shows");
  const std::optional<int> status = station.daemon().WaitExit(kUpgradeLimit);
  const std::vector<Command> journal = station.commands().Journal();

  screen.Step("The commands that the daemon ran");
  for (const Command& command : journal) {
    screen.Line(command.line + (command.exitCode == 0 ? "" : "   -> " + std::to_string(command.exitCode)));
  }
  screen.Step("What the chips went through");
  for (const Chips::Story& story : station.chips().Stories()) {
    screen.Line(story.chip + ": " + story.phases);
  }
  screen.Step("The station reboots");
  screen.Check(status && WIFSIGNALED(*status) && !journal.empty() && journal.back().line == "reboot -f",
               "the daemon asked for the reboot");
  screen.Check(PanelSawUpgrade(station.panel(), package), "the panel saw it through to the end");
  station.PullStick();
  const bool up = station.Reboot();
  screen.Check(up, std::string("the station is up again, from partition ") + Name(station.Running()));
  ShowVersions(screen, station);

  screen.Step("Checks");
  screen.Check(station.Running() == target, "it runs from the other partition");
  const std::vector<std::string> differences = station.DifferencesFrom(package, target);
  screen.Check(differences.empty(), "every file of the package is in its partition, byte for byte",
               differences);
  if (!package.images.empty()) {
    const std::vector<std::string> flashes = station.chips().DifferencesFrom(package);
    screen.Check(flashes.empty(), "every chip's memory holds its image, byte for byte", flashes);
  }
  std::map<std::string, std::string> imported;
  if (const auto version = package.versions.find("7308"); version != package.versions.end()) {
    imported.insert(*version);
  }
  const std::vector<std::string> changes = untouched.Differences(station, imported);
  screen.Check(changes.empty(), "the partition it ran from before is as it was", changes);
  const Json::Value versions = Station::Versions(target);
  bool recorded = versions["totalVersion"]["softVersion"] == package.softVersion;
  for (const auto& [type, version] : package.versions) {
    recorded = recorded && versions["subModulesVersion"][type + "Version"] == version;
  }
  screen.Check(recorded, "the new versions are recorded");
  constexpr std::uint64_t kBootImageOffset = 32 * 1024;
  const std::string image = ReadText(package.tree + "/system/flash.bin");
  screen.Check(!image.empty() && station.disks().UserArea().Read(kBootImageOffset, image.size()) == image,
               "the boot loader is in its place on the eMMC");
  screen.Check(fs::exists("/firmware/webs/new_package/version.json"), "the package is kept for the web page");
  screen.Check(Daemon::SanitizerReports().empty(), "no sanitizer complains", {Daemon::SanitizerReports()});
}

void ShowPpVersions(Screen& screen, const char* when, const PpVersions& versions) {
  screen.Line(std::string(when) + ": software " + Text(versions.software) + ", hardware " +
              versions.hardware + ", radio " + versions.radio);
}

/// A 7308 goes in, for which the station holds `firmware`; it stays in as long as what is given lives.
std::unique_ptr<Pp7308> Follow7308(Screen& screen, const PpPackage& firmware) {
  screen.Step("A 7308 belt pack is plugged in");
  auto part = std::make_unique<Pp7308>();
  ShowPpVersions(screen, "it comes with", part->Versions());
  screen.Check(Daemon::WaitForLog("----> [EM_STATE_UPG_SUCCESS]", kPpLimit),
               "the daemon finds it out of date and upgrades it");
  screen.Line("it went through: " + Words(part->conduct()));
  ShowPpVersions(screen, "it has now", part->Versions());
  screen.Check(part->Application() == firmware.application, "it holds its application, byte for byte");
  const FlashBlock& radio = firmware.radio.front();
  screen.Check(part->radio().Memory(radio.address, radio.data.size()) == radio.data,
               "its radio module holds its firmware, byte for byte");
  return part;
}

bool ShowUpgrade(Screen& screen, unsigned pauseDivisor) {
  screen.Step("A base station runs");
  ShownStation station(screen, pauseDivisor);
  ShowVersions(screen, station);
  screen.Step("A USB stick goes in");
  const PpPackage firmware = Make7308Package("S1.0.2.5");
  const Package package =
      ShowPackage(screen, PackageBuilder("S4.1.0.1").AllParts("V2.0.0.01").PpPage(firmware));
  FollowUpgrade(screen, station, package, [&] { station.InsertStick(package); });
  Follow7308(screen, firmware);
  return screen.AllGood();
}

/// Waits for the nth pairing request and shows it.
void FollowPairing(Screen& screen, Station& station, int type, std::size_t nth) {
  const auto request = station.controller().WaitForRequest(Controller::kPair, kPpLimit, nth);
  if (!screen.Check(request.has_value(), "the system controller is asked to pair it")) {
    return;
  }
  for (const std::string& key : request->getMemberNames()) {
    screen.Line("        " + key + ": " + (*request)[key].asString());
  }
  screen.Check((*request)["PpType"] == type, "under the right model number");
}

bool ShowPp(Screen& screen, unsigned pauseDivisor) {
  screen.Step("A base station runs, with firmware for belt packs");
  const PpPackage firmware7308 = Make7308Package("S1.0.2.5");
  const PpPackage firmware7204 = Make7204Package("S1.0.3.1");
  ShownStation station(screen, pauseDivisor, {firmware7308, firmware7204});
  screen.Line(firmware7308.fileName);
  screen.Line(firmware7204.fileName);

  const auto part7308 = Follow7308(screen, firmware7308);

  screen.Step("A 7204 belt pack is plugged in");
  Pp7204 part7204;
  ShowPpVersions(screen, "it comes with", part7204.Versions());
  screen.Check(part7204.WaitForRestart(kPpLimit), "it restarts with the file that the daemon put on it");
  ShowPpVersions(screen, "it has now", part7204.Versions());
  screen.Check(part7204.Firmware() == firmware7204.content, "it holds the file, byte for byte");
  FollowPairing(screen, station, 7204, 1);

  screen.Step("An older belt pack is plugged in");
  PpLegacy legacy;
  FollowPairing(screen, station, 7303, 2);
  screen.Check(Daemon::SanitizerReports().empty(), "no sanitizer complains", {Daemon::SanitizerReports()});
  return screen.AllGood();
}

bool ShowWeb(Screen& screen, unsigned pauseDivisor) {
  screen.Step("A base station runs");
  ShownStation station(screen, pauseDivisor);
  ShowVersions(screen, station);
  screen.Step("A package is uploaded to the web server");
  const Package package = ShowPackage(screen, PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01"));
  FollowUpgrade(screen, station, package, [&] {
    WebServer::Store(package.path);
    const std::optional<Envelope> reply = station.web().RequestUpgrade(package.name);
    screen.Check(reply && reply->errorCode == WebServer::kAccepted, "the daemon takes it");
  });
  return screen.AllGood();
}

/// Asks what the cloud has, and shows the answer; the version, empty when there is no newer one.
std::string ShowQuery(Screen& screen, Station& station) {
  const std::optional<Envelope> reply = station.panel().Request(kQueryCloud);
  const std::optional<Report> answer = station.panel().WaitForCmd(kQueryCloud, minutes(1));
  screen.Check(reply && reply->errorCode == Requests::kAccepted && answer, "the backend answers");
  const Json::Value offer = answer ? answer->property : Json::Value();
  std::string version = offer["softVersion"].asString();
  screen.Line(version.empty()
                  ? "nothing newer"
                  : version + ", " + offer["size"].asString() + " bytes: " + offer["releaseNote"].asString());
  return version;
}

bool ShowCloud(Screen& screen, unsigned pauseDivisor) {
  screen.Step("A base station runs");
  ShownStation station(screen, pauseDivisor);
  Cloud::SetBackend(std::string("https://") + Cloud::kHost);
  ShowVersions(screen, station);
  screen.Step("Its backend has a newer package");
  const Package package = ShowPackage(
      screen,
      PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Name("QV_K90XX_H200_S4.1.0.1_OTA_Common_1.zip"));
  station.cloud().Offer(package);
  screen.Check(ShowQuery(screen, station) == package.softVersion, "the panel is offered it");

  constexpr std::uint64_t kBytesPerSecond = 400'000;
  const std::uint64_t half = fs::file_size(package.path) / 2;
  screen.Step("The panel asks for it; the line breaks half-way");
  station.cloud().Limit(kBytesPerSecond);
  station.cloud().BreakAfter(half, 1);
  FollowUpgrade(screen, station, package, [&] {
    const std::optional<Envelope> reply = station.panel().Request(kUpgradeByCloud);
    screen.Check(reply && reply->errorCode == Requests::kAccepted, "the daemon takes it");
  });
  screen.Step("What the backend was asked");
  for (const HttpRequest& request : station.cloud().Downloads()) {
    const std::string range = request.Header("range");
    screen.Line(request.method + " " + request.path + (range.empty() ? "" : ", " + range));
  }
  screen.Check(station.cloud().Starts() == std::vector<std::uint64_t>{0, half},
               "the download went on where it broke");
  screen.Step("The panel asks again");
  screen.Check(ShowQuery(screen, station).empty(), "there is no newer package now");
  return screen.AllGood();
}

bool ShowHostile(Screen& screen, unsigned pauseDivisor) {
  struct Row {
    const char* what;
    PackageBuilder builder;
    int answer;
    bool reboots;
  };
  const auto package = [] { return PackageBuilder("S4.1.0.1").App("V2.0.0.01"); };
  const auto element = [&](const char* key, const Json::Value& value) {
    return package().EditManifest([=](Json::Value& manifest) { manifest["otaList"][0][key] = value; });
  };
  const std::vector<Row> rows = {
      {"a package of another product", package().Name("QV_K9999_H200_S4.1.0.1_RRU_UDISK_Common_1.zip"),
       kNoTask, false},
      {"the version that is installed", PackageBuilder("S4.0.9.10").App("V2.0.0.01"), kSameVersion, false},
      {"a package cut short", package().EditPackage(PackageBuilder::Truncate(0.5)), kFailed, true},
      {"a wrong md5 sum", element("fileMd5sum", std::string(32, '0')), kFailed, true},
      {"a package for other hardware", element("hardVersion", "H300"), kFailed, true},
      {"a file name that leaves its directory", element("fileName", "../../../etc/passwd"), kFailed, true},
      {"a file name that is a command", element("fileName", "x.zip;touch /broken"), kFailed, true},
      {"a damaged application archive", package().EditPage("app", PackageBuilder::Truncate(0.5)), kFailed,
       true},
  };
  screen.Step("A base station runs");
  ShownStation station(screen, pauseDivisor);
  const PartitionCopy untouched(station, Partition::A);
  for (const Row& row : rows) {
    screen.Step(std::string("The stick holds ") + row.what);
    station.panel().Clear();
    station.InsertStick(row.builder.Build());
    screen.Check(station.panel().WaitForStatus(row.answer, minutes(2)).has_value(), "the panel is told");
    if (row.reboots) {
      screen.Check(station.daemon().WaitExit(minutes(2)).has_value(), "the station reboots");
      screen.Check(station.Reboot(), "and is up again");
    } else {
      screen.Check(station.daemon().Running(), "the daemon stays up");
    }
    station.PullStick();
    screen.Check(
        station.Running() == Partition::A && untouched.Differences(station).empty() && !fs::exists("/broken"),
        "partition A runs and is as it was", untouched.Differences(station));
  }
  return screen.AllGood();
}

bool ShowKill(Screen& screen, unsigned pauseDivisor) {
  screen.Step("A base station runs");
  ShownStation station(screen, pauseDivisor);
  const PartitionCopy untouched(station, Partition::A);
  ShowVersions(screen, station);
  screen.Step("A USB stick goes in; the power goes when the other root file system has just been wiped");
  Package package = ShowPackage(screen, PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01"));
  station.commands().KillAfter("mkfs.ext4 *");
  station.InsertStick(package);
  screen.Check(station.daemon().WaitExit(kUpgradeLimit).has_value(), "the power is cut");

  screen.Step("The power is back");
  screen.Check(station.PowerCut(), "the station is up again");
  screen.Check(station.Running() == Partition::A, "it runs from partition A");
  screen.Check(untouched.Differences(station).empty(), "which is as it was", untouched.Differences(station));

  screen.Step("The same stick once more");
  FollowUpgrade(screen, station, package, [&] { station.InsertStick(package); });
  return screen.AllGood();
}

/// The shell's helpers send these to the program that owns the station.
const int kInsertSignal = SIGRTMIN;
const int kPullSignal = SIGRTMIN + 1;
const int kRebootSignal = SIGRTMIN + 2;

pid_t StartShell(const Station& station) {
  const std::string file = std::string(kStationDir) + "/shellrc";
  const auto helper = [](const char* name, int signal) {
    return std::string(name) + "() { kill -" + std::to_string(signal) + " $PPID; }\n";
  };
  WriteText(file, "PS1='station:\\w# '\nexport DBUS_SYSTEM_BUS_ADDRESS='" + station.bus().Address() + "'\n" +
                      helper("insert-stick", kInsertSignal) + helper("pull-stick", kPullSignal) +
                      helper("reboot-station", kRebootSignal) + "cd /firmware\n");
  const char* argv[] = {"bash", "--rcfile", file.c_str(), "-i", nullptr};
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], nullptr, &attributes, const_cast<char**>(argv), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    Halt("cannot run bash", error);
  }
  return pid;
}

bool ShowShell(Screen& screen, unsigned pauseDivisor) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGCHLD, kInsertSignal, kPullSignal, kRebootSignal}) {
    sigaddset(&signals, signal);
  }
  // Before the station's threads start, so that none of them gets what is meant for the loop below.
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  ShownStation station(screen, pauseDivisor);
  const Package package = ShowPackage(screen, PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01"));
  screen.Line("insert-stick, pull-stick   a USB stick with that package");
  screen.Line(
      "reboot-station             after the daemon has asked for it, or at any time (not from a directory "
      "on");
  screen.Line("                           a partition: cd / first)");
  screen.Line("The log is /firmware/log/QVUpgradeMng/system.log; leave with exit.");
  const pid_t shell = StartShell(station);
  while (true) {
    const int signal = sigwaitinfo(&signals, nullptr);
    if (signal == kInsertSignal) {
      station.InsertStick(package);
    } else if (signal == kPullSignal) {
      station.PullStick();
    } else if (signal == kRebootSignal) {
      const bool up = station.Reboot();
      screen.Check(up, std::string("the station runs from partition ") + Name(station.Running()));
    } else if (waitpid(shell, nullptr, WNOHANG) == shell) {
      return true;
    }
  }
}

}  // namespace
}  // namespace station

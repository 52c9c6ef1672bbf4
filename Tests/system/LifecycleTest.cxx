// Start, orderly stop in every state, crash, and the settings that are read at start.
#include <fnmatch.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>

#include "StationTest.h"
#include "UpgradePackage/Parts.h"

using namespace station;

namespace {

/// A moment of an upgrade at which the daemon is told to stop: while this command runs.
struct Moment {
  const char* name;
  const char* pattern;
  bool bootLoaderWritten;  ///< work that a stop must not tear is finished
  bool alone;              ///< no other thread runs commands then: none may begin after this one
};

void PrintTo(const Moment& moment, std::ostream* out) {
  *out << moment.name;
}

const Moment kMoments[] = {
    {"SourceUnpacks", "7za x *ota.zip*", false, true},
    {"SourceChecks", "7za x *temp_all_ota*", false, true},
    {"FrameStopsServices", "systemctl stop quorvalen", false, true},
    {"AppIsUnpacked", "tar xf * -C /app_B*", false, false},
    {"SystemIsCopied", "cp -rf *mmcblk2p5*", false, false},
    {"RootfsIsFormatted", "mkfs.ext4 *", false, false},
    {"RootfsIsUnpacked", "tar zxf *", false, false},
    {"PackageIsKept", "mv *", true, false},
    {"BootLoaderIsWritten", "dd if=/dev/zero *", true, false},
};

// Thread ids of a process by thread name.
pid_t ThreadOf(pid_t process, const std::string& name) {
  const std::filesystem::path tasks = "/proc/" + std::to_string(process) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return std::stoi(task.path().filename());
  }
  return -1;
}

}  // namespace

class OrderlyStop : public StationTest, public ::testing::WithParamInterface<Moment> {};

TEST_P(OrderlyStop, EndsSoonAfterTheRunningCommand) {
  const Moment& moment = GetParam();
  Station station;
  ASSERT_TRUE(station.Start());
  station.commands().Hold(moment.pattern);
  station.InsertStick(PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build());
  ASSERT_TRUE(station.commands().WaitForStart(moment.pattern, kPatience)) << Daemon::Log();
  ASSERT_EQ(kill(station.daemon().Pid(), SIGTERM), 0);
  ExpectLog("app CleanUp");
  station.commands().Release(moment.pattern);
  ASSERT_TRUE(station.commands().WaitForEnd(moment.pattern, kPatience));
  const auto ended = std::chrono::steady_clock::now();
  const auto status = station.daemon().WaitExit(kPatience);
  const auto took = std::chrono::steady_clock::now() - ended;
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
  if (!moment.bootLoaderWritten) {
    EXPECT_LT(took, 300ms * kSlowness);
  }
  EXPECT_EQ(station.commands().Count("reboot *"), 0U);
  if (moment.alone) {
    EXPECT_EQ(fnmatch(moment.pattern, station.commands().Lines().back().c_str(), 0), 0)
        << "begun after the stop: " << station.commands().Lines().back();
  }
  EXPECT_EQ(station.commands().Count("dd *seek=32"), moment.bootLoaderWritten ? 1U : 0U);
  EXPECT_EQ(Station::MarkedForBoot(), moment.bootLoaderWritten ? Partition::B : Partition::A);
}

INSTANTIATE_TEST_SUITE_P(While, OrderlyStop, ::testing::ValuesIn(kMoments),
                         [](const auto& row) { return row.param.name; });

class Lifecycle : public StationTest {};

TEST_F(Lifecycle, IdleStationReportsItsVersionsFiveTimesAndStopsOnRequest) {
  Station station;
  ASSERT_TRUE(station.Start());
  const std::string log = Daemon::Log();
  EXPECT_NE(log.find("[QVUpgradeMngMain.cxx: 167] "), std::string::npos) << log;
  const auto fifth = station.panel().WaitForCmd(200, kPatience, 5);
  ASSERT_TRUE(fifth.has_value());
  EXPECT_EQ(fifth->property["totalVersion"]["softVersion"], "S4.0.9.10");
  EXPECT_EQ(fifth->property["subModulesVersion"].size(), Parts::kAll.size());
  const auto status = station.daemon().Stop();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
  ASSERT_TRUE(station.Start());
  EXPECT_EQ(*station.daemon().Stop(SIGINT), 0);
}

// The minutes in which the station only waits end at once.
TEST_F(Lifecycle, StopInALongPauseEndsItAndRunsNoReboot) {
  const struct {
    Package package;
    const char* log;  ///< the last line before the pause
  } rows[] = {
      {PackageBuilder("S4.1.0.1").EditManifest([](Json::Value& manifest) { manifest = 5; }).Build(),
       "readFile to json failed.File:"},
      {PackageBuilder("S4.1.0.1").RawPage("app", "V2.0.0.01", "app.tar", "no tar").Build(), "write version:"},
      {PackageBuilder("S4.1.0.1").System("V2.0.0.01", 4096, PackageBuilder::Flash::ImageAndMarker).Build(),
       "upgrade uboot ok"},
  };
  StationOptions options;
  options.pauseDivisor = 1;
  Station station(options);
  for (const auto& row : rows) {
    ASSERT_TRUE(station.Start());
    station.InsertStick(row.package);
    ExpectLog(row.log);
    const auto started = std::chrono::steady_clock::now();
    const auto status = station.daemon().Stop(SIGTERM, kPatience);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s * kSlowness) << row.log;
    ASSERT_TRUE(status.has_value()) << row.log;
    EXPECT_EQ(*status, 0) << row.log;
    EXPECT_EQ(station.commands().Count("reboot *"), 0U) << row.log;
  }
}

// Between its last commands, too, a stopped station does not reboot: whoever stopped the daemon decides.
TEST_F(Lifecycle, StopInTheSwitchRunsNoReboot) {
  constexpr const char* kWatchdog = "systemctl stop lcd-esd-check.service";
  StationOptions options;
  options.pauseDivisor = 100;
  Station station(options);
  ASSERT_TRUE(station.Start());
  station.InsertStick(PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Build());
  // It runs once when the services are stopped, and again right before the reboot.
  ASSERT_TRUE(station.commands().WaitForEnd(kWatchdog, kPatience));
  station.commands().Hold(kWatchdog);
  ASSERT_TRUE(station.commands().WaitForStart(kWatchdog, kPatience, 2)) << Daemon::Log();
  ASSERT_EQ(kill(station.daemon().Pid(), SIGTERM), 0);
  ExpectLog("app CleanUp");
  station.commands().Release(kWatchdog);
  const auto status = station.daemon().WaitExit(kPatience);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
  EXPECT_EQ(station.commands().Count("reboot *"), 0U);
  EXPECT_EQ(Station::MarkedForBoot(), Partition::B);
}

TEST_F(Lifecycle, CrashOnAnyThreadEndsWithItsSignalAsStatus) {
  // A crashed process runs its exit handlers while its threads still run, and its handler allocates:
  // accepted, since it is ending anyway. What counts here is that it ends, in time and with the right status.
  setenv("TSAN_OPTIONS", "report_bugs=0", 1);
  Station station;
  for (const char* thread : {"QVUpMng:Main", "CDbusHandler", "PhyInterface", "UpgradeFrame"}) {
    station.panel().Clear();
    ASSERT_TRUE(station.Start());
    ASSERT_TRUE(station.panel().WaitForCmd(200, kPatience).has_value()) << "not all threads run yet";
    const pid_t process = station.daemon().Pid();
    const pid_t victim = ThreadOf(process, thread);
    ASSERT_GT(victim, 0) << thread;
    ASSERT_EQ(syscall(SYS_tgkill, process, victim, SIGSEGV), 0);
    const auto status = station.daemon().WaitExit(6s * kSlowness);
    ASSERT_TRUE(status.has_value()) << thread;
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == SIGSEGV)
        << thread << ": wait status " << *status;
    EXPECT_NE(Daemon::Output().find("Received signal 11"), std::string::npos);
    EXPECT_NE(Daemon::Output().find("Stack trace:"), std::string::npos);
  }
}

// Hosts of the pre-release backends are replaced once; a host that somebody chose is never touched.
TEST_F(Lifecycle, PrereleaseHostIsMigratedUnlessItWasChosen) {
  constexpr const char* kFile = "/qv_data/config/upgradeOtaPath.json";
  const std::string prerelease = R"("host":"https://ota-pre.maker.example")";
  const struct {
    std::string content;
    bool migrated;
  } rows[] = {
      {"{" + prerelease + R"(,"web_or_oled_set_flag":1})", false},
      {"{" + prerelease + R"(,"web_or_oled_set_flag":"1"})", true},
      {"{" + prerelease + "}", true},
      {R"({"host":"https://elsewhere.example"})", false},
      {R"({"host":)", false},
  };
  Station station;
  std::filesystem::create_directories("/qv_data/config");
  for (const auto& row : rows) {
    { std::ofstream(kFile) << row.content; }
    ASSERT_TRUE(station.Start());
    EXPECT_EQ(*station.daemon().Stop(), 0);
    if (!row.migrated) {
      EXPECT_EQ(ReadFile(kFile), row.content);
      continue;
    }
    Json::Value file;
    std::istringstream(ReadFile(kFile)) >> file;
    EXPECT_EQ(file["host"], "https://ota.maker.example") << row.content;
    EXPECT_EQ(file["web_or_oled_set_flag"], 1) << row.content;
  }
}

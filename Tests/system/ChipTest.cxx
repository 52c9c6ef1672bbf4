// The chips behind their lines: all parts in one package, faults that end an upgrade and faults that it
// survives, stops and power cuts in the middle of a transfer.
#include <algorithm>
#include <ostream>
#include <utility>

#include "StationTest.h"

using namespace station;
using Kind = station::FaultKind;

namespace {

enum class Chip { Rtx1, Rtx2, Mcu, Uac, Fpga };

bool IsRtx(Chip chip) {
  return chip == Chip::Rtx1 || chip == Chip::Rtx2;
}

// What the tests want of a chip.
struct Target {
  Conduct& conduct;
  std::vector<Line*> lines;  // whose ports are closed after a failure
  const char* part;          // its name in a manifest
  int type;                  // its number in the log
};

Target At(Station& station, Chip chip) {
  Chips& chips = station.chips();
  if (IsRtx(chip)) {
    return {chips.rtx(chip == Chip::Rtx1 ? 1 : 2).conduct(),
            {&chips.rtx(1).line(), &chips.rtx(2).line()},
            "rtx",
            4};
  }
  if (chip == Chip::Mcu) return {chips.mcu().conduct(), {&chips.mcu().line()}, "mcu", 6};
  if (chip == Chip::Uac) return {chips.uac().conduct(), {&chips.uac().line()}, "uac", 5};
  return {chips.fpga().conduct(), {}, "fpga", 3};
}

// Two sectors, three portions.
RtxContent SmallRtx(const std::string& version) {
  RtxContent content;
  content.preLoaderBytes = 256;
  content.flashLoaderBytes = 2048;
  content.blocks = {{0x2000, RandomBytes(5001, version)}};
  return content;
}

// The application and small images for the chips: the radio modules come before all others and take most of
// the time, so they are in only when the test is about them.
PackageBuilder SmallPackage(const std::string& softVersion, const std::string& version, bool withRtx) {
  PackageBuilder builder(softVersion);
  builder.App(version, 4096).Mcu(version, 4097).Uac(version, 4097).Fpga(version, 12289);
  return withRtx ? builder.Rtx(version, SmallRtx(version)) : builder;
}

constexpr auto kRowName = [](const auto& row) { return row.param.name; };

std::size_t CountIn(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

}  // namespace

class ChipTest : public StationTest {
 protected:
  static StationOptions ShortPauses() {
    StationOptions options;
    // Shorter ones would let the frame's time-out, which counts passes, overtake the chips' own waits.
    options.pauseDivisor = 30;
    return options;
  }

  // Starts the station and lets it ask the MCU for its version, so that what follows is the upgrade's.
  static void StartAndAskMcu(Station& station) {
    ASSERT_TRUE(station.Start());
    ExpectLog("MCU LoadVersion done.");
  }

  static void ExpectVersions(Partition partition, const Package& package, const std::string& failed) {
    const Json::Value parts = Station::Versions(partition)["subModulesVersion"];
    for (const auto& [part, version] : package.versions) {
      const std::string old = part == "mcu" ? "1.0.6.50" : "V1.0.0.01";
      EXPECT_EQ(parts[part + "Version"], part == failed ? old : version) << part;
    }
  }
};

TEST_F(ChipTest, OnePackageUpgradesAllSevenParts) {
  Station station;
  StartAndAskMcu(station);
  const Package package = PackageBuilder("S4.1.0.1").AllParts("V2.0.0.01").Build();
  station.InsertStick(package);
  ExpectReboot(station);
  ExpectNoDifferences(station.chips().DifferencesFrom(package));
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFinished}));
  int percent = 0;
  for (const auto& report : station.panel().Progress()) {
    EXPECT_GE(report.percent, percent) << "the bar went back";
    EXPECT_LE(report.percent, 100);
    percent = report.percent;
  }
  ExpectVersions(Partition::B, package, "");

  // One after the other: the modules, then all others, the FPGA behind the USB audio chip.
  const std::string log = Daemon::Log();
  std::size_t at = 0;
  for (const char* line : {"Start upgrade RTX.", "RTX[1] upgrade successfully.",
                           "RTX[2] upgrade successfully.", "upgrade succed type:4", "to /dev/ttyCH341USB0",
                           "StartUpgrade CQVUpgradeFpga", "send to fpga start"}) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << "not logged, or not in order: " << line << "\nlog:\n" << log;
  }
  EXPECT_GT(log.find("Start upgrade MCU."), log.find("upgrade succed type:4"));
  const std::vector<std::string> lines = station.commands().Lines();
  const auto started = [&](const std::string& command) {
    return std::find_if(lines.begin(), lines.end(),
                        [&](const std::string& line) { return line.rfind(command, 0) == 0; });
  };
  EXPECT_LT(started("tar xf /firmware/upload/page/rtx"), started("tar xf /firmware/upload/page/app"));

  std::vector<std::pair<int, int>> levels;
  const std::vector<PinChange> changes = station.chips().pins().Changes();
  levels.reserve(changes.size());
  for (const PinChange& change : changes) levels.emplace_back(change.pin, change.level);
  const std::vector<std::pair<int, int>> expected = {{39, 1}, {102, 1}, {133, 1}, {8, 1},   {9, 0},  {9, 1},
                                                     {9, 0},  {8, 0},   {139, 1}, {102, 1}, {12, 1}, {10, 1},
                                                     {11, 0}, {11, 1},  {11, 0},  {10, 0}};
  ASSERT_EQ(levels, expected);
  for (const std::size_t module : {0U, 8U}) {
    // Half of what they must be: both ends are seen a little late.
    EXPECT_GT(changes[module + 4].at - changes[module + 3].at, 100ms) << "BOOT to RESET";
    EXPECT_GT(changes[module + 6].at - changes[module + 5].at, 50ms) << "RESET";
  }
  for (const int module : {1, 2}) EXPECT_EQ(station.chips().rtx(module).core().HighestSpeed(), 230400U);
  EXPECT_EQ(station.chips().mcu().ImageName(), "k9031_McuApp.bin");
  EXPECT_EQ(station.chips().mcu().ApplicationVersion(), (Mcu::Version{2, 0, 0, 1}));
  EXPECT_TRUE(station.chips().uac().Complete());
}

/// One fault that ends a chip's upgrade.
struct Failure {
  const char* name;
  Chip chip;
  Phase phase;
  Kind kind;
  unsigned after, bytes;  ///< see Fault
  int seconds;            ///< from the fault to the reported failure
  const char* log;
};

void PrintTo(const Failure& failure, std::ostream* out) {
  *out << failure.name;
}

const Failure kFailures[] = {
    {"RtxDoesNotBoot", Chip::Rtx1, Phase::RtxRom, Kind::Silent, 0, 0, 5, "STX timeout"},
    {"RtxBootsIntoNoise", Chip::Rtx1, Phase::RtxRom, Kind::Garbage, 0, 0, 5, "STX timeout"},
    {"RtxNoPreLoader", Chip::Rtx1, Phase::RtxPreLoaderHeader, Kind::Refuse, 0, 0, 5, "ACK of pre loader"},
    {"RtxBadPreLoader", Chip::Rtx1, Phase::RtxPreLoaderImage, Kind::WrongCheck, 0, 0, 0,
     "Recv error CRC!RightVal:"},
    {"RtxNotReady", Chip::Rtx1, Phase::RtxStart, Kind::Silent, 0, 0, 5, "EM_PRELOAD_READY timeout"},
    {"RtxRefusesSpeed", Chip::Rtx1, Phase::RtxSpeedReady, Kind::Refuse, 0, 0, 5, "NEW_BAUDRATE timeout"},
    {"RtxStops", Chip::Rtx1, Phase::RtxSpeedReady, Kind::StopAfter, 0, 1000, 5,
     "CRC of flash loader timeout"},
    {"RtxBadFlashLoader", Chip::Rtx1, Phase::RtxFlashLoader, Kind::WrongCheck, 0, 0, 0,
     "Recv error CRC!RightVal:"},
    {"RtxBadCrc", Chip::Rtx1, Phase::RtxVersion, Kind::WrongCheck, 0, 0, 5, "Error crc val! iCrcCalcu:"},
    {"RtxLongAnswer", Chip::Rtx1, Phase::RtxConfig, Kind::WrongLengthField, 0, 0, 5,
     "[EM_WRITE_CONFIG_CFM] timeout"},
    {"RtxShortAnswer", Chip::Rtx1, Phase::RtxErase, Kind::WrongLength, 0, 0, 5,
     "[EM_FLASH_ERASE_CFM] timeout"},
    {"RtxGarbage", Chip::Rtx1, Phase::RtxProgram, Kind::Garbage, 1, 0, 5, "[EM_PROG_FLASH_CFM] timeout"},
    {"RtxIsGone", Chip::Rtx1, Phase::RtxProgram, Kind::Unplug, 1, 0, 5, "RTX[1] upgrade failed!"},
    {"RtxFlashIsWrong", Chip::Rtx1, Phase::RtxVerify, Kind::Refuse, 0, 0, 0, "Crc not right!Store:0x"},
    {"SecondRtxSilent", Chip::Rtx2, Phase::RtxErase, Kind::Silent, 0, 0, 5, "[EM_FLASH_ERASE_CFM] timeout"},
    {"McuIsSilent", Chip::Mcu, Phase::McuVersion, Kind::Silent, 0, 0, 30, "Get ver from MCU error."},
    {"McuStays", Chip::Mcu, Phase::McuEnterBoot, Kind::Refuse, 0, 0, 10, "MCU ack start upg failed!"},
    {"McuTakesNoInfo", Chip::Mcu, Phase::McuFirmwareInfo, Kind::WrongLength, 0, 0, 10,
     "[SEND_FW_INFO] timeout"},
    {"McuBadCheck", Chip::Mcu, Phase::McuPackage, Kind::WrongCheck, 3, 0, 10, "timeout.Index:3, iNum:4"},
    {"McuStops", Chip::Mcu, Phase::McuPackage, Kind::StopAfter, 1, 200, 10, "timeout.Index:2, iNum:3"},
    {"McuIsGone", Chip::Mcu, Phase::McuPackage, Kind::Unplug, 2, 0, 10, "Upgrade failed!"},
    {"McuEndIsGarbage", Chip::Mcu, Phase::McuDone, Kind::Garbage, 0, 0, 10, "[SEND_UPG_DONE] timeout"},
    {"McuBadVersion", Chip::Mcu, Phase::McuVersion, Kind::WrongLengthField, 1, 0, 10, "[RE_GET_VER] timeout"},
    {"UacDoesNotCall", Chip::Uac, Phase::UacInvite, Kind::Silent, 0, 0, 13, "boot loader does not call"},
    {"UacStops", Chip::Uac, Phase::UacBlock, Kind::StopAfter, 1, 300, 10, "failed: no answer"},
    {"UacCancels", Chip::Uac, Phase::UacBlock, Kind::Refuse, 2, 0, 0, "cancelled by the boot loader"},
    {"UacRefusesBlock", Chip::Uac, Phase::UacBlock, Kind::WrongCheck, 1, 0, 1, "failed: refused"},
    {"UacIsGone", Chip::Uac, Phase::UacBlock, Kind::Unplug, 1, 0, 10, "UAC upgrade failed"},
    {"FpgaIsStuck", Chip::Fpga, Phase::FpgaPiece, Kind::Silent, 0, 0, 10, "write flash failed."},
    {"FpgaRefuses", Chip::Fpga, Phase::FpgaPiece, Kind::Refuse, 1, 0, 0, "write flash failed."},
};

class ChipFailure : public ChipTest, public ::testing::WithParamInterface<Failure> {};

TEST_P(ChipFailure, EndsInTimeAndIsItsOwnAlone) {
  const Failure& failure = GetParam();
  Station station(ShortPauses());
  StartAndAskMcu(station);
  const Target target = At(station, failure.chip);
  target.conduct.Clear();
  target.conduct.Add({failure.kind, failure.phase, failure.bytes, failure.after});
  const Package package = SmallPackage("S4.1.0.1", "V2.0.0.01", IsRtx(failure.chip)).Build();
  station.InsertStick(package);
  ASSERT_TRUE(target.conduct.WaitFor(failure.phase, kPatience, failure.after + 1)) << Daemon::Log();
  const auto began = std::chrono::steady_clock::now();
  ExpectLog("upgrade error type:" + std::to_string(target.type));
  EXPECT_LT(std::chrono::steady_clock::now() - began, failure.seconds * 1s + 2s * kSlowness);
  for (const Line* line : target.lines) EXPECT_TRUE(line->WaitForPort(false, 2s * kSlowness));
  ExpectReboot(station);

  const std::string log = Daemon::Log();
  EXPECT_NE(log.find(failure.log), std::string::npos) << "not logged: " << failure.log << "\nlog:\n" << log;
  EXPECT_EQ(CountIn(log, "upgrade error type:"), 1U) << log;
  EXPECT_EQ(CountIn(log, "report -1 ignored"), 0U) << log;
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFailed}));
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  ExpectVersions(Partition::B, package, target.part);
  if (failure.chip == Chip::Rtx1) {
    EXPECT_TRUE(station.chips().rtx(2).conduct().Trail().empty());
    EXPECT_EQ(station.chips().rtx(2).line().ReceivedCount(), 0U);
    for (const PinChange& change : station.chips().pins().Changes()) {
      EXPECT_TRUE(change.pin == 39 || change.pin == 102 || change.pin == 133 || change.pin < 10)
          << "pin of module 2: " << change.pin;
    }
  }
  Package others = package;
  others.images.erase(target.part);
  ExpectNoDifferences(station.chips().DifferencesFrom(others));
  if (failure.kind != Kind::Unplug) return;

  // The chip is back.
  station.PullStick();
  ASSERT_TRUE(station.Reboot());
  const Package next = SmallPackage("S4.2.0.1", "V3.0.0.01", IsRtx(failure.chip)).Build();
  ExpectUpgrade(station, next);
  ExpectNoDifferences(station.chips().DifferencesFrom(next));
}

INSTANTIATE_TEST_SUITE_P(Of, ChipFailure, ::testing::ValuesIn(kFailures), kRowName);

// No device is there at all: every chip fails, and nothing waits for it.
TEST_F(ChipTest, PartsWithoutTheirChipFailAndTheOthersRunAtOnce) {
  StationOptions options = ShortPauses();
  options.chips = false;
  Station station(options);
  ASSERT_TRUE(station.Start());
  const Package package = SmallPackage("S4.1.0.1", "V2.0.0.01", true).Build();
  station.InsertStick(package);
  ExpectReboot(station);
  for (const int type : {3, 4, 5, 6}) {
    EXPECT_EQ(CountIn(Daemon::Log(), "upgrade error type:" + std::to_string(type)), 1U) << Daemon::Log();
  }
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFailed}));
  EXPECT_EQ(Station::Versions(Partition::B)["subModulesVersion"]["appVersion"], "V2.0.0.01");
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
}

/// Faults that an upgrade lives with.
struct Nuisance {
  const char* name;
  std::vector<Fault> rtx, mcu, uac;
};

void PrintTo(const Nuisance& nuisance, std::ostream* out) {
  *out << nuisance.name;
}

// The same fault in several phases.
std::vector<Fault> In(const std::vector<Phase>& phases, FaultKind kind, std::size_t bytes = 0) {
  std::vector<Fault> faults;
  faults.reserve(phases.size());
  for (const Phase phase : phases) faults.push_back({kind, phase, bytes});
  return faults;
}

const std::vector<Phase> kMcuPhases = {Phase::McuVersion, Phase::McuEnterBoot, Phase::McuFirmwareInfo,
                                       Phase::McuPackage, Phase::McuDone};
const Nuisance kNuisances[] = {
    {"AnswersByteByByte",
     In({Phase::RtxVersion, Phase::RtxConfig, Phase::RtxErase, Phase::RtxProgram, Phase::RtxVerify},
        Kind::Split),
     In(kMcuPhases, Kind::Split),
     {}},
    {"NoiseBeforeAnswers", In({Phase::RtxStart, Phase::RtxSpeedReady}, Kind::Noise, 5),
     In(kMcuPhases, Kind::Noise, 30), In({Phase::UacInvite, Phase::UacBlock, Phase::UacEnd}, Kind::Noise, 5)},
    {"AnswersTwice", In({Phase::RtxRom, Phase::RtxStart, Phase::RtxSpeedReady}, Kind::Double),
     In(kMcuPhases, Kind::Double), In({Phase::UacInvite}, Kind::Double)},
    // A bad status of the flash loader does not count, its check sum does; a block is sent again.
    {"RefusedAndLostAnswers",
     In({Phase::RtxErase, Phase::RtxProgram}, Kind::Refuse),
     {{Kind::CutAnswer, Phase::McuVersion, 0, 0, 1}},
     {{Kind::WrongCheck, Phase::UacBlock, 0, 1, 4}, {Kind::CutAnswer, Phase::UacBlock, 0, 6, 2}}},
};

class ChipNuisance : public ChipTest, public ::testing::WithParamInterface<Nuisance> {};

TEST_P(ChipNuisance, IsSurvived) {
  const Nuisance& nuisance = GetParam();
  Station station(ShortPauses());
  StartAndAskMcu(station);
  const auto add = [&](Chip chip, const std::vector<Fault>& faults) {
    for (const Fault& fault : faults) At(station, chip).conduct.Add(fault);
  };
  add(Chip::Rtx1, nuisance.rtx);
  add(Chip::Rtx2, nuisance.rtx);
  add(Chip::Mcu, nuisance.mcu);
  add(Chip::Uac, nuisance.uac);
  // On the way, a file from another system's linker.
  RtxContent content = SmallRtx("other");
  content.carriageReturns = content.otherRecords = true;
  const Package package = SmallPackage("S4.1.0.1", "V2.0.0.01", false).Rtx("V2.0.0.01", content).Build();
  ExpectUpgrade(station, package);
  ExpectNoDifferences(station.chips().DifferencesFrom(package));
}

INSTANTIATE_TEST_SUITE_P(With, ChipNuisance, ::testing::ValuesIn(kNuisances), kRowName);

/// A moment of a transfer at which the daemon is told to stop.
struct Middle {
  const char* name;
  Chip chip;
  Phase phase;
  std::size_t count;  ///< reached so often
  bool silent;        ///< the chip answers no more
};

void PrintTo(const Middle& middle, std::ostream* out) {
  *out << middle.name;
}

const Middle kMiddles[] = {
    {"RtxBoots", Chip::Rtx1, Phase::RtxRom, 1, true},
    {"RtxChecksPreLoader", Chip::Rtx1, Phase::RtxPreLoaderImage, 1, true},
    {"RtxTakesFlashLoader", Chip::Rtx1, Phase::RtxSpeedReady, 1, false},
    {"RtxIsProgrammed", Chip::Rtx1, Phase::RtxProgram, 2, false},
    {"SecondRtxIsVerified", Chip::Rtx2, Phase::RtxVerify, 1, true},
    {"McuRestarts", Chip::Mcu, Phase::McuEnterBoot, 1, false},
    {"McuTakesPackages", Chip::Mcu, Phase::McuPackage, 3, false},
    {"McuIsSilent", Chip::Mcu, Phase::McuPackage, 2, true},
    {"UacTakesBlocks", Chip::Uac, Phase::UacBlock, 2, false},
    {"UacIsSilent", Chip::Uac, Phase::UacBlock, 1, true},
    {"FpgaIsStuck", Chip::Fpga, Phase::FpgaPiece, 2, true},
};

class ChipStop : public ChipTest, public ::testing::WithParamInterface<Middle> {};

TEST_P(ChipStop, EndsTheTransferInOrder) {
  const Middle& middle = GetParam();
  Station station(ShortPauses());
  StartAndAskMcu(station);
  Conduct& conduct = At(station, middle.chip).conduct;
  if (middle.silent) conduct.Add({Kind::Silent, middle.phase, 0, middle.count - 1});
  PackageBuilder builder = SmallPackage("S4.1.0.1", "V2.0.0.01", false);
  if (IsRtx(middle.chip)) {
    RtxContent content = SmallRtx("other");
    content.flashLoaderBytes = 40000;  // more than any buffer takes
    builder.Rtx("V2.0.0.01", content);
  }
  station.InsertStick(builder.Build());
  ASSERT_TRUE(conduct.WaitFor(middle.phase, kPatience, middle.count)) << Daemon::Log();
  const auto began = std::chrono::steady_clock::now();
  const auto status = station.daemon().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 300ms * kSlowness);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(station.commands().Count("reboot *"), 0U);
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
}

INSTANTIATE_TEST_SUITE_P(While, ChipStop, ::testing::ValuesIn(kMiddles), kRowName);

/// Where the power goes during the MCU's upgrade, which goes on by itself when it is back.
class McuPowerCut : public ChipTest, public ::testing::WithParamInterface<Phase> {};

TEST_P(McuPowerCut, IsContinuedAfterTheRestart) {
  const bool inBootLoader = GetParam() == Phase::McuPackage;
  Station station(ShortPauses());
  StartAndAskMcu(station);
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01").Mcu("V1.0.7.01").Build();
  Mcu& mcu = station.chips().mcu();
  mcu.conduct().Add({Kind::Silent, GetParam(), 0, 3U * inBootLoader});
  station.InsertStick(package);
  ASSERT_TRUE(mcu.conduct().WaitFor(GetParam(), kPatience, 1 + 3U * inBootLoader)) << Daemon::Log();
  station.daemon().Kill();
  EXPECT_EQ(mcu.InBootLoader(), inBootLoader);
  station.PullStick();
  ASSERT_TRUE(station.PowerCut());
  ExpectLog("interrupted MCU upgrade is done");
  EXPECT_FALSE(mcu.InBootLoader());
  EXPECT_EQ(mcu.ApplicationVersion(), (Mcu::Version{1, 0, 7, 1}));
  ExpectNoDifferences(station.chips().DifferencesFrom(package));
  EXPECT_TRUE(station.commands().WaitForStart("systemctl start quorvalen", kPatience));

  const Package next = SmallPackage("S4.2.0.1", "V3.0.0.01", false).Build();
  ExpectUpgrade(station, next);
  ExpectNoDifferences(station.chips().DifferencesFrom(next));
}

INSTANTIATE_TEST_SUITE_P(Of, McuPowerCut, ::testing::Values(Phase::McuEnterBoot, Phase::McuPackage),
                         [](const auto& row) {
                           return row.param == Phase::McuPackage ? "BootLoader" : "Application";
                         });

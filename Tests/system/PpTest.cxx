// Portable parts at the station: plugged in, identified, upgraded or paired; answers that go wrong, parts
// that go away at any moment, and a clock that holds everything back.
#include <algorithm>
#include <atomic>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <thread>

#include "StationTest.h"
#include "VirtualStation/Pps/Pp7204.h"
#include "VirtualStation/Pps/Pp7308.h"
#include "VirtualStation/Pps/PpLegacy.h"

using namespace station;
using Kind = station::FaultKind;

namespace {

constexpr const char* kSuccess = "----> [EM_STATE_UPG_SUCCESS]";
constexpr const char* kFailure = "----> [EM_STATE_FAILED]";
constexpr const char* kIdle = "----> [EM_STATE_IDLE]";
constexpr const char* kUsb = "/dev/ttyUSB1";

const PpVersions kOld;                                        // S1.0.2.04
const PpVersions kNew = {{1, 0, 2, 5}, "H100", "V2.0.0.01"};  // as the firmware below
const PpVersions kNew7204 = {{1, 0, 3, 1}, "H100", "V1.0.0.01"};

constexpr auto kRowName = [](const auto& row) { return row.param.name; };

// The end of the log.
std::size_t Now() {
  return Daemon::Log().size();
}

// Three packets, two sectors of the radio's flash.
PpPackage Small7308(const std::string& version = "S1.0.2.5") {
  return Make7308Package(version, "V2.0.0.01", 2049);
}

std::size_t CountOf(pid_t process, const char* what) {
  const std::filesystem::path directory = "/proc/" + std::to_string(process) + "/" + what;
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
}

}  // namespace

class PpTest : public StationTest {
 protected:
  // A started station that holds this firmware and listens to parts.
  class PpStation : public Station {
   public:
    explicit PpStation(const std::vector<PpPackage>& firmware, unsigned pauseDivisor = 30)
        : Station(Options(pauseDivisor)) {
      for (const PpPackage& package : firmware) Install(package);
      // It would write out the host's disks too, which may take longer than a part waits.
      commands().Fail("sync", 0);
      EXPECT_TRUE(Start());
    }

    void ReportClock(bool inSync) {
      Json::Value data;
      data["Status"] = inSync ? 1 : 0;
      EXPECT_EQ(controller().Report(Controller::kClockStatus, data), "ProcUpgMsg ACK");
    }

   private:
    static StationOptions Options(unsigned pauseDivisor) {
      StationOptions options;
      options.pauseDivisor = pauseDivisor;
      options.chips = false;
      return options;
    }
  };

  // Plugs in with `plug` until the daemon has identified the part; `from` is then the log's end from before
  // it did. It has 200 ms for an answer: on a machine that is busy elsewhere it is plugged in again, as its
  // user would.
  static void Identify(std::size_t& from, const std::function<void()>& plug) {
    constexpr int kTries = 5;
    for (int i = 0; i < kTries; ++i) {
      from = Now();
      plug();
      ExpectLog("[EM_STATE_IDENTIFY] ----> [EM_STATE_", from);
      if (Daemon::Log().find("[EM_STATE_IDENTIFY] ----> [EM_STATE_FAILED]", from) == std::string::npos)
        return;
    }
    ADD_FAILURE() << "not identified";
  }
  static std::unique_ptr<Pp7308> Identified(std::size_t& from, const PpVersions& versions = kOld,
                                            const std::vector<Fault>& faults = {},
                                            const char* device = kUsb) {
    std::unique_ptr<Pp7308> part;
    Identify(from, [&] {
      part.reset();
      part = std::make_unique<Pp7308>(device, versions, faults);
    });
    return part;
  }

  static void ExpectUpgraded(const Pp7308& part, const PpPackage& package) {
    EXPECT_EQ(part.Application(), package.application);
    for (const FlashBlock& block : package.radio) {
      EXPECT_EQ(part.radio().Memory(block.address, block.data.size()), block.data);
    }
    EXPECT_EQ(part.Versions().radio, "V2.0.0.01");
  }

  static void ExpectPaired(Station& station, const Json::Value& wanted, std::size_t nth = 1) {
    const auto request = station.controller().WaitForRequest(Controller::kPair, kPatience, nth);
    ASSERT_TRUE(request.has_value()) << Daemon::Log();
    EXPECT_EQ(*request, wanted);
  }

  static Json::Value Pairing(int type, const std::string& software, const std::string& hardware,
                             const std::string& radio, const std::string& device) {
    Json::Value data;
    data["PpType"] = type;
    data["SwVersion"] = software;
    data["HwVersion"] = hardware;
    data["RtxVersion"] = radio;
    data["UartPath"] = device;
    return data;
  }
  static Json::Value LegacyPairing() {
    return Pairing(7303, "S1.0.0.02", "H100", "V1.0.0.01", "/dev/ttyUSB2");
  }
};

TEST_F(PpTest, UpgradesA7308AndItsRadio) {
  // More packets than their number, a byte, can count; the last one holds a single byte.
  const PpPackage package = Make7308Package("S1.0.2.5", "V2.0.0.01", 257 * 1024 + 1);
  PpStation station({package});
  std::size_t from = 0;
  const auto upgraded = Identified(from);
  Pp7308& part = *upgraded;
  ExpectLog(kSuccess, from);
  ExpectUpgraded(part, package);
  EXPECT_EQ(part.Versions().software, kNew.software);
  EXPECT_EQ(part.FileName(), "K7308_PP_APP.bin");
  EXPECT_EQ(part.radio().PreLoader(), package.preLoader);
  EXPECT_EQ(part.radio().FlashLoader(), package.flashLoader);
  EXPECT_EQ(part.radio().HighestSpeed(), 230400U);
  EXPECT_EQ(part.RadioResult(),
            (Bytes{0xAA, 0xDD, 0x08, 0x00, 0x00, 0x81, 0x55, 0x01, 0x01, 0x01, 0xA2, 0x00, 0x08}));
  EXPECT_TRUE(part.line().WaitForPort(false, kPatience));
  using Trail = std::vector<std::pair<Phase, std::size_t>>;
  const Trail wanted = {
      {Phase::PpVersion, 1},         {Phase::PpStart, 1},          {Phase::PpFirmwareInfo, 1},
      {Phase::PpPacket, 258},        {Phase::PpDone, 1},           {Phase::PpVersion, 1},
      {Phase::PpRadioRequest, 1},    {Phase::RtxRom, 1},           {Phase::RtxPreLoaderHeader, 1},
      {Phase::RtxPreLoaderImage, 1}, {Phase::RtxPreLoaderEcho, 1}, {Phase::RtxStart, 1},
      {Phase::RtxSpeed, 1},          {Phase::RtxSpeedReady, 1},    {Phase::RtxFlashLoader, 1},
      {Phase::RtxVersion, 1},        {Phase::RtxConfig, 1},        {Phase::RtxErase, 2},
      {Phase::RtxProgram, 3},        {Phase::RtxVerify, 1},        {Phase::PpRadioResult, 1}};
  EXPECT_EQ(part.conduct().Trail(), wanted);
  constexpr int kPortablePart = 2;
  const auto reports = station.panel().All();
  EXPECT_TRUE(std::any_of(reports.begin(), reports.end(), [](const Report& report) {
    return report.IsProgress() && report.type == kPortablePart;
  }));
}

TEST_F(PpTest, ComparesVersionsAsNumbersAndLeavesAnEqual7308Alone) {
  PpStation station({Small7308("S1.0.2.5")});
  for (const char* device : {kUsb, "/dev/ttyACM0"}) {
    std::size_t from = 0;
    const auto part = Identified(from, kNew, {}, device);  // it says S1.0.2.05
    ExpectLog("Same version, no need upgrade", from);
    ExpectLog(kSuccess, from);
    EXPECT_EQ(part->conduct().Trail(), (std::vector<std::pair<Phase, std::size_t>>{{Phase::PpVersion, 1}}));
    EXPECT_TRUE(part->line().WaitForPort(false, kPatience));
  }
}

TEST_F(PpTest, PutsA7204sFileOnItsStorageAndPairsItWhenItIsBack) {
  const PpPackage dvt = Make7204Package("S1.0.3.1");
  const PpPackage evt = Make7204Package("S1.0.3.1", "H000");
  PpStation station({dvt, evt});
  {
    Pp7204 part;
    ASSERT_TRUE(part.WaitForRestart(kPatience)) << Daemon::Log();
    ExpectPaired(station, Pairing(7204, "S1.0.3.01", "H100", "V1.0.0.01", "/dev/ttyACM0"));
    EXPECT_EQ(part.Firmware(), dvt.content);
    EXPECT_EQ(part.conduct().Count(Phase::PpFile), 1U);
  }
  // Early hardware has firmware of its own.
  Pp7204 early({{1, 0, 2, 4}, "H000", "V1.0.0.01"}, {}, {"/dev/ttyACM3", "/dev/sdc"});
  ASSERT_TRUE(early.WaitForRestart(kPatience)) << Daemon::Log();
  ExpectPaired(station, Pairing(7205, "S1.0.3.01", "H000", "V1.0.0.01", "/dev/ttyACM3"), 2);
  EXPECT_EQ(early.Firmware(), evt.content);
}

TEST_F(PpTest, PairsAnEqual7204AndALegacyPartAsTheyAre) {
  PpStation station({Make7204Package("S1.0.3.1")});
  Pp7204 part(kNew7204);
  ExpectPaired(station, Pairing(7204, "S1.0.3.01", "H100", "V1.0.0.01", "/dev/ttyACM0"));
  EXPECT_EQ(station.commands().Count("*mount*"), 0U);
  PpLegacy legacy;
  ExpectPaired(station, LegacyPairing(), 2);
  EXPECT_TRUE(legacy.line().WaitForPort(false, kPatience));
  // One whose radio is off says so.
  PpLegacy off("/dev/ttyUSB3", {}, {{Kind::Refuse, Phase::PpVersion}});
  ExpectLog("The Dect module of PP is not activated!Make sure PP has a battery and power on.");
}

TEST_F(PpTest, Silent7204IsHeardWhenItReportsReady) {
  const PpPackage package = Make7204Package("S1.0.3.1");
  PpStation station({package});
  Pp7204 part(kOld, {{Kind::Silent, Phase::PpVersion}});
  ASSERT_TRUE(part.conduct().WaitFor(Phase::PpVersion, kPatience));
  ExpectLog("[EM_STATE_CHECK_VER] ----> [EM_STATE_IDLE]");
  part.conduct().ClearFaults();
  part.ReportReady();
  ExpectLog("PP report ready.");
  EXPECT_TRUE(part.WaitForRestart(kPatience)) << Daemon::Log();
  ExpectPaired(station, Pairing(7204, "S1.0.3.01", "H100", "V1.0.0.01", "/dev/ttyACM0"));
}

// Early hardware that boots slowly: its late answers are not taken for those of other hardware.
TEST_F(PpTest, EarlyHardwareThatAnswersTooLateGetsItsOwnFirmwareWhenItIsReady) {
  const PpPackage evt = Make7204Package("S1.0.3.1", "H000");
  PpStation station({Make7204Package("S1.0.3.1"), evt});
  constexpr std::size_t kLateMs = 1500;
  Pp7204 part({{1, 0, 2, 4}, "H000", "V1.0.0.01"}, {{Kind::Late, Phase::PpVersion, kLateMs}});
  ExpectLog("[EM_STATE_CHECK_VER] ----> [EM_STATE_IDLE]");
  ExpectLog("PpType:7205");
  part.conduct().ClearFaults();
  part.ReportReady();
  EXPECT_TRUE(part.WaitForRestart(kPatience)) << Daemon::Log();
  ExpectPaired(station, Pairing(7205, "S1.0.3.01", "H000", "V1.0.0.01", "/dev/ttyACM0"));
  EXPECT_EQ(part.Firmware(), evt.content);
}

TEST_F(PpTest, PartThatOnlyReportsReadyKeepsNoOtherFromItsTurn) {
  PpStation station({Small7308()});
  Pp7204 silent(kOld, {{Kind::Silent, Phase::PpVersion}});
  ExpectLog("[EM_STATE_CHECK_VER] ----> [EM_STATE_IDLE]");
  std::atomic<bool> reporting{true};
  std::thread reporter([&] {
    while (reporting) {
      silent.ReportReady();
      std::this_thread::sleep_for(50ms);
    }
  });
  ExpectLog("upg in progress, no need process ready");
  std::size_t from = 0;
  const auto part = Identified(from, kNew);
  ExpectLog(kSuccess, from);
  reporting = false;
  reporter.join();
}

// What can go wrong with a storage, and that the same part, put in again, is upgraded.
TEST_F(PpTest, BadStorageEndsTheAttemptAlone) {
  const struct {
    const char* log;
    std::vector<Fault> faults;
    PpNodes nodes;
    const char* failing;  // command
  } rows[] = {
      {"Waiting for loading of storage dev timeout.", {}, {"/dev/ttyACM0", "/dev/hidden"}, ""},
      {"Failed to mount dev of 7204.Cmd:", {}, {}, "mount *"},
      {"Failed to copy fw file.", {}, {}, "cp *"},
      {"----> [EM_STATE_INTERRUPT]", {{Kind::Unplug, Phase::PpFile}}, {}, ""},
  };
  const PpPackage package = Make7204Package("S1.0.3.1");
  PpStation station({package});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.log);
    std::size_t from = Now();
    if (*row.failing != '\0') station.commands().Fail(row.failing, 1);
    {
      Pp7204 part(kOld, row.faults, row.nodes);
      ExpectLog(row.log, from);
      ExpectLog(kIdle, from);
    }
    station.commands().Clear();
    station.controller().Clear();
    Pp7204 again;
    EXPECT_TRUE(again.WaitForRestart(kPatience)) << Daemon::Log();
    ExpectPaired(station, Pairing(7204, "S1.0.3.01", "H100", "V1.0.0.01", "/dev/ttyACM0"));
  }
}

// The second time it comes back in between, and its nodes are there again.
TEST_F(PpTest, PartPulledWhileItsFileIsCopiedIsUpgradedNextTime) {
  PpStation station({Make7204Package("S1.0.3.1")});
  station.commands().Hold("cp *");
  Pp7204 part;
  ASSERT_TRUE(station.commands().WaitForStart("cp *", kPatience)) << Daemon::Log();
  std::size_t from = Now();
  part.Unplug();
  ExpectLog("/dev/ttyACM0 usb plug out", from);
  station.commands().Release("cp *");
  ExpectLog("----> [EM_STATE_INTERRUPT]", from);
  ExpectLog(kIdle, from);

  station.commands().Hold("cp *");
  from = Now();
  part.Plug();
  ASSERT_TRUE(station.commands().WaitForStart("cp *", kPatience, 2)) << Daemon::Log();
  part.Unplug();
  part.Plug();
  ExpectLog("Normal plug in state:4", from);
  part.Unplug();
  ExpectLog("plug out state:4", Daemon::Log().rfind("Normal plug in state:4"));
  station.commands().Release("cp *");
  ExpectLog("----> [EM_STATE_INTERRUPT]", from);
  ExpectLog(kIdle, from);
  part.Plug();
  EXPECT_TRUE(part.WaitForRestart(kPatience)) << Daemon::Log();
}

// Its firmware arrives in a package for the base station, and is used before that one is upgraded.
TEST_F(PpTest, FirmwareOutOfAPackageIsUsedWithoutARestart) {
  const PpPackage first = Small7308();
  PpStation station({first});
  const PpPackage second = Small7308("S1.0.2.6");
  station.commands().Hold("systemctl stop quorvalen");
  std::size_t from = Now();
  station.InsertStick(PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).PpPage(second).Build());
  ASSERT_TRUE(station.commands().WaitForStart("systemctl stop quorvalen", kPatience)) << Daemon::Log();
  ExpectLog("Load version inf done!", from);
  const auto part = Identified(from, kNew);
  ExpectLog(kSuccess, from);
  EXPECT_EQ(part->Application(), second.application);
}

TEST_F(PpTest, WithoutFirmwareA7308FailsUntilADebugCommandReloadsIt) {
  PpStation station({});
  std::size_t from = 0;
  {
    const auto part = Identified(from);
    ExpectLog("Can't upg beacause of ver info not load", from);
    ExpectLog(kIdle, from);
    EXPECT_TRUE(part->line().WaitForPort(false, kPatience));
  }
  const PpPackage package = Small7308();
  Install(package);
  from = Now();
  ASSERT_TRUE(station.bus().Call("/org/Upgread/object", "org.Upgread.interface",
                                 "upgrade_dbus_method_UpgreadDebug", "rpp", kPatience));
  ExpectLog("Load version inf done!", from);
  const auto part = Identified(from);
  ExpectLog(kSuccess, from);
  ExpectUpgraded(*part, package);
}

/// A step of the 7308's upgrade, whose answer goes wrong.
struct Step {
  const char* name;
  Phase phase;
  std::size_t after;  ///< see Fault
  const char* log;
  std::chrono::milliseconds wait;  ///< until the step is given up
  std::vector<Kind> kinds;
  const char* refused;  ///< the log when the answer is a no; null: as without an answer
};

void PrintTo(const Step& step, std::ostream* out) {
  *out << step.name;
}

const std::vector<Kind> kBadAcks = {Kind::CutAnswer,   Kind::Refuse,           Kind::Late,   Kind::WrongCheck,
                                    Kind::WrongLength, Kind::WrongLengthField, Kind::Garbage};
const std::vector<Kind> kBadVersions = {
    Kind::CutAnswer, Kind::Late, Kind::WrongCheck, Kind::WrongLength, Kind::WrongLengthField, Kind::Garbage};
const Step kSteps[] = {
    {"Identify", Phase::PpVersion, 0, kFailure, 400ms, kBadVersions, nullptr},
    {"Start", Phase::PpStart, 0, "Waiting for ACK of [NOTIFY_UPG] timeout", 1s, kBadAcks, nullptr},
    {"FirmwareInfo", Phase::PpFirmwareInfo, 0, "Waiting for ACK of [SEND_FW_INFO] timeout", 1s, kBadAcks,
     "User don't want to upg!Value:1"},
    {"Packet", Phase::PpPacket, 1, "Waiting for ACK of [SEND_PACK] timeout.Index:", 1s, kBadAcks, nullptr},
    {"Done", Phase::PpDone, 0, "Waiting for ACK of [SEND_PACK_DONE] timeout", 1s, kBadAcks, nullptr},
    {"VersionAfterwards", Phase::PpVersion, 1, kFailure, 1s, kBadVersions, nullptr},
    {"RadioRequest",
     Phase::PpRadioRequest,
     0,
     "Waiting for ACK of [REQ_UPG_RTX] timeout",
     5s,
     {Kind::CutAnswer, Kind::Refuse, Kind::WrongCheck},
     nullptr},
    {"RadioDoesNotBoot",
     Phase::RtxRom,
     0,
     "Waiting for STX timeout",
     3s,
     {Kind::Silent, Kind::Garbage},
     nullptr},
    {"RadioIsNotProgrammed",
     Phase::RtxProgram,
     1,
     "[EM_PROG_FLASH_CFM] timeout",
     3s,
     {Kind::Silent, Kind::WrongCheck},
     nullptr},
    {"RadioIsWrong", Phase::RtxVerify, 0, "Crc not right!Store:0x", 0s, {Kind::Refuse}, nullptr},
    {"RadioResult", Phase::PpRadioResult, 0, "Waiting for ACK of [NOTIFY_PP] timeout", 1s, kBadAcks, nullptr},
};

class PpAnswer : public PpTest, public ::testing::WithParamInterface<Step> {};

TEST_P(PpAnswer, GoneWrongEndsTheAttemptInTimeAndTheNextPlugInWorks) {
  const Step& step = GetParam();
  const PpPackage package = Small7308();
  PpStation station({package});
  const bool identified = step.phase != Phase::PpVersion || step.after > 0;
  std::size_t from = 0;
  for (const Kind kind : step.kinds) {
    SCOPED_TRACE("fault " + std::to_string(static_cast<int>(kind)));
    const std::size_t late = static_cast<std::size_t>(step.wait.count()) + 100;
    const std::vector<Fault> faults = {{kind, step.phase, kind == Kind::Late ? late : 0, step.after}};
    {
      from = Now();
      const auto part =
          identified ? Identified(from, kOld, faults) : std::make_unique<Pp7308>(kUsb, kOld, faults);
      ASSERT_TRUE(part->conduct().WaitFor(step.phase, kPatience, step.after + 1)) << Daemon::Log();
      const auto began = std::chrono::steady_clock::now();
      ExpectLog(kFailure, from);
      EXPECT_LT(std::chrono::steady_clock::now() - began, step.wait + 2s * kSlowness);
      ExpectLog(kIdle, from);
      EXPECT_TRUE(part->line().WaitForPort(false, kPatience));
    }
    const std::string log = Daemon::Log().substr(from);
    const char* const wanted = kind == Kind::Refuse && step.refused != nullptr ? step.refused : step.log;
    EXPECT_NE(log.find(wanted), std::string::npos) << "not logged: " << wanted << "\nlog:\n" << log;
    EXPECT_EQ(log.find(kSuccess), std::string::npos) << log;
    const auto next = Identified(from, kNew);
    ExpectLog(kSuccess, from);
  }
  const auto part = Identified(from);
  ExpectLog(kSuccess, from);
  ExpectUpgraded(*part, package);
}

INSTANTIATE_TEST_SUITE_P(Of, PpAnswer, ::testing::ValuesIn(kSteps), kRowName);

// Faults that an upgrade lives with.
TEST_F(PpTest, AnswersMayComeTwiceInPiecesOrAfterNoise) {
  const std::vector<Phase> acks = {Phase::PpStart, Phase::PpFirmwareInfo, Phase::PpPacket,
                                   Phase::PpDone,  Phase::PpRadioRequest, Phase::PpRadioResult};
  const PpPackage package = Small7308();
  PpStation station({package});
  for (const Kind kind : {Kind::Double, Kind::Split, Kind::Noise}) {
    SCOPED_TRACE("fault " + std::to_string(static_cast<int>(kind)));
    // A version in pieces of a byte would take longer than it is waited for.
    std::vector<Fault> faults = {{kind == Kind::Split ? Kind::Double : kind, Phase::PpVersion, 30}};
    std::transform(acks.begin(), acks.end(), std::back_inserter(faults), [&](Phase phase) {
      return Fault{kind, phase, 30};
    });
    std::size_t from = 0;
    const auto part = Identified(from, kOld, faults);
    ExpectLog(kSuccess, from);
    ExpectUpgraded(*part, package);
  }
}

TEST_F(PpTest, PartPulledInAnyPhaseIsUpgradedWhenItIsBack) {
  PpStation station({Small7308()});
  for (const Phase phase :
       {Phase::PpVersion, Phase::PpStart, Phase::PpFirmwareInfo, Phase::PpPacket, Phase::PpDone,
        Phase::PpRadioRequest, Phase::RtxRom, Phase::RtxPreLoaderImage, Phase::RtxFlashLoader,
        Phase::RtxProgram, Phase::RtxVerify, Phase::PpRadioResult}) {
    SCOPED_TRACE(Name(phase));
    const std::vector<Fault> faults = {{Kind::Unplug, phase}};
    std::size_t from = Now();
    const auto part = phase == Phase::PpVersion ? std::make_unique<Pp7308>(kUsb, kOld, faults)
                                                : Identified(from, kOld, faults);
    ASSERT_TRUE(part->conduct().WaitFor(phase, kPatience)) << Daemon::Log();
    const auto began = std::chrono::steady_clock::now();
    ExpectLog(kFailure, from);
    const bool isRadio = phase >= Phase::RtxRom && phase <= Phase::RtxVerify;
    EXPECT_LT(std::chrono::steady_clock::now() - began, (isRadio ? 1s : 7s) * kSlowness);
    part->conduct().ClearFaults();
    Identify(from, [&] {
      part->Unplug();
      part->Plug();
    });
    ExpectLog(kSuccess, from);
    EXPECT_EQ(part->Versions().software, kNew.software);
  }
}

TEST_F(PpTest, ClockOutOfSyncHoldsPartsBackUntilItIsInSyncAgain) {
  PpStation station({Small7308()});
  station.ReportClock(false);
  ExpectLog("SetClockStatus bStatus = 0");
  std::size_t from = Now();
  Pp7308 part(kUsb, kNew);
  PpLegacy legacy;
  ExpectLog("m_bCascadeClockSync is false, strDevFile = /dev/ttyUSB1, bState =1", from);
  ExpectLog("m_bCascadeClockSync is false, strDevFile = /dev/ttyUSB2, bState =1", from);
  EXPECT_EQ(part.line().ReceivedCount() + legacy.line().ReceivedCount(), 0U);
  station.ReportClock(true);
  ExpectLog(kSuccess, from);
  ExpectPaired(station, LegacyPairing());

  // The next time it repeats what is known already: nobody is handled twice.
  EXPECT_TRUE(part.line().WaitForPort(false, kPatience));
  EXPECT_TRUE(legacy.line().WaitForPort(false, kPatience));
  const std::uint64_t count = part.line().ReceivedCount() + legacy.line().ReceivedCount();
  from = Now();
  station.ReportClock(false);
  station.ReportClock(true);
  ExpectLog("USB state no change ,no need process", from);
  Pp7308 next("/dev/ttyUSB4", kNew);
  ExpectLog(kSuccess, from);
  EXPECT_EQ(part.line().ReceivedCount() + legacy.line().ReceivedCount(), count);
}

TEST_F(PpTest, PartsThatComeTogetherAreHandledOneAfterTheOther) {
  const PpPackage firmware7308 = Small7308();
  const PpPackage firmware7204 = Make7204Package("S1.0.3.1");
  PpStation station({firmware7308, firmware7204});
  Pp7308 first;
  Pp7308 second("/dev/ttyUSB5");
  PpLegacy legacy;
  Pp7204 third;
  EXPECT_TRUE(first.conduct().WaitFor(Phase::PpRadioResult, kPatience)) << Daemon::Log();
  EXPECT_TRUE(second.conduct().WaitFor(Phase::PpRadioResult, kPatience)) << Daemon::Log();
  EXPECT_TRUE(third.WaitForRestart(kPatience)) << Daemon::Log();
  EXPECT_TRUE(station.controller().WaitForRequest(Controller::kPair, kPatience, 2)) << Daemon::Log();
  ExpectUpgraded(first, firmware7308);
  ExpectUpgraded(second, firmware7308);
}

// A thousand times a part comes or goes at random, whatever is under way.
TEST_F(PpTest, SurvivesAThousandRandomPlugs) {
  const unsigned seed = std::random_device{}();
  std::cout << "seed " << seed << std::endl;
  std::mt19937 random(seed);
  const auto below = [&](std::size_t limit) { return random() % limit; };
  PpStation station({Small7308(), Make7204Package("S1.0.3.1")});
  // One that has been handled from end to end: what stays open after it stays open for good.
  std::size_t from = 0;
  {
    const auto part = Identified(from);
    ExpectLog(kSuccess, from);
  }
  ExpectLog("/dev/ttyUSB1 usb plug out", from);
  const pid_t daemon = station.daemon().Pid();
  const std::size_t descriptors = CountOf(daemon, "fd");
  const std::size_t threads = CountOf(daemon, "task");

  std::optional<Pp7308> part7308;
  std::optional<Pp7204> part7204;
  std::optional<PpLegacy> legacy;
  const auto toggle = [](auto& part) { part ? part.reset() : (void)part.emplace(); };
  const Phase phases[] = {Phase::PpVersion,      Phase::PpStart, Phase::PpPacket,   Phase::PpDone,
                          Phase::PpRadioRequest, Phase::RtxRom,  Phase::RtxProgram, Phase::PpRadioResult};
  std::map<Phase, int> pulledIn;  // how often the 7308 went in which phase
  bool inSync = true;
  for (int round = 0; round < 1000; ++round) {
    const std::size_t choice = below(10);
    if (choice == 0) {
      toggle(part7204);
    } else if (choice < 3) {
      toggle(legacy);
    } else {
      if (part7308 && !part7308->conduct().Trail().empty()) {
        ++pulledIn[part7308->conduct().Trail().back().first];
      }
      toggle(part7308);
    }
    if (below(inSync ? 100 : 5) == 0) station.ReportClock(inSync = !inSync);
    // It goes on once the part is that far, or soon.
    const auto most = std::chrono::milliseconds(below(20) == 0 ? 1500 : below(80));
    if (part7308 && inSync) part7308->conduct().WaitFor(phases[below(std::size(phases))], most);
  }
  for (const auto& [phase, count] : pulledIn) std::cout << Name(phase) << " " << count << std::endl;
  EXPECT_GT(pulledIn.size(), 4U) << "hardly a phase was reached";
  ASSERT_TRUE(station.daemon().Running()) << Daemon::Output();
  part7308.reset();
  part7204.reset();
  legacy.reset();
  station.ReportClock(true);

  // Those who stay are handled in the end.
  station.controller().Clear();
  part7204.emplace();
  legacy.emplace();
  const auto upgraded = Identified(from);
  EXPECT_TRUE(upgraded->conduct().WaitFor(Phase::PpRadioResult, kPatience)) << Daemon::Log();
  EXPECT_TRUE(part7204->WaitForRestart(kPatience)) << Daemon::Log();
  for (const int type : {7204, 7303}) {
    const auto asked = [type](const Json::Value& message) {
      return message["Cmd"] == Controller::kPair && message["Data"]["PpType"] == type;
    };
    EXPECT_TRUE(station.controller().WaitFor(asked, kPatience)) << Daemon::Log();
  }
  upgraded->Unplug();
  part7204.reset();
  legacy.reset();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while ((CountOf(daemon, "fd") > descriptors || CountOf(daemon, "task") > threads) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_LE(CountOf(daemon, "fd"), descriptors);
  EXPECT_LE(CountOf(daemon, "task"), threads);
  const auto status = station.daemon().Stop();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
}

/// A moment at which the daemon is told to stop.
struct Moment {
  const char* name;
  std::size_t count;  ///< this phase is reached so often
  Phase phase;
  bool silent;  ///< the part answers no more
};

void PrintTo(const Moment& moment, std::ostream* out) {
  *out << moment.name;
}

const Moment kMoments[] = {
    {"ItIsAskedForItsVersion", 1, Phase::PpVersion, true},
    {"ItEntersItsUpgrade", 1, Phase::PpStart, false},
    {"ItTakesPackets", 2, Phase::PpPacket, false},
    {"ItIsSilent", 2, Phase::PpPacket, true},
    {"ItRestarts", 1, Phase::PpDone, false},
    {"ItsRadioBoots", 1, Phase::RtxRom, true},
    {"ItsRadioIsProgrammed", 2, Phase::RtxProgram, false},
    {"ItsRadioIsSilent", 2, Phase::RtxErase, true},
    {"ItHearsTheResult", 1, Phase::PpRadioResult, true},
};

class PpStop : public PpTest, public ::testing::WithParamInterface<Moment> {};

TEST_P(PpStop, EndsTheUpgradeInOrder) {
  const Moment& moment = GetParam();
  PpStation station({Small7308()}, 1);  // pauses are real: a stop ends them too
  std::vector<Fault> faults;
  if (moment.silent) faults.push_back({Kind::Silent, moment.phase, 0, moment.count - 1});
  std::size_t from = 0;
  const auto part = moment.phase == Phase::PpVersion ? std::make_unique<Pp7308>(kUsb, kOld, faults)
                                                     : Identified(from, kOld, faults);
  ASSERT_TRUE(part->conduct().WaitFor(moment.phase, kPatience, moment.count)) << Daemon::Log();
  const auto began = std::chrono::steady_clock::now();
  const auto status = station.daemon().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 300ms * kSlowness);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
}

INSTANTIATE_TEST_SUITE_P(While, PpStop, ::testing::ValuesIn(kMoments), kRowName);

TEST_F(PpTest, StopEndsTheWaitForA7204sRestart) {
  PpStation station({Make7204Package("S1.0.3.1")});
  Pp7204 part(kOld, {{Kind::Silent, Phase::PpFile}});
  ASSERT_TRUE(part.conduct().WaitFor(Phase::PpFile, kPatience)) << Daemon::Log();
  const auto began = std::chrono::steady_clock::now();
  const auto status = station.daemon().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 300ms * kSlowness);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
}

// How packages arrive: sticks of every kind, pulled sticks, several packages at once, a low battery's
// absence, and requests that nobody should send.
#include "StationTest.h"

using namespace station;

class Sources : public StationTest {};

// The stick is mounted by the system or, when nobody does, by the daemon, which then also unmounts it.
TEST_F(Sources, StickThatNobodyMountedIsMountedAndUnmountedByTheDaemon) {
  Station station;
  ASSERT_TRUE(station.Start());
  StickOptions options;
  options.mounted = false;
  station.InsertStick(std::vector<std::string>{}, options);
  EXPECT_TRUE(station.panel().WaitForStatus(kNoTask, kPatience).has_value());
  ExpectLog("package.none: there is none in /run/media/");
  EXPECT_TRUE(station.commands().WaitForEnd("umount *", kPatience));
  options.partitioned = false;
  station.panel().Clear();
  station.InsertStick(PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Build(), options);
  ExpectReboot(station);
  EXPECT_EQ(station.panel().Progress().back().status, kFinished);
}

TEST_F(Sources, SideCarFileIsNotThePackage) {
  Station station;
  ASSERT_TRUE(station.Start());
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Build();
  const std::string sideCar = std::filesystem::path(package.path).parent_path() / ("._" + package.name);
  WriteRandomFile(sideCar, 4096);
  station.InsertStick(std::vector<std::string>{sideCar, package.path});
  ExpectReboot(station);
  EXPECT_EQ(station.panel().Progress().back().status, kFinished);
}

TEST_F(Sources, StickPulledInTheMiddleOfTheCopyEndsInAReportedFailure) {
  Station station;
  ASSERT_TRUE(station.Start());
  // The sync right before the copy is held until the stick is gone. The hot-plug monitor syncs too, so the
  // hold begins when it is done: while the daemon mounts the stick.
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", 8 << 20).Build();
  StickOptions options;
  options.mounted = false;
  station.commands().Hold("mount *");
  station.InsertStick(package, options);
  ASSERT_TRUE(station.commands().WaitForStart("mount *", kPatience));
  station.commands().Hold("sync");
  station.commands().Release("mount *");
  ExpectLog("cp file old:");
  station.PullStick();
  station.commands().Release("sync");
  ExpectLog("Udisk copy file error");
  ExpectLog("package.copy: ");
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kFailed}));
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  EXPECT_EQ(ReadFile("/proc/self/mounts").find("/run/media/sda"), std::string::npos)
      << "the stick stays mounted";
}

TEST_F(Sources, SecondPackageIsRefusedAndTheFirstOneUnharmed) {
  Station station;
  ASSERT_TRUE(station.Start());
  const Package first = PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build();
  const Package second = PackageBuilder("S4.1.0.2").AllSocParts("V2.0.0.02").Build();
  WebServer::Store(first.path);
  WebServer::Store(second.path);
  station.commands().Hold("7za x *");
  ASSERT_EQ(station.web().RequestUpgrade(first.name)->errorCode, WebServer::kAccepted);
  ASSERT_TRUE(station.commands().WaitForStart("7za x *", kPatience));
  station.InsertStick(second);
  ExpectLog("beingTask is have current upgrade  unpack failed.");
  ExpectLog("busy: another package is under way");
  EXPECT_EQ(station.web().RequestUpgrade(second.name)->errorCode, WebServer::kBusy);
  station.commands().Release("7za x *");
  ExpectReboot(station);
  EXPECT_EQ(station.panel().Progress().back().property["softVersion"], "S4.1.0.1");
  station.PullStick();
  ASSERT_TRUE(station.Reboot());
  ExpectNoDifferences(station.DifferencesFrom(first, Partition::B));
}

// In real time: the third version report comes 4 s after the start, and a stick is read 2 s after it was
// noticed.
TEST_F(Sources, StickThatWasInAtStartIsNotRead) {
  StationOptions options;
  options.pauseDivisor = 1;
  Station station(options);
  station.InsertStick(PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Build());
  ASSERT_TRUE(station.Start());
  EXPECT_TRUE(station.panel().WaitForCmd(200, kPatience, 3).has_value());
  EXPECT_TRUE(station.panel().Progress().empty());
}

TEST_F(Sources, WebRequestsAreAnsweredByWhatTheyAre) {
  Station station;
  ASSERT_TRUE(station.Start());
  const auto code = [&](const std::string& text) {
    const auto reply = station.web().Request(text);
    EXPECT_TRUE(reply.has_value()) << text;
    return reply ? reply->errorCode : -1;
  };
  EXPECT_EQ(code("no json"), WebServer::kMalformed);
  EXPECT_EQ(code("[]"), WebServer::kMalformed);
  EXPECT_EQ(code(std::string(2000, '[')), WebServer::kMalformed);
  Json::Value property;
  property["fileName"] = 5;
  EXPECT_EQ(code(MakeRequest(1, 100, property)), WebServer::kMalformed);
  for (const char* name : {"", "/etc/passwd", "../../etc/passwd", "/firmware/../etc/x.zip", "webs/x.zip"}) {
    property["fileName"] = name;
    EXPECT_EQ(code(MakeRequest(2, 100, property)), WebServer::kMalformed) << name;
  }
  property["fileName"] = "QV_K9031_H200_S4.1.0.1_RRU_UDISK_Common_1.zip";
  EXPECT_EQ(code(MakeRequest(4, 100, property)), WebServer::kRefused) << "there is no such file";
  // A call that nobody serves gets no reply at all.
  EXPECT_FALSE(
      station.bus().Call("/org/Upgread/object", "org.Upgread.interface", "no_such_member", "x", 500ms));
  EXPECT_FALSE(station.bus().Call("/wrong/path", "org.UpgradeWebRequest_Method.interface",
                                  "upgrade_web_dbus_method_notify", "x", 500ms));
  EXPECT_TRUE(station.daemon().Running());
}

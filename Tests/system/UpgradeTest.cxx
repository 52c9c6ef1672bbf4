// Whole upgrades from a stick and from the web: what the panel is told, what is run, and what is on the disks
// after.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "StationTest.h"
#include "UpgradePackage/Parts.h"

using namespace station;

namespace {

// The commands in `expected` were run in this order, with any others between them.
void ExpectInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& expected) {
  auto from = lines.begin();
  for (const auto& line : expected) {
    const auto at = std::find(from, lines.end(), line);
    ASSERT_NE(at, lines.end()) << "not run, or not in order: " << line;
    from = at + 1;
  }
}

// The environment of the command that begins like this and runs now: its variables, each ended by a 0.
std::string EnvironmentOf(const std::string& command) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "cmdline", std::ios::binary);
    std::string line(std::istreambuf_iterator<char>(file), {});
    std::replace(line.begin(), line.end(), '\0', ' ');
    if (line.rfind(command, 0) != 0) continue;
    std::ifstream environment(entry.path() / "environ", std::ios::binary);
    return {std::istreambuf_iterator<char>(environment), {}};
  }
  return "no such process";
}

}  // namespace

class Upgrade : public StationTest {
 protected:
  // The manifest and the archive that it names lie where the web page offers them.
  static void ExpectPackageKept() {
    const std::string kept = "/firmware/webs/new_package/";
    Json::Value manifest;
    std::istringstream(ReadFile(kept + "version.json")) >> manifest;
    EXPECT_FALSE(ReadFile(kept + manifest["otaList"][0]["fileName"].asString()).empty());
  }

  static void ExpectVersionFile(Partition partition, const Package& package) {
    const Json::Value file = Station::Versions(partition);
    EXPECT_EQ(file["totalVersion"]["softVersion"], package.softVersion);
    EXPECT_EQ(file["totalVersion"]["hardVersion"], package.hardVersion);
    EXPECT_FALSE(file.isMember("otaList"));
    const auto& parts = file["subModulesVersion"];
    EXPECT_EQ(parts.size(), Parts::kAll.size());
    for (const char* part : {"app", "system", "rootfs"}) {
      EXPECT_EQ(parts[std::string(part) + "Version"], package.versions.at(part));
    }
    for (const char* part : {"fpga", "rtx", "uac", "7204", "7204Evt", "7308"}) {
      EXPECT_EQ(parts[std::string(part) + "Version"], "V1.0.0.01") << part;
    }
    EXPECT_EQ(parts["mcuVersion"], "1.0.6.50") << "as the MCU itself tells it";
  }
};

TEST_F(Upgrade, FromStickToBAndBackToA) {
  Station station;
  ASSERT_TRUE(station.Start());
  { std::ofstream("/var/first_upgrade.ini") << "1"; }

  // To B, with a boot loader to write.
  const Package first = PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build();
  station.InsertStick(first);
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFinished}));
  const auto progress = station.panel().Progress();
  int percent = 0;
  for (const auto& report : progress) {
    EXPECT_EQ(report.fault, "");
    EXPECT_EQ(report.snr, 1);
    EXPECT_GE(report.percent, percent) << "the bar went back";
    percent = report.percent;
    EXPECT_EQ(report.property.isMember("softVersion"), report.percent == 100);
  }
  EXPECT_EQ(percent, 100);
  EXPECT_EQ(progress.back().property["softVersion"], "S4.1.0.1");
  ExpectInOrder(
      station.commands().Lines(),
      {"7za x -y /firmware/upload/page/ota.zip -o/firmware/upload/page", "systemctl stop quorvalen",
       "systemctl stop lcd-esd-check.service", "pkill -9 QVSysCtrl",
       "dd if=/dev/zero of=/dev/mmcblk2boot0 bs=1k count=256", "sync",
       "dd if=/firmware/upload/page/system/flash.bin of=/dev/mmcblk2 bs=1k seek=32", "sync", "reboot -f"});
  ExpectInOrder(station.commands().Lines(), {"umount /dev/mmcblk2p3", "mkfs.ext4 -F -L rootfs /dev/mmcblk2p3",
                                             "mount /dev/mmcblk2p3 /run/media/mmcblk2p3"});
  ExpectVersionFile(Partition::B, first);
  EXPECT_EQ(ReadFile("/qv_config/partb.ini"), "part=1");
  EXPECT_FALSE(Exists("/qv_config/parta.ini"));
  EXPECT_FALSE(Exists("/var/first_upgrade.ini"));
  EXPECT_FALSE(Exists("/firmware/upload/page"));
  ExpectPackageKept();
  const std::string image = ReadFile(first.tree + "/system/flash.bin");
  ASSERT_FALSE(image.empty());
  EXPECT_EQ(station.disks().UserArea().Read(32 * 1024, image.size()), image);
  ASSERT_TRUE(station.Reboot());
  ASSERT_EQ(station.Running(), Partition::B);
  ExpectNoDifferences(station.DifferencesFrom(first, Partition::B));

  // And back to A on the same disks; this time the boot image has no marker and is not written.
  const Package second = PackageBuilder("S4.0.9.11")
                             .App("V3.0.0.01")
                             .System("V3.0.0.01", 64 * 1024, PackageBuilder::Flash::Image)
                             .Rootfs("V3.0.0.01")
                             .Build();
  ExpectUpgrade(station, second);
  EXPECT_EQ(station.commands().Count("dd *"), 0U);
  EXPECT_EQ(station.disks().UserArea().Read(32 * 1024, image.size()), image);
  ExpectVersionFile(Partition::A, second);
  EXPECT_EQ(ReadFile("/qv_config/parta.ini"), "part=0");
  EXPECT_FALSE(Exists("/qv_config/partb.ini"));
}

TEST_F(Upgrade, FromTheWebServerWithReportsToIt) {
  Station station;
  ASSERT_TRUE(station.Start());
  // An uploaded file may end in anything; here in what a shell would run.
  const Package package =
      PackageBuilder("S4.1.0.1")
          .AllSocParts("V2.0.0.01")
          .Name("QV_K9031_H200_S4.1.0.1_RRU_UDISK_Common_1$(touch pwned);touch pwned;.zip")
          .Build();
  WebServer::Store(package.path);

  const auto reply = station.web().RequestUpgrade(package.name);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->fault, "");
  EXPECT_EQ(reply->errorCode, WebServer::kAccepted);
  EXPECT_EQ(reply->interfaceType, "response");
  // One package at a time, wherever the next one comes from.
  EXPECT_EQ(station.web().RequestUpgrade(package.name)->errorCode, WebServer::kBusy);
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.web()), Statuses(station.panel()));
  EXPECT_EQ(Statuses(station.web()), (std::vector<int>{kStarted, kUpgrading, kFinished}));
  ExpectPackageKept();
  ASSERT_TRUE(station.Reboot());
  EXPECT_EQ(station.Running(), Partition::B);
  ExpectNoDifferences(station.DifferencesFrom(package, Partition::B));
  ExpectVersionFile(Partition::B, package);
  EXPECT_FALSE(Exists("pwned")) << "a file name was executed";

  // The same version again: refused while the version is to be checked.
  WebServer::Store(package.path);
  EXPECT_EQ(station.web().RequestUpgrade(package.name, true)->errorCode, WebServer::kAccepted);
  EXPECT_TRUE(station.web().WaitForStatus(kSameVersion, kPatience).has_value());
  EXPECT_EQ(station.commands().Count("reboot *"), 0U);
}

// A part that fails leaves the marker and the old overall version, and does not keep the others from their
// work.
TEST_F(Upgrade, FailedPartKeepsThePartitionAndRecordsTheOthers) {
  Station station;
  ASSERT_TRUE(station.Start());
  const Package package = PackageBuilder("S4.1.0.1")
                              .AllSocParts("V2.0.0.01")
                              .EditPage("app", PackageBuilder::Truncate(0.5))
                              .Build();
  station.InsertStick(package);
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFailed}));
  ExpectLog("Udisk tar file is error");
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  const Json::Value file = Station::Versions(Partition::B);
  EXPECT_EQ(file["totalVersion"]["softVersion"], "S4.0.9.10");
  EXPECT_EQ(file["subModulesVersion"]["appVersion"], "V1.0.0.01");
  EXPECT_EQ(file["subModulesVersion"]["rootfsVersion"], "V2.0.0.01");
  station.PullStick();
  ASSERT_TRUE(station.Reboot());
  EXPECT_EQ(station.Running(), Partition::A);
  ExpectUpgrade(station, PackageBuilder("S4.1.0.2").AllSocParts("V2.0.0.02").Build());
}

TEST_F(Upgrade, RadioModulesThatCannotBeUnpackedFailAndTheOthersStillRun) {
  Station station;
  ASSERT_TRUE(station.Start());
  const Package package =
      PackageBuilder("S4.1.0.1").App("V2.0.0.01").RawPage("rtx", "V2.0.0.01", "rtx.tar", "no image").Build();
  station.InsertStick(package);
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFailed}));
  ExpectLog("upgrade error type:4");
  ExpectLog("upgrade succed type:1");
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  EXPECT_EQ(Station::Versions(Partition::B)["subModulesVersion"]["appVersion"], "V2.0.0.01");
}

// Nothing may be written beside a partition, and what was mounted for a part that fails is unmounted again.
TEST_F(Upgrade, TargetsThatAreNotMountedAreNotWritten) {
  Station station;
  ASSERT_TRUE(station.Start());
  station.disks().App(Partition::B).Unmount();
  station.disks().System(Partition::B).Unmount();
  station.commands().Fail("tar zxf *", 2);
  station.InsertStick(PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build());
  ExpectReboot(station);
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  EXPECT_FALSE(Exists("/app_B/quorvalen"));
  EXPECT_EQ(station.commands().Count("cp -rf * /run/media/mmcblk2p5*"), 0U);
  EXPECT_TRUE(station.disks().Rootfs(Partition::B).MountPoints().empty());
}

// A tar that refuses links out of its tree is told to unpack them: a root file system is full of them.
TEST_F(Upgrade, TarOfTheRootFileSystemMayUnpackAllLinks) {
  Station station;
  ASSERT_TRUE(station.Start());
  station.commands().Hold("tar zxf *");
  station.InsertStick(PackageBuilder("S4.1.0.1").Rootfs("V2.0.0.01").Build());
  ASSERT_TRUE(station.commands().WaitForStart("tar zxf *", kPatience));
  const std::string environment = std::string(1, '\0') + EnvironmentOf("tar zxf ");
  EXPECT_NE(environment.find(std::string("\0EXTRACT_UNSAFE_SYMLINKS=1\0", 27)), std::string::npos);
}

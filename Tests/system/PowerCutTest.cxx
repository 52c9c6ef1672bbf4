// The plug is pulled at many points of an upgrade: the station comes up again, on exactly one partition that
// holds what it says, no file is half written, and the next upgrade succeeds.
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <ostream>

#include "StationTest.h"

using namespace station;

namespace {

struct Cut {
  const char* name;
  const char* pattern;  ///< of the command that the cut comes with
  std::size_t nth;
  bool after;  ///< right after the command instead of in its place
};

void PrintTo(const Cut& cut, std::ostream* out) {
  *out << cut.name;
}

// In the order in which an upgrade meets them.
const Cut kCuts[] = {
    {"BeforeUnpack", "7za x *ota.zip*", 1, false},
    {"AfterUnpack", "7za x *ota.zip*", 1, true},
    {"AfterRruUnpack", "7za x *temp_all_ota*", 1, true},
    {"ServicesStopped", "systemctl stop quorvalen", 1, true},
    {"BeforeAppTar", "tar xf * -C /app_B*", 1, false},
    {"AfterAppTar", "tar xf * -C /app_B*", 1, true},
    {"SystemUnpacked", "tar xf * -C /firmware/upload/page/system*", 1, true},
    {"BeforeSystemCopy", "cp -rf *mmcblk2p5*", 1, false},
    {"AfterSystemCopy", "cp -rf *mmcblk2p5*", 1, true},
    {"BeforeFormat", "mkfs.ext4 *", 1, false},
    {"AfterFormat", "mkfs.ext4 *", 1, true},
    {"RootfsMounted", "mount /dev/mmcblk2p3 *", 1, true},
    {"BeforeRootfsTar", "tar zxf *", 1, false},
    {"AfterRootfsTar", "tar zxf *", 1, true},
    {"PackageKept", "mv *", 1, true},
    {"BootAreaCleared", "dd if=/dev/zero *", 1, true},
    {"BeforeBootImage", "dd *seek=32", 1, false},
    {"AfterBootImage", "dd *seek=32", 1, true},
    {"InReboot", "reboot *", 1, false},
};

}  // namespace

class PowerCutTest : public StationTest {
 protected:
  static void ExpectConsistent(Station& station, const Package& package) {
    for (const Partition partition : {Partition::A, Partition::B}) {
      const std::string file = Disks::AppDir(partition) + "/quorvalen/version.json";
      if (Exists(file)) {
        EXPECT_TRUE(Station::Versions(partition).isObject()) << file << " is half written";
      }
    }
    if (station.Running() == Partition::B) {
      ExpectNoDifferences(station.DifferencesFrom(package, Partition::B));
      EXPECT_EQ(Station::Versions(Partition::B)["totalVersion"]["softVersion"], package.softVersion);
    } else {
      EXPECT_EQ(Station::Versions(Partition::A)["totalVersion"]["softVersion"], "S4.0.9.10");
    }
  }
};

class PowerCut : public PowerCutTest, public ::testing::WithParamInterface<Cut> {};

TEST_P(PowerCut, LeavesOnePartitionAndTheNextUpgradeSucceeds) {
  const Cut& cut = GetParam();
  StationOptions options;
  options.pauseDivisor = 100;
  Station station(options);
  ASSERT_TRUE(station.Start());
  const Package package = PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build();
  if (cut.after) {
    station.commands().KillAfter(cut.pattern, cut.nth);
  } else {
    station.commands().KillBefore(cut.pattern, cut.nth);
  }
  station.InsertStick(package);
  ASSERT_TRUE(station.daemon().WaitExit(kPatience).has_value())
      << "the command was never run: " << cut.pattern;
  station.PullStick();
  ASSERT_TRUE(station.PowerCut());
  ExpectConsistent(station, package);
  ExpectUpgrade(station, PackageBuilder("S4.2.0.1").AllSocParts("V3.0.0.01").Build());
}

/// A cut at the instant at which a file that decides the next boot changes.
struct Change {
  const char* name;
  const char* directory;
  const char* file;
  std::uint32_t event;  ///< of inotify
};

void PrintTo(const Change& change, std::ostream* out) {
  *out << change.name;
}

const Change kChanges[] = {
    {"VersionFileWritten", "/app_B/quorvalen", "version.json", IN_MOVED_TO},
    {"OldMarkerDeleted", "/qv_config", "parta.ini", IN_DELETE},
    {"NewMarkerWritten", "/qv_config", "partb.ini", IN_MOVED_TO},
};

class PowerCutAtChange : public PowerCutTest, public ::testing::WithParamInterface<Change> {
 protected:
  // Returns when the change has happened.
  static void WaitForChange(const Change& change) {
    const int watch = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, change.directory, change.event), 0);
    for (alignas(inotify_event) char buffer[4096]; true;) {
      const ssize_t length = read(watch, buffer, sizeof buffer);
      ASSERT_GT(length, 0);
      for (ssize_t at = 0; at < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        if (std::strcmp(event->name, change.file) == 0) {
          close(watch);
          return;
        }
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
  }
};

TEST_P(PowerCutAtChange, LeavesOnePartitionAndTheNextUpgradeSucceeds) {
  StationOptions options;
  options.pauseDivisor = 100;
  Station station(options);
  ASSERT_TRUE(station.Start());
  const Package package = PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build();
  // The parts are in place; what is left is to write them down and to switch.
  station.commands().Hold("tar zxf *");
  station.InsertStick(package);
  ASSERT_TRUE(station.commands().WaitForStart("tar zxf *", kPatience));
  ExpectLog("upgrade succed type:1");
  station.commands().Release("tar zxf *");
  WaitForChange(GetParam());
  station.daemon().Kill();
  station.PullStick();
  ASSERT_TRUE(station.PowerCut());
  ExpectConsistent(station, package);
  ExpectUpgrade(station, PackageBuilder("S4.2.0.1").AllSocParts("V3.0.0.01").Build());
}

INSTANTIATE_TEST_SUITE_P(Of, PowerCutAtChange, ::testing::ValuesIn(kChanges),
                         [](const auto& row) { return row.param.name; });

// The daemon alone is killed: it starts again on what is mounted, its own mount of the root file system among
// it.
TEST_F(PowerCutTest, KilledDaemonStartsAgainOnTheSameMounts) {
  StationOptions options;
  options.pauseDivisor = 100;
  Station station(options);
  ASSERT_TRUE(station.Start());
  station.commands().KillBefore("tar zxf *");
  station.InsertStick(PackageBuilder("S4.1.0.1").AllSocParts("V2.0.0.01").Build());
  ASSERT_TRUE(station.daemon().WaitExit(kPatience).has_value());
  station.PullStick();
  station.panel().Clear();
  ASSERT_TRUE(station.Start());
  ASSERT_TRUE(station.panel().WaitForCmd(200, kPatience).has_value());
  EXPECT_FALSE(Exists("/firmware/upload/page"));
  ExpectUpgrade(station, PackageBuilder("S4.2.0.1").AllSocParts("V3.0.0.01").Build());
}

INSTANTIATE_TEST_SUITE_P(At, PowerCut, ::testing::ValuesIn(kCuts),
                         [](const auto& row) { return row.param.name; });

// Which portable part has its turn when, and whose storage a node is.
#include "UpgradePp/PpDevices.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Event = PpDevices::Event;
using std::chrono::seconds;

namespace {

constexpr bool kInSync = true;
constexpr bool kOutOfSync = false;
const PpDevices::Time kStart = PpDevices::Time() + seconds(1000);

// Plugs a part in, in sync, and gives it the turn that it asks for.
void PlugIn(PpDevices& devices, const std::string& device, PpDevices::Time now = kStart) {
  ASSERT_EQ(devices.Report({device, true}, kInSync, now), Event::Handle);
  devices.AddTurn(device, now);
}

// Takes all turns there are.
std::vector<std::string> Turns(PpDevices& devices) {
  std::vector<std::string> turns;
  while (devices.NextDue()) {
    devices.TakeNext();
    turns.push_back(devices.Current());
  }
  return turns;
}

}  // namespace

TEST(PpDevices, SameEventTwiceCountsOnce) {
  PpDevices devices;
  for (const bool plugged : {true, false}) {
    EXPECT_EQ(devices.Report({"/dev/ttyUSB1", plugged}, kInSync, kStart), Event::Handle);
    EXPECT_EQ(devices.Report({"/dev/ttyUSB1", plugged}, kInSync, kStart), Event::NoChange);
    EXPECT_EQ(devices.AnyPresent(), plugged);
  }
  EXPECT_EQ(devices.Report({"/dev/ttyUSB2", true}, kInSync, kStart), Event::Handle);
}

TEST(PpDevices, HeldBackEventCountsOnceWhenItIsToldAgainInSync) {
  PpDevices devices;
  PlugIn(devices, "/dev/ttyUSB1");
  EXPECT_EQ(devices.Report({"/dev/ttyUSB1", true}, kOutOfSync, kStart), Event::NoChange);
  EXPECT_EQ(devices.Report({"/dev/ttyUSB2", true}, kOutOfSync, kStart), Event::HeldBack);
  EXPECT_EQ(devices.Report({"/dev/ttyUSB2", true}, kOutOfSync, kStart), Event::NoChange);
  // Out and in again: what counts is the last state.
  EXPECT_EQ(devices.Report({"/dev/ttyUSB3", true}, kInSync, kStart), Event::Handle);
  EXPECT_EQ(devices.Report({"/dev/ttyUSB3", false}, kOutOfSync, kStart), Event::HeldBack);
  EXPECT_EQ(devices.Report({"/dev/ttyUSB3", true}, kOutOfSync, kStart), Event::HeldBack);

  const std::vector<Event> wanted = {Event::NoChange, Event::Handle, Event::Handle};
  const auto known = devices.Known();
  ASSERT_EQ(known.size(), wanted.size());
  for (size_t i = 0; i < wanted.size(); ++i) {
    EXPECT_EQ(devices.Report(known[i], kInSync, kStart), wanted[i]) << known[i].strDevFile;
    EXPECT_EQ(devices.Report(known[i], kInSync, kStart), Event::NoChange) << known[i].strDevFile;
  }
}

TEST(PpDevices, PartsHaveTheirTurnsInOrderAndOneThatWentHasNone) {
  PpDevices devices;
  for (const char* device : {"/dev/ttyUSB3", "/dev/ttyUSB1", "/dev/ttyACM0"}) PlugIn(devices, device);
  EXPECT_EQ(devices.Report({"/dev/ttyUSB1", false}, kInSync, kStart), Event::Handle);
  EXPECT_EQ(Turns(devices), (std::vector<std::string>{"/dev/ttyUSB3", "/dev/ttyACM0"}));
  EXPECT_EQ(devices.Current(), "/dev/ttyACM0");
}

TEST(PpDevices, FreshPartComesBeforeOneThatIsAskedAgain) {
  PpDevices devices;
  devices.AddTurn("/dev/ttyACM0", kStart + seconds(5));
  EXPECT_EQ(devices.NextDue(), kStart + seconds(5));
  PlugIn(devices, "/dev/ttyACM1", kStart + seconds(1));
  EXPECT_EQ(Turns(devices), (std::vector<std::string>{"/dev/ttyACM1", "/dev/ttyACM0"}));
}

TEST(PpDevices, StorageOfAPartIsThePartitionThatCameWithIt) {
  PpDevices devices;
  devices.StorageCame("/dev/sda", kStart - seconds(60));  // a stick
  devices.StorageCame("/dev/sda1", kStart - seconds(60));
  PlugIn(devices, "/dev/ttyACM0");
  devices.TakeNext();
  EXPECT_EQ(devices.CurrentStorage(), "");
  EXPECT_FALSE(devices.IsStorageAmbiguous());
  devices.StorageCame("/dev/sdb", kStart - seconds(1));
  EXPECT_EQ(devices.CurrentStorage(), "/dev/sdb");
  for (const char* node : {"/dev/sdb10", "/dev/sdb2", "/dev/sdb3"}) {
    devices.StorageCame(node, kStart + seconds(1));
  }
  EXPECT_EQ(devices.CurrentStorage(), "/dev/sdb2");
  for (const char* node : {"/dev/sdb10", "/dev/sdb2", "/dev/sdb3", "/dev/sdb"}) devices.StorageWent(node);
  EXPECT_EQ(devices.CurrentStorage(), "");
  EXPECT_TRUE(devices.AnyStorage());
}

// Firmware on another part's storage, or on somebody's stick, is worse than none.
TEST(PpDevices, StorageThatMayBeAnothersIsNobodys) {
  PpDevices devices;
  PlugIn(devices, "/dev/ttyACM0");
  PlugIn(devices, "/dev/ttyACM1", kStart + seconds(1));
  devices.TakeNext();
  devices.StorageCame("/dev/sdb", kStart + seconds(2));
  EXPECT_TRUE(devices.IsStorageAmbiguous()) << "the other part's, whose turn comes later";
  EXPECT_EQ(devices.CurrentStorage(), "");
  EXPECT_EQ(devices.Report({"/dev/ttyACM1", false}, kInSync, kStart + seconds(3)), Event::Handle);
  EXPECT_EQ(devices.CurrentStorage(), "/dev/sdb");
  devices.StorageCame("/dev/sdc1", kStart + seconds(3));
  EXPECT_TRUE(devices.IsStorageAmbiguous());
  devices.StorageWent("/dev/sdc1");

  // One that comes while another is upgraded, which then restarts.
  PlugIn(devices, "/dev/ttyACM2", kStart + seconds(30));
  devices.StorageCame("/dev/sdc", kStart + seconds(31));
  devices.StorageWent("/dev/sdb");
  devices.StorageCame("/dev/sdb", kStart + seconds(60));
  devices.TakeNext();
  EXPECT_EQ(devices.CurrentStorage(), "/dev/sdc");
}

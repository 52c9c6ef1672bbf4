// The three objects that everybody on a package's way shares: battery, claim, version record.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/PackageClaim.h"

TEST(BatteryLevel, IsLowFromZeroToFivePercentWhileLimited) {
  BatteryLevel battery;
  EXPECT_EQ(battery.GetBattery(), 255);
  EXPECT_FALSE(battery.IsBatteryLow());
  for (int level = 0; level <= 5; ++level) {
    battery.SetBattery(level);
    EXPECT_TRUE(battery.IsBatteryLow()) << level;
  }
  for (const int level : {-1, 6, 100, 255}) {
    battery.SetBattery(level);
    EXPECT_FALSE(battery.IsBatteryLow()) << level;
  }
  battery.SetBattery(0);
  battery.SwitchBatteryLimited(false);
  EXPECT_FALSE(battery.IsBatteryLow());
}

TEST(PackageClaim, LetsOnePackageThroughAtATime) {
  PackageClaim claim;
  std::atomic<int> taken{0};
  std::vector<std::thread> sources(8);
  for (std::thread& source : sources) {
    source = std::thread([&] {
      if (claim.TryClaim()) ++taken;
    });
  }
  for (std::thread& source : sources) source.join();
  EXPECT_EQ(taken, 1);
  claim.ReleaseClaim();
  EXPECT_TRUE(claim.TryClaim());
}

TEST(DeviceVersions, KeepsTheInstalledVersionBesideThePackages) {
  const TempDirectory directory;
  DeviceVersions versions;
  EXPECT_FALSE(versions.IsLoaded());
  versions.Load(directory / "version.json");
  EXPECT_TRUE(versions.IsLoaded());
  versions.SetNewOverallVersion({"S9.9.9.99", "H200"});
  EXPECT_EQ(versions.getAllVersion().m_newOverallVer.m_softVersion, "S9.9.9.99");
  EXPECT_EQ(versions.getAllVersion().m_oldOverallVer.m_softVersion, "S4.0.9.10");
}

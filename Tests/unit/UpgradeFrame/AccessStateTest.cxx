// The three objects that everybody on a package's way shares: battery, claim, version record.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
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

namespace {

void SetMcu(AllVersion& versions) {
  versions.m_SubmodulesVer.m_mcuVersion = "V1.2.3.04";
}

}  // namespace

TEST(DeviceVersions, KeepsAFileThatCannotBeReadAsItIs) {
  const TempDirectory directory;
  const std::string file = directory / "version.json";
  const std::string target = directory / "nowhere";
  for (const char* content : {"", "{\"totalVersion\":", "[]", "a link"}) {
    std::filesystem::remove(file);
    const bool isLink = std::string(content) == "a link";
    isLink ? std::filesystem::create_symlink(target, file) : WriteText(file, content);
    DeviceVersions versions;
    versions.Load(file);
    versions.NoteVersion(SetMcu);
    versions.SetVersion(SetMcu);
    EXPECT_EQ(std::filesystem::is_symlink(file), isLink);
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_TRUE(isLink || ReadText(file) == content) << ReadText(file);
    EXPECT_EQ(versions.getAllVersion().m_SubmodulesVer.m_mcuVersion, "V1.2.3.04") << "what is reported";
    EXPECT_EQ(versions.getAllVersion().m_oldOverallVer.m_softVersion, "S4.0.9.10");
    EXPECT_EQ(versions.getAllVersion().m_oldOverallVer.m_hardVersion, "H200");
  }
}

TEST(DeviceVersions, MakesAMissingFileButNotForAChipsAnswerAndKeepsTheRest) {
  const TempDirectory directory;
  const std::string file = directory / "version.json";
  DeviceVersions versions;
  versions.Load(file);
  versions.NoteVersion(SetMcu);
  EXPECT_EQ(directory.EntryCount(), 0U);
  versions.SetVersion([](AllVersion& record) { record.m_SubmodulesVer.m_fpgaVersion = "V2.0.0.01"; });
  EXPECT_NE(ReadText(file).find("V1.2.3.04"), std::string::npos);
  EXPECT_NE(ReadText(file).find("S4.0.9.10"), std::string::npos);

  WriteText(file, R"({"totalVersion":{"softVersion":"S5.0.0.01"},"otaList":["kept"]})");
  DeviceVersions read;
  read.Load(file);
  read.NoteVersion(SetMcu);
  for (const char* part : {"V1.2.3.04", "S5.0.0.01", "kept"}) {
    EXPECT_NE(ReadText(file).find(part), std::string::npos) << part;
  }
}

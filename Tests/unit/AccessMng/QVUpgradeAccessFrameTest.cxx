// The rules that the access frame keeps for all sources: battery, claim, versions of the package under way.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "AccessTestSupport.h"

TEST(QVUpgradeAccessFrame, BatteryIsLowFromZeroToFivePercentWhileLimited) {
  const AccessState access;
  EXPECT_EQ(access->GetBattery(), 255);
  EXPECT_FALSE(access->IsBatteryLow());
  for (int level = 0; level <= 5; ++level) {
    access->SetBattery(level);
    EXPECT_TRUE(access->IsBatteryLow()) << level;
  }
  for (const int level : {-1, 6, 100, 255}) {
    access->SetBattery(level);
    EXPECT_FALSE(access->IsBatteryLow()) << level;
  }
  access->SetBattery(0);
  access->SwitchBatteryLimited(false);
  EXPECT_FALSE(access->IsBatteryLow());
}

TEST(QVUpgradeAccessFrame, LetsOnePackageThroughAtATime) {
  const AccessState access;
  std::atomic<int> taken{0};
  std::vector<std::thread> sources(8);
  for (std::thread& source : sources) {
    source = std::thread([&] {
      if (access->TryClaim()) ++taken;
    });
  }
  for (std::thread& source : sources) source.join();
  EXPECT_EQ(taken, 1);
  access->ReleaseClaim();
  EXPECT_TRUE(access->TryClaim());
}

TEST(QVUpgradeAccessFrame, KeepsTheInstalledVersionBesideThePackages) {
  const AccessState access;
  const OTAVersion installed = access->getAllVersion().m_oldOverallVer;
  access->SetNewOverallVersion({"S9.9.9.99", "H200"});
  EXPECT_EQ(access->getAllVersion().m_newOverallVer.m_softVersion, "S9.9.9.99");
  EXPECT_EQ(access->getAllVersion().m_oldOverallVer.m_softVersion, installed.m_softVersion);
}

TEST(QVUpgradeAccessFrame, RefusesANoticeThatIsNotItsBusiness) {
  const AccessState access;
  QVUpgradeAccessFrame* self = QVUpgradeAccessFrame::getAccessFrame();
  EXPECT_EQ(QVUpgradeAccessFrame::AccessCallback(UP_OTA, self), -1);
  EXPECT_FALSE(access->GetStartUpgrade());
}

TEST(QVUpgradeAccessFrame, NamesEveryPageTypeAfterItsDirectory) {
  const AccessState access;
  const UpgradeTypeNames names = access->getUpgradeTypeName();
  EXPECT_EQ(names.size(), 7U);
  for (const auto& [name, entry] : names) EXPECT_EQ(name, entry.first);
  EXPECT_EQ(names.at("rootfs").second, UP_ROOTFS);
  EXPECT_EQ(names.at("uac").second, UP_UAC);
}

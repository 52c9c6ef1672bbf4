// The upgraders of the SoC's file systems as the frame sees them: one failure report each, nothing written
// beside an unmounted partition, one callback. What they write is seen on a virtual station.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "../Serial/SerialTestKit.h"
#include "BSW/ErrorNum/ErrorNum.h"
#include "UpgradeFrame/SubmoduleFactory.h"

namespace {

// What upgraders report on their threads.
using Reports = Inbox<std::pair<UPGRADETYPE, int>>;

int Take(int percent, UPGRADETYPE type, void* ctx) {
  static_cast<Reports*>(ctx)->Put({type, percent});
  return 7;
}

const UPGRADETYPE kSocTypes[] = {UP_APP, UP_SYSTEM, UP_ROOTFS};

TEST(SocUpgraderTest, UnknownPartitionFailsOnceWithTheUpgradersOwnType) {
  const size_t recorded = ErrorNum::instance()->Records().size();
  Reports reports;
  std::vector<std::shared_ptr<IQVUpgrade>> upgraders;
  for (const UPGRADETYPE type : kSocTypes) {
    auto upgrader = SubmoduleFactory::Create(type);
    ASSERT_NE(upgrader, nullptr);
    QVUpgradingInfo info;
    info.m_flashPartition = "/app_C";
    ASSERT_TRUE(upgrader->RegisterUploadPrecentCallback(&Take, &reports));
    ASSERT_TRUE(upgrader->setUpgradeInfo(info));
    ASSERT_TRUE(upgrader->Init());
    EXPECT_TRUE(upgrader->StartUpgrade());
    upgraders.push_back(upgrader);
  }
  const auto failed = reports.Wait(std::size(kSocTypes));
  EXPECT_EQ(std::set(failed.begin(), failed.end()),
            (std::set<std::pair<UPGRADETYPE, int>>{{UP_APP, -1}, {UP_SYSTEM, -1}, {UP_ROOTFS, -1}}));
  for (const auto& upgrader : upgraders) {
    int result = 0;
    upgrader->GetUpgradeStatus(result, 5);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(upgrader->GetFailure().reason, Reason::PartTarget);
    EXPECT_TRUE(upgrader->StartUpgrade()) << "a second start is harmless";
  }
  for (const auto& upgrader : upgraders) upgrader->RequestStop();
  for (const auto& upgrader : upgraders) EXPECT_TRUE(upgrader->CleanUp());
  EXPECT_EQ(reports.Wait(0).size(), std::size(kSocTypes)) << "one report each";
  EXPECT_EQ(ErrorNum::instance()->Records().size(), recorded + std::size(kSocTypes));
}

TEST(SocUpgraderTest, KeepsTheFirstCallbackUntilItIsRemoved) {
  const auto upgrader = SubmoduleFactory::Create(UP_APP);
  Reports first;
  Reports second;
  EXPECT_EQ(upgrader->UploadPrecent(1), 0) << "nobody listens";
  EXPECT_FALSE(upgrader->RegisterUploadPrecentCallback(nullptr, &first));
  EXPECT_TRUE(upgrader->RegisterUploadPrecentCallback(&Take, &first));
  EXPECT_FALSE(upgrader->RegisterUploadPrecentCallback(&Take, &second));
  EXPECT_EQ(upgrader->UploadPrecent(1), 7);
  EXPECT_EQ(first.Wait(1).size(), 1U);
  EXPECT_FALSE(upgrader->UnregisterUploadPrecentCallback(&Take, &second));
  EXPECT_TRUE(upgrader->UnregisterUploadPrecentCallback(&Take, &first));
  EXPECT_FALSE(upgrader->UnregisterUploadPrecentCallback(&Take, &first));
}

TEST(SocUpgraderTest, PartThatNeverBeganHasNotSucceeded) {
  const auto upgrader = SubmoduleFactory::Create(UP_ROOTFS);
  for (const int seconds : {0, 1}) {
    int result = 0;
    upgrader->GetUpgradeStatus(result, seconds);
    EXPECT_EQ(result, -1);
  }
  EXPECT_TRUE(upgrader->CleanUp());
}

}  // namespace

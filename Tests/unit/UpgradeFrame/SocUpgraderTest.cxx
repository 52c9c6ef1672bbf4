// The upgraders of the SoC's file systems as the frame sees them: one failure report each, nothing written
// beside an unmounted partition, one callback. What they write is seen on a virtual station.
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BSW/ErrorNum/ErrorNum.h"
#include "UpgradeFrame/SubmoduleFactory.h"

namespace {

// Collects what upgraders report on their threads.
class Reports {
 public:
  static int Take(int percent, UPGRADETYPE type, void* ctx) {
    auto* self = static_cast<Reports*>(ctx);
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_reports[type].push_back(percent);
    self->m_cond.notify_all();
    return 7;
  }
  bool WaitForTypes(size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(20), [&] { return m_reports.size() == count; });
  }
  std::map<UPGRADETYPE, std::vector<int>> All() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::map<UPGRADETYPE, std::vector<int>> m_reports;
};

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
    ASSERT_TRUE(upgrader->RegisterUploadPrecentCallback(&Reports::Take, &reports));
    ASSERT_TRUE(upgrader->setUpgradeInfo(info));
    ASSERT_TRUE(upgrader->Init());
    EXPECT_TRUE(upgrader->StartUpgrade());
    upgraders.push_back(upgrader);
  }
  ASSERT_TRUE(reports.WaitForTypes(std::size(kSocTypes)));
  for (const auto& upgrader : upgraders) {
    int result = 0;
    upgrader->GetUpgradeStatus(result, 5);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(upgrader->GetFailure().reason, Reason::PartTarget);
    EXPECT_TRUE(upgrader->StartUpgrade()) << "a second start is harmless";
  }
  for (const auto& upgrader : upgraders) upgrader->RequestStop();
  for (const auto& upgrader : upgraders) EXPECT_TRUE(upgrader->CleanUp());
  for (const auto& [type, percents] : reports.All()) EXPECT_EQ(percents, std::vector<int>({-1})) << type;
  EXPECT_EQ(ErrorNum::instance()->Records().size(), recorded + std::size(kSocTypes));
}

TEST(SocUpgraderTest, KeepsTheFirstCallbackUntilItIsRemoved) {
  const auto upgrader = SubmoduleFactory::Create(UP_APP);
  Reports first;
  Reports second;
  EXPECT_EQ(upgrader->UploadPrecent(1), 0) << "nobody listens";
  EXPECT_FALSE(upgrader->RegisterUploadPrecentCallback(nullptr, &first));
  EXPECT_TRUE(upgrader->RegisterUploadPrecentCallback(&Reports::Take, &first));
  EXPECT_FALSE(upgrader->RegisterUploadPrecentCallback(&Reports::Take, &second));
  EXPECT_EQ(upgrader->UploadPrecent(1), 7);
  EXPECT_EQ(first.All().size(), 1U);
  EXPECT_FALSE(upgrader->UnregisterUploadPrecentCallback(&Reports::Take, &second));
  EXPECT_TRUE(upgrader->UnregisterUploadPrecentCallback(&Reports::Take, &first));
  EXPECT_FALSE(upgrader->UnregisterUploadPrecentCallback(&Reports::Take, &first));
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

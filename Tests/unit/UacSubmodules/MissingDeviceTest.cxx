// The upgraders of the USB audio chip and of the FPGA where neither device is there: one failure report each,
// no matter how often they are started.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/FileUtils.h"
#include "UpgradeFrame/SubmoduleFactory.h"
#include "UpgradePackage/Parts.h"

namespace {

struct FirstReport {
  std::promise<int> value;
  std::atomic<int> count{0};
  static int Take(int percent, UPGRADETYPE /*type*/, void* ctx) {
    auto* self = static_cast<FirstReport*>(ctx);
    if (self->count++ == 0) self->value.set_value(percent);
    return 0;
  }
};

TEST(MissingDeviceTest, IsOneFailure) {
  for (const UPGRADETYPE type : {UP_UAC, UP_FPGA}) {
    const char* const device = Parts::Find(type)->target[Parts::kSideA];
    ASSERT_FALSE(XFilePathExists(device)) << "not to be run where a real " << device << " is";
  }
  const TempDirectory directory;
  QVUpgradingInfo info;
  info.m_upgradeFilePath = directory / "image";
  WriteText(info.m_upgradeFilePath, "a sound image");
  std::map<UPGRADETYPE, FirstReport> reports;
  std::map<UPGRADETYPE, std::shared_ptr<IQVUpgrade>> upgraders;
  for (const UPGRADETYPE type : {UP_UAC, UP_FPGA}) {
    const std::shared_ptr<IQVUpgrade> upgrader = upgraders[type] = SubmoduleFactory::Create(type);
    ASSERT_NE(upgrader, nullptr);
    ASSERT_TRUE(upgrader->RegisterUploadPrecentCallback(&FirstReport::Take, &reports[type]));
    ASSERT_TRUE(upgrader->setUpgradeInfo(info));
    ASSERT_TRUE(upgrader->Init());
    for (int starts = 0; starts < 3; ++starts) EXPECT_TRUE(upgrader->StartUpgrade());
  }
  for (auto& [type, upgrader] : upgraders) {
    auto first = reports[type].value.get_future();
    ASSERT_EQ(first.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(first.get(), -1);
    EXPECT_EQ(upgrader->GetFailure().reason, Reason::PartDevice);
    EXPECT_TRUE(upgrader->StartUpgrade());
    int result = 0;
    upgrader->GetUpgradeStatus(result, 2);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(upgrader->CleanUp());
    EXPECT_EQ(reports[type].count, 1) << type;
  }
}

}  // namespace

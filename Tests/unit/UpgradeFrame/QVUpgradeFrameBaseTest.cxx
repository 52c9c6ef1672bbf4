// The frame at rest: who may start it, the version broadcast, the stop. What it does once started acts on the
// whole unit and is seen on a virtual station.
#include "UpgradeFrame/QVUpgradeFrameBase.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/Log/CLog.h"

namespace {

class QVUpgradeFrameBaseTest : public testing::Test {
 protected:
  // The frame clears its page directory and reads its markers at fixed places.
  void SetUp() override {
    for (const char* path : {"/firmware", "/qv_config"}) {
      ASSERT_FALSE(std::filesystem::exists(path)) << "not to be run on a base station: it has " << path;
    }
  }

  const TempDirectory directory;
  DeviceVersions versions;
  PackageClaim claim;
};

TEST_F(QVUpgradeFrameBaseTest, TakesOnePackageAndOnlyWithVersionsLoaded) {
  QVUpgradeFrameBase frame(versions, claim);  // without its thread: a package that is taken stays queued
  EXPECT_EQ(frame.getCurrentPatten(), "/app_A");
  EXPECT_FALSE(frame.startUpgrade(UP_UDISK, {}));
  versions.Load(directory / "version.json");
  EXPECT_TRUE(frame.startUpgrade(UP_UDISK, {}));
  EXPECT_FALSE(frame.startUpgrade(UP_UDISK, {}));
}

TEST_F(QVUpgradeFrameBaseTest, BroadcastWaitsForTheVersionsAndEndsAtTheStop) {
  using Clock = std::chrono::steady_clock;
  ASSERT_TRUE(CLog::instance()->Init(directory.Path().c_str(), false));
  const auto isSent = [this] {
    return ReadText(directory / "system.log").find("sendUiMsg:") != std::string::npos;
  };
  QVUpgradeFrameBase frame(versions, claim);
  ASSERT_TRUE(frame.Init());
  EXPECT_FALSE(isSent());
  versions.Load(directory / "version.json");
  for (const auto end = Clock::now() + std::chrono::seconds(20); !isSent() && Clock::now() < end;) XSleep(20);
  EXPECT_TRUE(isSent());
  const auto begin = Clock::now();
  frame.RequestStop();
  EXPECT_TRUE(frame.CleanUp());
  EXPECT_TRUE(frame.CleanUp());
  EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(1500)) << "the pause was not ended";
  CLog::instance()->CleanUp();
}

}  // namespace

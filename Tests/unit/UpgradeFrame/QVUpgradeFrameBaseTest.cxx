// The frame at rest: who may start it, the version broadcast, the stop. What it does once started acts on the
// whole unit and is seen on a virtual station.
#include "UpgradeFrame/QVUpgradeFrameBase.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>

namespace {

class QuietAccess : public IUpgradeAccess {
 public:
  UpgradeTypeNames getUpgradeTypeName() override { return {}; }
  AllVersion getAllVersion() override { return {}; }
  void SetVersion(const std::function<void(AllVersion&)>& /*change*/) override {}
  bool SendVersionUI() override {
    if (!m_bSent.exchange(true)) sent.set_value();
    return true;
  }
  void setmStartUpgrade(bool /*started*/) override {}

  std::promise<void> sent;

 private:
  std::atomic<bool> m_bSent{false};
};

class QVUpgradeFrameBaseTest : public testing::Test {
 protected:
  // The frame clears its page directory and reads its markers at fixed places.
  void SetUp() override {
    for (const char* path : {"/firmware", "/qv_config"}) {
      ASSERT_FALSE(std::filesystem::exists(path)) << "not to be run on a base station: it has " << path;
    }
  }
};

TEST_F(QVUpgradeFrameBaseTest, TakesOnePackageAndOnlyWithItsAccessSide) {
  QVUpgradeFrameBase frame;  // without its thread: a package that is taken stays queued
  EXPECT_EQ(frame.getCurrentPatten(), "/app_A");
  EXPECT_FALSE(frame.startUpgrade(UP_UDISK, {}));
  QuietAccess access;
  frame.setAccess(&access);
  EXPECT_TRUE(frame.startUpgrade(UP_UDISK, {}));
  EXPECT_FALSE(frame.startUpgrade(UP_UDISK, {}));
}

TEST_F(QVUpgradeFrameBaseTest, BroadcastWaitsForTheAccessSideAndEndsAtTheStop) {
  QuietAccess access;
  QVUpgradeFrameBase frame;
  ASSERT_TRUE(frame.Init());
  frame.setAccess(&access);
  ASSERT_EQ(access.sent.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const auto begin = std::chrono::steady_clock::now();
  frame.RequestStop();
  EXPECT_TRUE(frame.CleanUp());
  EXPECT_TRUE(frame.CleanUp());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500))
      << "the pause was not ended";
}

}  // namespace

// What reaches the frame of an upgrader's progress.
#include "UpgradeFrame/UpgraderBase.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

int Take(int percent, UPGRADETYPE type, void* ctx) {
  EXPECT_EQ(type, UP_MCU);
  static_cast<std::vector<int>*>(ctx)->push_back(percent);
  return 5;
}

class Upgrader final : public UpgraderBase {
 public:
  explicit Upgrader(int resultWithoutCallback) : UpgraderBase(UP_MCU, resultWithoutCallback) {}
  using UpgraderBase::_ReportSteps;
  bool Init() override { return true; }
  bool CleanUp() override { return true; }
  bool StartUpgrade() override { return true; }
  void RequestStop() override {}
};

TEST(UpgraderBaseTest, StepsAddUpToTheirBoundAndNothingFollowsTheEnd) {
  for (const size_t total : {1U, 7U, 20U, 5000U}) {
    std::vector<int> reports;
    Upgrader upgrader(0);
    ASSERT_TRUE(upgrader.RegisterUploadPrecentCallback(&Take, &reports));
    for (size_t done = 0; done <= total; ++done) upgrader._ReportSteps(done, total);
    upgrader._ReportSteps(0, total);
    upgrader._ReportSteps(1, 0);
    for (const int report : reports) EXPECT_GE(report, 1);
    EXPECT_EQ(std::accumulate(reports.begin(), reports.end(), 0), UpgraderBase::kMaxIncrements) << total;
    EXPECT_EQ(upgrader.UploadPrecent(-1), 5);
    const size_t count = reports.size();
    upgrader.UploadPrecent(-1);
    upgrader.UploadPrecent(100);
    EXPECT_EQ(reports.size(), count);
  }
}

TEST(UpgraderBaseTest, WhatNobodyHeardIsNotTheEnd) {
  std::vector<int> reports;
  Upgrader upgrader(-1);
  EXPECT_EQ(upgrader.UploadPrecent(-1), -1);
  ASSERT_TRUE(upgrader.RegisterUploadPrecentCallback(&Take, &reports));
  EXPECT_EQ(upgrader.UploadPrecent(100), 5);
  EXPECT_EQ(reports, std::vector<int>({100}));
}

}  // namespace

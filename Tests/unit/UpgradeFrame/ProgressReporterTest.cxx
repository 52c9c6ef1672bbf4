// What reaches the frame of an upgrader's progress.
#include "UpgradeFrame/ProgressReporter.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

int Take(int percent, UPGRADETYPE type, void* ctx) {
  EXPECT_EQ(type, UP_MCU);
  static_cast<std::vector<int>*>(ctx)->push_back(percent);
  return 5;
}

TEST(ProgressReporterTest, StepsAddUpToTheirBoundAndNothingFollowsTheEnd) {
  for (const size_t total : {1U, 7U, 20U, 5000U}) {
    std::vector<int> reports;
    ProgressReporter reporter(UP_MCU);
    ASSERT_TRUE(reporter.Register(&Take, &reports));
    for (size_t done = 0; done <= total; ++done) reporter.ReportSteps(done, total);
    reporter.ReportSteps(0, total);
    reporter.ReportSteps(1, 0);
    for (const int report : reports) EXPECT_GE(report, 1);
    EXPECT_EQ(std::accumulate(reports.begin(), reports.end(), 0), ProgressReporter::kMaxIncrements) << total;
    EXPECT_EQ(reporter.Report(-1), 5);
    const size_t count = reports.size();
    reporter.Report(-1);
    reporter.Report(100);
    EXPECT_EQ(reports.size(), count);
  }
}

TEST(ProgressReporterTest, WhatNobodyHeardIsNotTheEnd) {
  std::vector<int> reports;
  ProgressReporter reporter(UP_MCU, -1);
  EXPECT_EQ(reporter.Report(-1), -1);
  ASSERT_TRUE(reporter.Register(&Take, &reports));
  EXPECT_EQ(reporter.Report(100), 5);
  EXPECT_EQ(reports, std::vector<int>({100}));
}

}  // namespace

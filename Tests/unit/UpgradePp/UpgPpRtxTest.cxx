// The upgrader of a portable part's radio module over many runs: each accepted run reports once, and only
// itself. What goes over the line is seen with the exchange that it shares.
#include "UpgradePp/UpgPpRtx/UpgPpRtx.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../RtxSubmodules/ScriptedModule.h"

namespace {

using Result = std::pair<bool, std::string>;

constexpr double kWait = 3.0;    // s, for an answer
constexpr double kAtOnce = 2.5;  // s

class UpgPpRtxTest : public testing::Test {
 protected:
  UpgPpRtxTest() {
    rtx.RegUpgRxResultCallBack([this](bool success, const std::string& message) {
      if (onResult) onResult();
      results.Put({success, message});
    });
    EXPECT_TRUE(rtx.Init());
  }

  bool Start(const std::string& directory) { return rtx.StartUpgrade(directory, module.Device()); }
  bool StartAgain(const std::string& directory) {
    return StartNext([&] { return Start(directory); });
  }
  // What the last of `count` runs reported.
  Result LastOf(size_t count) {
    const std::vector<Result> all = results.Wait(count);
    EXPECT_EQ(all.size(), count);
    return all.back();
  }

  ModuleFiles files;
  ScriptedModule module;
  std::function<void()> onResult;  // on the callback's thread
  Inbox<Result> results;
  UpgPpRtx rtx;
};

TEST_F(UpgPpRtxTest, UpgradesAgainAndAgainWhateverHappenedBefore) {
  ASSERT_TRUE(Start(files.Path()));
  module.CallUntilAnswered();
  module.StartFlashLoader();
  module.ServeFlash(2);
  EXPECT_EQ(LastOf(1), Result(true, ""));

  ASSERT_TRUE(StartAgain(files / "missing"));
  EXPECT_EQ(LastOf(2), Result(false, "failed in Init"));

  ASSERT_TRUE(StartAgain(files.Path()));
  module.CallUntilAnswered();
  module.TakePreLoader();
  EXPECT_FALSE(Start(files.Path())) << "one run at a time";
  rtx.StopUpgrad();
  EXPECT_EQ(LastOf(3), Result(false, "stopped in DlPreLoader"));

  module.flash.clear();
  ASSERT_TRUE(StartAgain(files.Path()));
  module.CallUntilAnswered();
  module.StartFlashLoader();
  module.ServeFlash(2);
  EXPECT_EQ(LastOf(4), Result(true, ""));
  EXPECT_EQ(module.flash.at(0x2000), 4);
}

TEST_F(UpgPpRtxTest, SilentOrVanishedModuleFailsAfterItsWait) {
  ASSERT_TRUE(Start(files.Path()));
  EXPECT_GE(SecondsOf([&] { EXPECT_EQ(LastOf(1), Result(false, "failed in EnterBoot")); }), kWait);
  ASSERT_TRUE(StartAgain(files.Path()));
  module.CallUntilAnswered();
  module.StartFlashLoader();
  module.ReceiveRequest();
  module.Unplug();
  EXPECT_EQ(LastOf(2), Result(false, "failed in WriteCfgOfFlash"));
  ASSERT_TRUE(StartAgain(files.Path()));
  EXPECT_LT(SecondsOf([&] { LastOf(3); }), kAtOnce) << "there is nothing to wait for";
}

// A run that is stopped before its thread has taken it up is a run all the same.
TEST_F(UpgPpRtxTest, StopRightAfterTheStartFailsThatRunAlone) {
  for (size_t run = 1; run <= 10; ++run) {
    ASSERT_TRUE(StartAgain(files.Path()));
    rtx.StopUpgrad();
    EXPECT_LT(SecondsOf([&] { EXPECT_EQ(LastOf(run).second.rfind("stopped in ", 0), 0U); }), kAtOnce);
  }
  StartAgain(files.Path());
  module.CallUntilAnswered();
  module.Receive(3);
}

TEST_F(UpgPpRtxTest, StartsAndStopsThatCrossReportEveryRunOnce) {
  std::atomic<bool> crossing{true};
  std::thread stopper([&] {
    while (crossing) rtx.StopUpgrad();
  });
  constexpr size_t kRuns = 15;
  for (size_t run = 1; run <= kRuns; ++run) {
    EXPECT_TRUE(StartAgain(files.Path()));
    LastOf(run);
  }
  crossing = false;
  stopper.join();
  ASSERT_TRUE(StartAgain(files / "missing"));
  EXPECT_EQ(LastOf(kRuns + 1), Result(false, "failed in Init"));
}

// Else the next run would be taken for over.
TEST_F(UpgPpRtxTest, NoRunBeginsBeforeTheLastOneWasReported) {
  Inbox<bool> reporting;
  Inbox<bool> reported;
  onResult = [&] {
    reporting.Put(true);
    reported.Wait(1);
  };
  ASSERT_TRUE(Start(files / "missing"));
  reporting.Wait(1);
  EXPECT_FALSE(Start(files.Path()));
  rtx.StopUpgrad();  // does not wait for the callback either
  reported.Put(true);
  LastOf(1);
  EXPECT_TRUE(StartAgain(files.Path()));
}

TEST_F(UpgPpRtxTest, RunsOnlyBetweenInitAndCleanUpWhichReportsNothing) {
  ASSERT_TRUE(Start(files.Path()));
  module.CallUntilAnswered();
  module.Receive(3);
  EXPECT_LT(SecondsOf([&] { EXPECT_TRUE(rtx.CleanUp()); }), kAtOnce);
  EXPECT_TRUE(results.Wait(0).empty());
  EXPECT_FALSE(Start(files.Path()));
  rtx.StopUpgrad();
  ASSERT_TRUE(rtx.Init());
  EXPECT_TRUE(rtx.Init());
  EXPECT_FALSE(rtx.StartUpgrade(files.Path(), std::string(64, 'x')));
  ASSERT_TRUE(Start(files / "missing"));
  LastOf(1);
}

}  // namespace

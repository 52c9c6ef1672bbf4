// The order in which parts start, what their reports add up to, and what becomes of a part that cannot run.
#include "UpgradeFrame/SubmoduleRunner.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace {

// What the upgraders of one test share: how each behaves, and what was asked of them.
struct Board {
  std::set<UPGRADETYPE> absent;
  std::set<UPGRADETYPE> initFails;
  std::set<UPGRADETYPE> startFails;
  std::set<UPGRADETYPE> done;  // what GetUpgradeStatus knows of; it leaves the others' result alone
  std::vector<UPGRADETYPE> started;
  std::vector<UPGRADETYPE> asked;
  std::vector<UPGRADETYPE> cleaned;
};

class ScriptedUpgrader : public IQVUpgrade {
 public:
  ScriptedUpgrader(Board& board, UPGRADETYPE type) : m_board(board), m_type(type) {}
  bool Init() override { return m_board.initFails.count(m_type) == 0; }
  bool RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) override {
    m_cb = cb;
    m_ctx = ctx;
    return true;
  }
  bool UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK /*cb*/, void* /*ctx*/) override {
    return true;
  }
  bool CleanUp() override {
    m_board.cleaned.push_back(m_type);
    return true;
  }
  bool StartUpgrade() override {
    m_board.started.push_back(m_type);
    return m_board.startFails.count(m_type) == 0;
  }
  bool FinishUpgrade() override { return true; }
  bool setUpgradeInfo(QVUpgradingInfo /*info*/) override { return true; }
  void GetUpgradeStatus(int& result, int /*seconds*/) override {
    m_board.asked.push_back(m_type);
    if (m_board.done.count(m_type) != 0) result = 0;
  }
  int UploadPrecent(int percent) override { return m_cb(percent, m_type, m_ctx); }
  void RequestStop() override {}
  Failure GetFailure() override { return Fail(Reason::PartAnswer, "silent"); }

 private:
  Board& m_board;
  const UPGRADETYPE m_type;
  UPGRADE_UPLOADPROCESS_CALLBACK m_cb = nullptr;
  void* m_ctx = nullptr;
};

int Report(int progress, UPGRADETYPE type, void* ctx) {
  static_cast<SubmoduleRunner*>(ctx)->ProgressSum(progress, type);
  return 0;
}

using Types = std::vector<UPGRADETYPE>;

SubmoduleRunner::Records RecordsOf(const Types& types) {
  SubmoduleRunner::Records records;
  for (const UPGRADETYPE type : types) {
    records[type].m_modeulesType = type;
    records[type].m_upgradeVersion = "V2.0.0.00";
  }
  return records;
}

class SubmoduleRunnerTest : public testing::Test {
 protected:
  void Upgrade(const Types& types) {
    runner.SetRecords(RecordsOf(types));
    runner.Start();
  }

  Board board;
  SubmoduleRunner runner{
      [this](UPGRADETYPE type) {
        return board.absent.count(type) != 0 ? nullptr : std::make_shared<ScriptedUpgrader>(board, type);
      },
      &Report, &runner};
};

TEST_F(SubmoduleRunnerTest, RadioModulesStartAloneAndTheirEndStartsTheOthers) {
  Upgrade({UP_APP, UP_SYSTEM, UP_FPGA, UP_RTX, UP_UAC, UP_MCU, UP_ROOTFS});
  EXPECT_EQ(board.started, Types({UP_RTX}));
  runner.ProgressSum(10, UP_RTX);
  EXPECT_EQ(board.started, Types({UP_RTX}));
  runner.ProgressSum(100, UP_RTX);
  runner.ProgressSum(-1, UP_RTX);  // too late to start anything a second time
  EXPECT_EQ(board.started, Types({UP_RTX, UP_UAC, UP_MCU, UP_APP, UP_SYSTEM, UP_ROOTFS}));
  runner.ProgressSum(1, UP_UAC);
  EXPECT_EQ(board.started.back(), UP_FPGA);
}

TEST_F(SubmoduleRunnerTest, WithoutRadioModulesAllStartAtOnce) {
  Upgrade({UP_APP, UP_SYSTEM, UP_FPGA, UP_UAC, UP_MCU, UP_ROOTFS});
  EXPECT_EQ(board.started, Types({UP_UAC, UP_APP, UP_SYSTEM, UP_ROOTFS, UP_MCU}));
}

TEST_F(SubmoduleRunnerTest, FpgaStartsInPlaceOfAnAbsentAudioChip) {
  Upgrade({UP_APP, UP_FPGA});
  EXPECT_EQ(board.started, Types({UP_FPGA, UP_APP}));
}

TEST_F(SubmoduleRunnerTest, FinishedPartIsNotStartedAgain) {
  Upgrade({UP_FPGA, UP_UAC});
  runner.ProgressSum(1, UP_UAC);
  runner.ProgressSum(100, UP_FPGA);
  runner.ProgressSum(100, UP_UAC);
  EXPECT_EQ(board.started, Types({UP_UAC, UP_FPGA}));
}

// A part that cannot run counts as failed once, and what waits for it starts all the same.
TEST_F(SubmoduleRunnerTest, PartThatCannotRunFailsAtOnceAndHoldsUpNobody) {
  using Defect = std::set<UPGRADETYPE> Board::*;
  const std::pair<Defect, const char*> defects[] = {{&Board::absent, "part.uac.no-upgrader"},
                                                    {&Board::initFails, "part.uac.init"},
                                                    {&Board::startFails, "part.rtx.start"}};
  for (const auto& [defect, reason] : defects) {
    Board scripted;
    (scripted.*defect) = {UP_RTX, UP_UAC};
    SubmoduleRunner own(
        [&](UPGRADETYPE type) -> std::shared_ptr<IQVUpgrade> {
          if (scripted.absent.count(type) != 0) return nullptr;
          return std::make_shared<ScriptedUpgrader>(scripted, type);
        },
        &Report, &own);
    own.SetRecords(RecordsOf({UP_RTX, UP_UAC, UP_FPGA, UP_APP}));
    own.Start();
    const std::set<UPGRADETYPE> started(scripted.started.begin(), scripted.started.end());
    EXPECT_EQ(started.count(UP_FPGA), 1U);
    EXPECT_EQ(started.count(UP_APP), 1U);
    EXPECT_FALSE(own.AllFinished());
    own.ProgressSum(100, UP_FPGA);
    EXPECT_FALSE(own.AllFinished());
    own.ProgressSum(100, UP_APP);
    EXPECT_TRUE(own.AllFinished());
    EXPECT_EQ(own.Percent(), 50);
    EXPECT_FALSE(own._CheckModeUpgrade());
    EXPECT_EQ(own.FirstFailure().Word(), reason);
  }
}

TEST_F(SubmoduleRunnerTest, FirstEndOfAPartCountsAndLaterReportsAreIgnored) {
  Upgrade({UP_APP, UP_MCU, UP_SYSTEM});
  runner.ProgressSum(20, UP_MCU);
  runner.ProgressSum(25, UP_MCU);
  runner.ProgressSum(0, UP_MCU);
  EXPECT_EQ(runner.Percent(), 15);
  runner.ProgressSum(-1, UP_APP);
  EXPECT_EQ(runner.FirstFailure().Text(), "part.app.answer: silent");
  runner.ProgressSum(-1, UP_APP);
  runner.ProgressSum(100, UP_APP);
  runner.ProgressSum(100, UP_SYSTEM);
  runner.ProgressSum(100, UP_SYSTEM);
  runner.ProgressSum(50, UP_SYSTEM);
  runner.ProgressSum(100, UP_FPGA);  // no part of this upgrade
  EXPECT_EQ(runner.Percent(), 48);
  EXPECT_FALSE(runner.AllFinished());
  runner.ProgressSum(100, UP_MCU);
  EXPECT_TRUE(runner.AllFinished());
}

TEST_F(SubmoduleRunnerTest, PackageWithoutPartsIsDoneAtOnce) {
  Upgrade({});
  EXPECT_TRUE(runner.AllFinished());
  EXPECT_TRUE(runner._CheckModeUpgrade());
  EXPECT_EQ(runner.Percent(), 0);
}

TEST_F(SubmoduleRunnerTest, OnlyPartsKnownToBeDoneSurviveTheTimeOut) {
  board.done = {UP_APP};
  Upgrade({UP_APP, UP_MCU, UP_SYSTEM});
  runner.ProgressSum(100, UP_MCU);  // cannot be asked, but has reported
  runner._QueryProgress();
  EXPECT_EQ(board.asked, Types({UP_APP, UP_SYSTEM}));
  EXPECT_FALSE(runner._CheckModeUpgrade());
  EXPECT_EQ(runner.FirstFailure().Word(), "part.system.timeout");
  runner.ProgressSum(100, UP_SYSTEM);  // too late

  QVUpgradeVersionInfo versions;
  versions.m_systemVersion = "V1.0.0.00";
  EXPECT_FALSE(runner.CollectVersions(versions));
  EXPECT_EQ(versions.m_appVersion, "V2.0.0.00");
  EXPECT_EQ(versions.m_mcuVersion, "V2.0.0.00");
  EXPECT_EQ(versions.m_systemVersion, "V1.0.0.00");
}

TEST_F(SubmoduleRunnerTest, NothingStartsAfterAStop) {
  Upgrade({UP_RTX, UP_APP});
  runner.RequestStop();
  runner.ProgressSum(100, UP_RTX);
  EXPECT_EQ(board.started, Types({UP_RTX}));
  EXPECT_TRUE(runner.CleanUp());
  EXPECT_TRUE(runner.CleanUp());
  EXPECT_EQ(board.cleaned, Types({UP_APP, UP_RTX}));
}

TEST_F(SubmoduleRunnerTest, ReportsOfSeveralThreadsAddUp) {
  constexpr int kReports = 200;
  const Types types = {UP_APP, UP_MCU, UP_SYSTEM, UP_ROOTFS};
  Upgrade(types);
  std::vector<std::thread> upgraders;
  for (const UPGRADETYPE type : types) {
    upgraders.emplace_back([this, type] {
      for (int i = 0; i < kReports; ++i) runner.ProgressSum(1, type);
      runner.ProgressSum(100, type);
    });
  }
  while (!runner.AllFinished()) runner.LogProgress(0);
  for (std::thread& upgrader : upgraders) upgrader.join();
  EXPECT_EQ(runner.Percent(), kReports + 100);
  EXPECT_TRUE(runner._CheckModeUpgrade());
}

}  // namespace

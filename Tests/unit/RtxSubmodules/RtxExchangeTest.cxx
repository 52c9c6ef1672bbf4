// The exchange with radio modules against a scripted one: what ends it, how soon, and what is left behind.
// Whole upgrades over a line of real speed are seen on a virtual station.
#include "UpgradeFrame/RtxSubmodules/RtxExchange.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "ScriptedModule.h"

namespace {

constexpr int kLongWait = 20'000;  // no test lets it run out
constexpr int kShortWait = 2'000;
constexpr double kAtOnce = 2.5;  // s; the shortest wait that could hold something up lasts 3 s

using Reasons = std::vector<Reason>;

// A user of the exchange that is told its modules and keeps what it hears.
class Upgrader final : public IRtxHost {
 public:
  Upgrader(int waitTime, std::string directory, std::vector<const ScriptedModule*> modules)
      : m_dir(std::move(directory)),
        m_modules(std::move(modules)),
        m_exchange("TestRtx", "TestRtx", waitTime, *this) {
    EXPECT_TRUE(m_exchange.Open());
  }

  bool Start() { return m_exchange.StartRun(m_modules[0]->Device().c_str()); }
  bool StartAgain() {
    return StartNext([this] { return Start(); });
  }
  void Abort() { m_exchange.AbortRun(); }
  bool Close() { return m_exchange.Close(); }

  Inbox<Reason> ends;
  Inbox<bool> boots;
  Inbox<std::pair<size_t, size_t>> chunks;

 private:
  Failure PrepareFiles(std::string& directory) override {
    directory = m_dir;
    return {};
  }
  void EnterBoot(int module) override {
    m_modules.at(static_cast<size_t>(module) - 1)->Send({2});
    boots.Put(true);
  }
  void ChunkProgrammed(int /*module*/, size_t done, size_t total) override { chunks.Put({done, total}); }
  const char* ModuleSucceeded(int module) override {
    const auto done = static_cast<size_t>(module);
    return done < m_modules.size() ? m_modules[done]->Device().c_str() : nullptr;
  }
  void RunEnded(int /*module*/, const Failure& failure) override { ends.Put(failure.reason); }

  const std::string m_dir;
  const std::vector<const ScriptedModule*> m_modules;
  RtxExchange m_exchange;
};

class RtxExchangeTest : public testing::Test {
 protected:
  ModuleFiles files;
  ScriptedModule module;
};

TEST_F(RtxExchangeTest, BothModulesGetTheFirmwareThatWasReadOnce) {
  ScriptedModule second;
  Upgrader upgrader(kLongWait, files.Path(), {&module, &second});
  ASSERT_TRUE(upgrader.Start());
  EXPECT_FALSE(upgrader.Start()) << "one run at a time";
  module.StartFlashLoader();
  module.ServeFlash(1);
  std::filesystem::remove(files / "rtx.spihex");
  module.ServeFlash(1);
  second.StartFlashLoader();
  second.ServeFlash(2);
  EXPECT_EQ(upgrader.ends.Wait(1), Reasons({Reason::None}));
  const auto chunks = upgrader.chunks.Wait(4);
  EXPECT_EQ(chunks, (std::vector<std::pair<size_t, size_t>>({{1, 2}, {2, 2}, {1, 2}, {2, 2}})));
  for (ScriptedModule* const each : {&module, &second}) {
    EXPECT_EQ(each->flash.at(0x1000), 1);
    EXPECT_EQ(each->flash.at(0x1002), 3);
    EXPECT_EQ(each->flash.at(0x1003), 0xFF);
    EXPECT_EQ(each->flash.at(0x2000), 4);
  }
}

// Each failure ends the run once, and the next one begins as if there had been none.
TEST_F(RtxExchangeTest, RefusedRunFailsOnceAndLeavesNothingBehind) {
  struct Row {
    const char* name;
    Reason reason;
    std::function<void(ScriptedModule&)> script;
  };
  const Row rows[] = {
      {"silent", Reason::PartAnswer, [](ScriptedModule& each) { each.Receive(3); }},
      {"pre-loader check value is wrong", Reason::PartVerify,
       [](ScriptedModule& each) {
         each.TakePreLoader();
         each.Send({ScriptedModule::kCheck ^ 1});  // an echo of it would be the next run's first byte
       }},
      {"flash-loader check value is wrong", Reason::PartVerify,
       [](ScriptedModule& each) {
         each.TakePreLoader();
         each.ConfirmPreLoader();
         each.ChangeBaudRate();
         each.TakeFlashLoader();
         each.Send({ScriptedModule::kCheck ^ 1});
       }},
      {"confirmation is longer than it says", Reason::PartAnswer,
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.ReceiveRequest();
         each.Send(Rtx::PackFlPacket({14, 1, 2, 3}) + Bytes({0}));
       }},
      {"confirmation has too little data", Reason::PartAnswer,
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.ReceiveRequest();
         each.Confirm({14, 1, 2});
       }},
      {"flash holds something else", Reason::PartVerify,
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.damaged = true;
         each.ServeFlash(1);
       }},
  };
  Upgrader upgrader(kShortWait, files.Path(), {&module});
  Reasons expected;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(upgrader.StartAgain());
    row.script(module);
    expected.push_back(row.reason);
    EXPECT_EQ(upgrader.ends.Wait(expected.size()), expected);
  }
}

TEST_F(RtxExchangeTest, UnpluggedModuleFailsAndStaysAway) {
  Upgrader upgrader(kShortWait, files.Path(), {&module});
  ASSERT_TRUE(upgrader.Start());
  module.StartFlashLoader();
  module.ReceiveRequest();
  upgrader.boots.Wait(1);
  module.Unplug();
  upgrader.ends.Wait(1);
  ASSERT_TRUE(upgrader.StartAgain());
  EXPECT_EQ(upgrader.ends.Wait(2).back(), Reason::PartDevice);
  EXPECT_EQ(upgrader.boots.Wait(1).size(), 1U) << "nothing is asked of a module that cannot be reached";
}

TEST_F(RtxExchangeTest, UnusableFilesFailBeforeTheModuleIsTouched) {
  Upgrader upgrader(kLongWait, "/nonexistent", {&module});
  ASSERT_TRUE(upgrader.Start());
  EXPECT_EQ(upgrader.ends.Wait(1), Reasons({Reason::PartImage}));
  EXPECT_TRUE(upgrader.boots.Wait(0).empty());
}

TEST_F(RtxExchangeTest, StopEndsEveryWaitAtOnceAndReportsNothing) {
  for (const auto& [name, script] : kSilences) {
    SCOPED_TRACE(name);
    ScriptedModule silent;
    Upgrader upgrader(kLongWait, files.Path(), {&silent});
    ASSERT_TRUE(upgrader.Start());
    script(silent);
    EXPECT_LT(SecondsOf([&] { EXPECT_TRUE(upgrader.Close()); }), kAtOnce);
    EXPECT_TRUE(upgrader.Close());
    EXPECT_TRUE(upgrader.ends.Wait(0).empty());
  }
}

TEST_F(RtxExchangeTest, AbortFailsTheRunAtOnceAndAnotherMayFollow) {
  for (const auto& [name, script] : kSilences) {
    SCOPED_TRACE(name);
    ScriptedModule silent;
    Upgrader upgrader(kLongWait, files.Path(), {&silent});
    ASSERT_TRUE(upgrader.Start());
    script(silent);
    EXPECT_LT(SecondsOf([&] {
                upgrader.Abort();
                EXPECT_EQ(upgrader.ends.Wait(1), Reasons({Reason::Stopped}));
              }),
              kAtOnce);
    ASSERT_TRUE(upgrader.StartAgain());
    upgrader.boots.Wait(2);
  }
}

}  // namespace

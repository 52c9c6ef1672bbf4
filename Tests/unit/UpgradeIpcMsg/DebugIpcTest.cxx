// The debug method's command line.
#include "UpgradeIpcMsg/DebugIpc/DebugIpc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using Words = std::vector<std::string>;

std::optional<std::string> Join(const Words& words) {
  if (words.size() > 2) return std::nullopt;
  std::string joined;
  for (const std::string& word : words) joined += "<" + word + ">";
  return joined;
}

}  // namespace

TEST(DebugIpc, RunsWhatIsRegisteredAndListsItForAnythingElse) {
  DebugIpc* const debug = DebugIpc::instance();
  debug->RegisterCommand("rpp", "reloads", [](const Words&) { return ""; });
  debug->RegisterCommand("join", "joins its words", Join);
  EXPECT_EQ(debug->ProcDebugMsg("join"), "");
  EXPECT_EQ(debug->ProcDebugMsg("  join\ta  b\n"), "<a><b>");
  const std::string list = debug->ProcDebugMsg("help");
  EXPECT_EQ(list, "help: lists the commands\njoin: joins its words\nrpp: reloads\n");
  for (const char* other : {"", " ", "JOIN", "joi", "join a b c", "help me", "\xE2\x82\xAC"}) {
    EXPECT_EQ(debug->ProcDebugMsg(other), list) << other;
  }
  debug->CleanUp();
  EXPECT_EQ(debug->ProcDebugMsg("join"), "help: lists the commands\n");
}

TEST(DebugIpc, TakesCommandsWhileOthersRun) {
  DebugIpc* const debug = DebugIpc::instance();
  std::atomic<int> runs{0};
  // A command may itself register: nothing is locked while it runs.
  debug->RegisterCommand("self", "", [&](const Words&) {
    debug->RegisterCommand("other", "", Join);
    ++runs;
    return "";
  });
  std::vector<std::thread> callers(4);
  for (std::thread& caller : callers) {
    caller = std::thread([&] {
      for (int i = 0; i < 100; ++i) debug->ProcDebugMsg("self");
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(runs, 400);
  debug->CleanUp();
}

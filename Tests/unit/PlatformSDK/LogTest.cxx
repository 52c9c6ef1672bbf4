// The log's files as service reads them, its limits, and closing it under the hands of threads that log.
#include "BSW/Log/CLog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/ErrorNum/ErrorNum.h"
#include "TempDirectory.h"

namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(CLog::instance()->Init(m_directory.Path().c_str(), false)); }
  void TearDown() override {
    CLog::instance()->SetDebugLevel(LOG_LEVEL_DBG);
    CLog::instance()->CleanUp();
  }
  std::string Written(const std::string& file = "system.log") const { return ReadText(m_directory / file); }

  const TempDirectory m_directory;
};

}  // namespace

TEST_F(LogTest, WritesStatementsWithTimeLevelPlaceAndColour) {
  errno = ENOENT;
  CLog::instance()->Statement(LOG_LEVEL_ERR, "a%d.cxx", 7, "%s is %d%%", "text", 5);
  EXPECT_EQ(errno, ENOENT);
  LOGD("next");
  const std::regex lines(
      "\\[\\d\\d:\\d\\d:\\d\\d,\\d{3}\\] \\[E\\]\\[a%d\\.cxx:   7\\] \x1b\\[1;31mtext is 5%\x1b\\[0m\n"
      "\\[\\d\\d:\\d\\d:\\d\\d,\\d{3}\\] \\[D\\]\\[LogTest\\.cxx: *\\d+\\] \x1b\\[0;32mnext\x1b\\[0m\n");
  EXPECT_TRUE(std::regex_match(Written(), lines)) << Written();
  EXPECT_TRUE(CLog::instance()->Init("/elsewhere", true));
  EXPECT_EQ(CLog::instance()->GetLogPath(), m_directory.Path());
}

TEST_F(LogTest, ConsolePrintsTheSameLineAndKeepsErrnoForBoth) {
  CLog::instance()->CleanUp();
  ASSERT_TRUE(CLog::instance()->Init(m_directory.Path().c_str(), true));
  ::testing::internal::CaptureStdout();
  errno = ENOENT;
  CLog::instance()->Statement(LOG_LEVEL_WRN, "f", 1, "%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(CLog::instance()->Debug(LOG_LEVEL_ERR, "%s", ""), 0);
  CLog::instance()->CleanUp();
  const std::string console = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(console.substr(console.find("] ")), Written().substr(Written().find("] ")));
}

TEST_F(LogTest, CutsAndReportsTextsBeyondTheBuffer) {
  const std::string text(90'000, 'z');
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(CLog::instance()->System("%s", text.c_str()), 90'000);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "vsnprintf len warn! len = 90000\n");
  EXPECT_EQ(Written().substr(Written().find("] ") + 2), text.substr(0, 81'919) + "\n");
}

TEST_F(LogTest, ModulesHaveTheirOwnFilesAndRules) {
  CLog* const log = CLog::instance();
  EXPECT_EQ(log->Module(MODULE_LOG_23, "%s", "debug"), 5);
  EXPECT_NE(Written("Module23.log").find("] debug\n"), std::string::npos);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(log->Module(MODULE_LOG_SIZE, "%s", "beyond"), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "MODULE_LOG error!\n");
  log->SetDebugLevel(LOG_LEVEL_INF);
  log->Module(MODULE_LOG_0, "%s", "hidden");
  EXPECT_EQ(log->Alarm("%s", "shown"), 5);
  EXPECT_EQ(Written("Module0.log"), "");
  EXPECT_NE(Written("alarm.log"), "");
  log->OpenOrCloseModuleLog(false);
  EXPECT_EQ(log->Access("%s", "closed"), 1);
  EXPECT_EQ(Written("access.log"), "");
  log->OpenOrCloseModuleLog(true);
  log->SetDebugLevel(LOG_LEVEL_WRN);
  LOGE("errors have INFO priority in the file");
  EXPECT_EQ(Written(), "");
}

TEST(Log, TakesItsLevelFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process whose log does not exist yet
  const auto isSilenced = [] {
    const TempDirectory directory;
    setenv("DEBUG_LOG_LEVEL", "1", 1);
    CLog::instance()->Init(directory.Path().c_str(), false);
    LOGE("silenced");
    const bool silenced = XGetFileSize(directory / "system.log") == 0;
    CLog::instance()->CleanUp();
    return silenced;
  };
  EXPECT_EXIT(_exit(isSilenced() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(LogTest, DeleteLogGoesOnWithNewFiles) {
  LOGI("old");
  CLog::instance()->DeleteLog();
  LOGI("new");
  EXPECT_EQ(Written().find("old"), std::string::npos);
  EXPECT_NE(Written().find("new"), std::string::npos);
}

TEST_F(LogTest, MayBeClosedWhileThreadsLog) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&stop, i] {
      while (!stop) LOGI("thread %d", i);
    });
  }
  while (Written().size() < 10'000) std::this_thread::yield();
  CLog::instance()->CleanUp();
  const size_t size = Written().size();
  EXPECT_EQ(CLog::instance()->System("%s", "late"), -1);
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Written().size(), size);
}

TEST_F(LogTest, ErrorNumbersAreBoundedAndOutliveTheProcess) {
  ErrorNum* const recorder = ErrorNum::instance();
  const std::string file = m_directory / "new/ErrorNum_K9031.json";
  for (int code = 0; code < 300; ++code) EXPECT_TRUE(recorder->Record(SubMod_RTX, code));  // kept until Init
  ASSERT_TRUE(recorder->Init("K9031", m_directory / "new"));
  EXPECT_TRUE(recorder->Record(SubMod_FPGA, 0x450));
  EXPECT_TRUE(recorder->CleanUp());
  ASSERT_TRUE(recorder->Init("K9031", m_directory / "new"));
  ASSERT_EQ(recorder->Records().size(), 256U);
  EXPECT_EQ(recorder->Records().front().errorNum, "K9031-5-002D");
  EXPECT_EQ(recorder->Records().back().errorNum, "K9031-2-0450");
  recorder->CleanUp();
  WriteText(file, R"([{"ErrorNum":5},7,{"ErrorNum":"K9031-1-0001","TimeMs":1}])");
  ASSERT_TRUE(recorder->Init("K9031", m_directory / "new"));
  EXPECT_EQ(recorder->Records().size(), 1U);
  recorder->CleanUp();
}

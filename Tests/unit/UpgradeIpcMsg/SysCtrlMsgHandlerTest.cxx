// What each message of the controller leads to, the malformed ones among them.
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlMsgHandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "RecordedReports.h"

namespace {

using Effects = std::vector<std::string>;

// A handler whose log can be read.
class SysCtrlMsgHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(CLog::instance()->Init(m_directory.Path().c_str(), false)); }
  void TearDown() override { CLog::instance()->CleanUp(); }

  static Json::Value Parsed(const std::string& text) {
    Json::Value value;
    std::string error;
    EXPECT_TRUE(JsonUtils::Parse(text, value, error)) << text << error;
    return value;
  }
  // What the log got since the last call.
  std::string NewLog() {
    const std::string log = ReadText(m_directory / "system.log");
    std::string added = log.substr(m_logRead);
    m_logRead = log.size();
    return added;
  }

 private:
  const TempDirectory m_directory;
  size_t m_logRead = 0;
};

}  // namespace

TEST_F(SysCtrlMsgHandlerTest, ComparesAReportedVersionWithTheStoredOne) {
  const struct {
    const char* message;
    UPGRADETYPE chip;
    const char* stored;
    Effects effects;
    const char* log;
  } rows[] = {
      {R"({"Cmd":100,"Data":{"FpgaVer":"V1"}})", UP_FPGA, "V1", {}, "Same version, no need update."},
      {R"({"Cmd":100,"Data":{"FpgaVer":"V2"}})",
       UP_FPGA,
       "V1",
       {"fault Different FPGA version!Strored:V1, read:V2", "store V2", "report"},
       "FPGA version update completed"},
      {R"({"Cmd":100,"Data":{"FpgaVer":"V2"}})",
       UP_FPGA,
       "",
       {"store V2", "report"},
       "########## Uart of FPGA might have except during last starup! ##########"},
      {R"({"Cmd":101,"Data":{"RtxVer":"V2","RtxIndex":2}})",
       UP_RTX,
       "V1",
       {"fault Different RTX2 version!Strored:V1, read:V2", "store V2", "report"},
       "RTX version update completed"},
      {R"({"Cmd":105,"Data":{"UacVer":""}})",
       UP_UAC,
       "V1",
       {"fault Different UAC version!Strored:V1, read:", "store ", "report"},
       "UAC version update completed"},
      // What stands for no version elsewhere is a stored version here like any other.
      {R"({"Cmd":105,"Data":{"UacVer":"V2"}})",
       UP_UAC,
       "V0.0.0.00",
       {"fault Different UAC version!Strored:V0.0.0.00, read:V2", "store V2", "report"},
       "UAC version update completed"},
  };
  for (const auto& row : rows) {
    RecordedReports reports;
    reports.StoreVersion(row.chip, row.stored);
    EXPECT_TRUE(SysCtrlMsgHandler::Handle(&reports, Parsed(row.message)));
    Effects effects = reports.Effects();
    effects.erase(effects.begin());
    EXPECT_EQ(effects, row.effects) << row.message;
    EXPECT_NE(NewLog().find(row.log), std::string::npos) << row.message;
  }
}

TEST_F(SysCtrlMsgHandlerTest, PassesReportsOnAndLogsWhatIsUnusable) {
  const std::string longVersion(256, '1');
  const struct {
    std::string message;
    bool isMessage;  ///< else what follows it is dropped
    Effects effects;
    const char* log;
  } rows[] = {
      {R"({"Cmd":102,"Data":{"Battery":-1}})", true, {"battery -1"}, "Get new battery:-1"},
      {R"({"Cmd":103,"Data":{"Status":2}})", true, {"clock in sync"}, "Get new Status:2"},
      {R"({"Cmd":103,"Data":{"Status":0}})", true, {"clock lost"}, "Get new Status:0"},
      {R"({"Cmd":104,"Data":null})", true, {"report"}, ""},
      {R"({"Cmd":0,"Data":{"ErrorCode":1}})", true, {}, "Unsupport cmd! ErrVal:0"},
      {R"({"Cmd":-2147483648,"Data":{}})", true, {}, "Unsupport cmd! ErrVal:-2147483648"},
      {R"({"Cmd":102})", false, {}, "Error content of msg! ErrVal:"},
      {R"({"Data":{}})", false, {}, "Error content of msg! ErrVal:"},
      {R"({"Cmd":"102","Data":{"Battery":5}})", false, {}, "Error content of msg! ErrVal:"},
      {R"({"Cmd":4294967398,"Data":{"Battery":5}})", false, {}, "Error content of msg! ErrVal:"},
      {R"([{"Cmd":102,"Data":{"Battery":5}}])", false, {}, "Error content of msg! ErrVal:"},
      {"null", false, {}, "Error content of msg! ErrVal:null"},
      {R"({"Cmd":102,"Data":5})", true, {}, "Error content of member 'Data'!ErrVal:5"},
      {R"({"Cmd":102,"Data":{"Battery":1e300}})", true, {}, "Error content of member 'Data'!ErrVal:"},
      {R"({"Cmd":103,"Data":[1]})", true, {}, "Error content of member 'Data'!ErrVal:"},
      {R"({"Cmd":101,"Data":{"RtxVer":"V1"}})", true, {}, "Error content of member 'Data'!ErrVal:"},
      {R"({"Cmd":100,"Data":{"FpgaVer":")" + longVersion + R"("}})",
       true,
       {},
       "Error content of member 'Data'"},
      {R"({"Cmd":105,"Data":{"UacVer":"V1\n"}})", true, {}, "Error content of member 'Data'!ErrVal:"},
      {R"({"Cmd":105,"Data":{"UacVer":7}})", true, {}, "Error content of member 'Data'!ErrVal:"},
  };
  for (const auto& row : rows) {
    RecordedReports reports;
    EXPECT_EQ(SysCtrlMsgHandler::Handle(&reports, Parsed(row.message)), row.isMessage) << row.message;
    EXPECT_EQ(reports.Effects(), row.effects) << row.message;
    EXPECT_NE(NewLog().find(row.log), std::string::npos) << row.message;
  }
  EXPECT_TRUE(SysCtrlMsgHandler::Handle(nullptr, Parsed(rows[0].message))) << "without anybody to report to";
}

TEST_F(SysCtrlMsgHandlerTest, TellsTheErrorsOfReplies) {
  const struct {
    const char* reply;
    const char* log;
  } rows[] = {
      {"{", "_ParseReply convert json failed."},
      {R"({"Cmd":0})", "Error Json member!ErrVal:"},
      {R"([0])", "Error Json member!ErrVal:"},
      {R"({"Cmd":1,"Data":{}})", "Cmd unsupport!ErrVal:1"},
      {R"({"Cmd":0,"Data":{}})", "Error content of member 'Data'!ErrVal:"},
      {R"({"Cmd":0,"Data":{"ErrorCode":1,"ErrorMsg":"no\nway"}})",
       "SysCtrl reply an error!ErrCode:1, ErrMsg:no way"},
  };
  for (const auto& row : rows) {
    SysCtrlMsgHandler::_ParseReply(row.reply);
    EXPECT_NE(NewLog().find(row.log), std::string::npos) << row.reply;
  }
  SysCtrlMsgHandler::_ParseReply(R"({"Cmd":0,"Data":{"ErrorCode":0,"ErrorMsg":""}})");
  EXPECT_EQ(NewLog(), "");
}

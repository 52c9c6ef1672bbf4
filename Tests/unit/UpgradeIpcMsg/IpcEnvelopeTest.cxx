// The envelope as peers see it, and requests in every shape a peer could send.
#include "UpgradeIpcMsg/IpcEnvelope.h"

#include <gtest/gtest.h>

#include <string>

#include "BSW/BasicFun/JsonUtils.h"

namespace {

constexpr const char* kInterface = "UpgradeRequest";

std::string RequestText(const std::string& type, const std::string& body) {
  return R"({"ProtocolType":"dbus","ProtocolVersion":"v1.0","Snr":7,"ProjectNum":"9031",)"
         R"("InterfaceName":"UpgradeRequest","InterfaceType":")" +
         type + R"(","Data":)" + body + "}";
}

}  // namespace

TEST(IpcEnvelope, IsOneLineWithEveryFieldOfTheProtocol) {
  const Json::Value envelope =
      IpcEnvelope::Make("UpgradeReportProperty", IpcEnvelope::kTypeSignal, 1, 101, 0, {});
  EXPECT_EQ(
      JsonUtils::ToCompactText(envelope),
      R"({"Data":{"Cmd":101,"ErrorCode":0,"PropertyData":null},"InterfaceName":"UpgradeReportProperty",)"
      R"("InterfaceType":"signal","ProjectNum":"9031","ProtocolType":"dbus","ProtocolVersion":"v1.0","Snr":1})"
      "\n");
}

TEST(IpcEnvelope, ReadsARequest) {
  IpcEnvelope::Request request;
  ASSERT_TRUE(IpcEnvelope::ParseRequest(
      RequestText("request", R"({"Cmd":100,"ErrorCode":0,"PropertyData":{"fileName":"a.zip"}})"), kInterface,
      request));
  EXPECT_EQ(request.snr, 7);
  EXPECT_EQ(request.cmd, 100);
  EXPECT_EQ(request.propertyData["fileName"], "a.zip");

  // A payload is optional.
  EXPECT_TRUE(IpcEnvelope::ParseRequest(RequestText("request", R"({"Cmd":500})"), kInterface, request));
  EXPECT_TRUE(request.propertyData.isNull());
}

TEST(IpcEnvelope, RefusesWhatIsNoRequestAndKeepsItsNumbers) {
  const std::string hostile[] = {"",
                                 "\n",
                                 "null",
                                 "7",
                                 "[]",
                                 "\"text\"",
                                 "{",
                                 R"({"Data":{"Cmd":100}})",
                                 std::string(200, '['),
                                 RequestText("signal", R"({"Cmd":100})"),
                                 RequestText("request", "null"),
                                 RequestText("request", "[1]"),
                                 RequestText("request", R"({"Cmd":"100"})"),
                                 RequestText("request", R"({"Cmd":4294967296})"),
                                 RequestText("request", R"({"Cmd":100,"PropertyData":"a"})"),
                                 RequestText("request", R"({"Cmd":100,"PropertyData":[]})"),
                                 RequestText("request", R"({"Cmd":100})") + "x"};
  for (const std::string& text : hostile) {
    IpcEnvelope::Request request;
    EXPECT_FALSE(IpcEnvelope::ParseRequest(text, kInterface, request)) << text;
  }

  IpcEnvelope::Request request;
  EXPECT_FALSE(
      IpcEnvelope::ParseRequest(RequestText("request", R"({"Cmd":100})"), "OtherInterface", request));
  EXPECT_EQ(request.snr, 7);
  EXPECT_EQ(request.cmd, 100);
}

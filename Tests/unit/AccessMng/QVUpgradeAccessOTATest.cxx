// Cloud requests and their replies, what an answer of the backend means for this device, and the end of a
// request that leads to nothing.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessOTA.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "../PlatformSDK/TempDirectory.h"
#include "AccessTestSupport.h"
#include "UpgradeFrame/AccessMng/OtaOffer.h"

namespace {

enum Cmd { kQuery = 500, kStart = 501, kVersion = 502 };

/// A cloud source whose host file is in the test's hands. Nothing is started, so accepted queries stay on
/// their way, unless a test starts it.
class OtaTest : public testing::Test {
 protected:
  Json::Value AskFor(int cmd) { return Ask(m_ota, RequestText(cmd))["Data"]; }
  int CodeOf(int cmd) { return AskFor(cmd)["ErrorCode"].asInt(); }
  /// Nobody listens on port 1.
  void SetHost(const std::string& content = R"({"host":"http://127.0.0.1:1"})") {
    WriteText(m_directory / "host.json", content);
  }

  TestAccess m_access;
  const TempDirectory m_directory;
  QVUpgradeAccessOTA m_ota{m_access.context, m_directory / "host.json"};
};

Quorvalen::QueryResult Offer(const std::string& version, const std::string& fileName = "a.zip") {
  Quorvalen::QueryResult answer;
  answer.package =
      Quorvalen::PackageInfo{version, fileName, "https://ota.maker.example/a.zip", 7, "", "better"};
  return answer;
}

}  // namespace

TEST_F(OtaTest, RefusesWhileNoHostIsSet) {
  for (const char* content : {"", "[]", R"({"host":7})", R"({"host":""})"}) {
    if (*content != '\0') SetHost(content);
    for (const Cmd cmd : {kQuery, kStart}) {
      const Json::Value reply = AskFor(cmd);
      EXPECT_EQ(reply["ErrorCode"], 3) << content;
      EXPECT_NE(reply["PropertyData"]["ErrorMsg"].asString().find("host.json"), std::string::npos);
    }
  }
  EXPECT_TRUE(m_access.IsFree());
}

TEST_F(OtaTest, IsBusyWithOneQueryOrPackageAtATime) {
  SetHost();
  EXPECT_EQ(CodeOf(kQuery), 0);
  EXPECT_EQ(CodeOf(kQuery), 2);
  EXPECT_TRUE(m_access.IsFree());
  EXPECT_EQ(CodeOf(kStart), 0) << "an upgrade takes the answer that is on its way";
  m_access.claim.ReleaseClaim();

  ASSERT_TRUE(m_access.claim.TryClaim());
  EXPECT_EQ(CodeOf(kQuery), 2);
  EXPECT_EQ(CodeOf(kStart), 2);
  EXPECT_EQ(CodeOf(kVersion), 0);
}

TEST_F(OtaTest, ClaimsThePackageFromTheRequestOn) {
  SetHost();
  EXPECT_EQ(CodeOf(kStart), 0);
  EXPECT_FALSE(m_access.IsFree());
  EXPECT_EQ(CodeOf(kStart), 2);
  EXPECT_EQ(CodeOf(kQuery), 2);
}

TEST_F(OtaTest, RefusesALowBatteryAndUnknownCommands) {
  SetHost();
  m_access.battery.SetBattery(5);
  EXPECT_EQ(CodeOf(kStart), 3);
  EXPECT_EQ(CodeOf(kQuery), 0);
  for (const int cmd : {0, 100, 499, 503}) EXPECT_EQ(CodeOf(cmd), 1) << cmd;
  EXPECT_EQ(Ask(m_ota, RequestText(kStart, "[]"))["Data"]["ErrorCode"], 1);
  EXPECT_TRUE(m_access.IsFree());
}

TEST_F(OtaTest, GivesTheClaimBackWhenTheBackendIsGone) {
  SetHost();
  ASSERT_TRUE(m_ota.Start());
  ASSERT_EQ(CodeOf(kStart), 0);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (m_access.claim.IsClaimed() && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_FALSE(m_access.claim.IsClaimed());
}

TEST(OtaOffer, TakesAnyOtherVersionAndNoUnusableName) {
  EXPECT_TRUE(OtaOffer::Judge(Offer("S4.1.0.01"), "S4.0.9.10").package);
  EXPECT_TRUE(OtaOffer::Judge(Offer("S4.0.9.09"), "S4.0.9.10").package);

  const Quorvalen::QueryResult same = OtaOffer::Judge(Offer("S4.0.9.10"), "S4.0.9.10");
  EXPECT_FALSE(same.package);
  EXPECT_EQ(same.error, "");

  EXPECT_NE(OtaOffer::Judge(Offer(""), "S4.0.9.10").error, "");
  for (const char* name : {"version.json", "a.zip.part", ".zip", "._a.zip", "*.zip", "a b.zip", "../a.zip"}) {
    const Quorvalen::QueryResult judged = OtaOffer::Judge(Offer("S4.1.0.01", name), "S4.0.9.10");
    EXPECT_FALSE(judged.package) << name;
    EXPECT_NE(judged.error, "") << name;
  }
}

TEST(OtaOffer, TellsThePanelOfEveryOutcomeWithTheSameMembers) {
  const Json::Value offered = OtaOffer::Report(Offer("S4.1.0.01"));
  EXPECT_EQ(offered["softVersion"], "S4.1.0.01");
  EXPECT_EQ(offered["size"].asUInt64(), 7U);
  EXPECT_EQ(offered["releaseNote"], "better");
  EXPECT_EQ(offered["ErrorMsg"], "");

  Quorvalen::QueryResult failed;
  failed.error = "no route";
  const Json::Value report = OtaOffer::Report(failed);
  EXPECT_EQ(report.getMemberNames(), offered.getMemberNames());
  EXPECT_EQ(report["softVersion"], "");
  EXPECT_EQ(report["ErrorMsg"], "no route");
}

TEST(OtaOffer, CountsSizesBeyondFourGigabytes) {
  constexpr uint64_t kGiB = 1024ULL * 1024 * 1024;
  EXPECT_EQ(OtaOffer::Percent(0, 0), 0);
  EXPECT_EQ(OtaOffer::Percent(3 * kGiB, 6 * kGiB), 50);
  EXPECT_EQ(OtaOffer::Percent(6 * kGiB, 6 * kGiB), 99);

  // Three copies are on the disk while a package is unpacked; what has arrived is one part of them.
  EXPECT_FALSE(OtaOffer::SpaceShortage(6 * kGiB, 6 * kGiB, 12 * kGiB));
  EXPECT_EQ(OtaOffer::SpaceShortage(100, 10, 289).Text(),
            "space: no space to download and unpack it: 290 bytes are needed, 289 are free");
  EXPECT_TRUE(OtaOffer::SpaceShortage(UINT64_MAX, 0, 12 * kGiB));
}

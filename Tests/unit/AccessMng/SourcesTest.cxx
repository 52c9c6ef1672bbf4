// How packages arrive: web requests and their replies, the search order of a stick, and the end of a refused
// package.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "AccessTestSupport.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"
#include "common/Condition.h"

namespace {

/// A web source that listens to nobody: requests come from the test.
class WebsTest : public testing::Test {
 protected:
  int AskFor(const std::string& propertyData) {
    return Ask(m_webs, RequestText(100, propertyData))["Data"]["ErrorCode"].asInt();
  }
  std::string Upload(const std::string& name) {
    std::string path = m_directory / name;
    WriteText(path, "PK");
    return path;
  }

  TestAccess m_access;
  const TempDirectory m_directory;
  QVUpgradeAccessWebs m_webs{m_access.context};
};

}  // namespace

TEST_F(WebsTest, TakesOneUploadAtATime) {
  const std::string upload = R"({"fileName":")" + Upload("a.zip") + R"(","checkVersion":false})";
  EXPECT_EQ(AskFor(upload), 0);
  EXPECT_EQ(AskFor(upload), 2);
  EXPECT_FALSE(m_access.IsFree());
}

TEST_F(WebsTest, RepeatsNumberAndCommandOfABadRequest) {
  const Json::Value reply = Ask(m_webs, RequestText(99));
  EXPECT_EQ(reply["Snr"], 41);
  EXPECT_EQ(reply["Data"]["Cmd"], 99);
  EXPECT_EQ(reply["Data"]["ErrorCode"], 1);
  EXPECT_TRUE(reply["Data"]["PropertyData"]["ErrorMsg"].isString());
  EXPECT_EQ(Ask(m_webs, "no json")["Data"]["ErrorCode"], 1);
}

TEST_F(WebsTest, CallsHostileFileNamesMalformed) {
  const std::string upload = Upload("a.zip");
  for (const std::string& payload : {
           std::string("null"),
           std::string("{}"),
           std::string(R"({"fileName":7})"),
           std::string(R"({"fileName":""})"),
           std::string(R"({"fileName":"a.tar"})"),
           std::string(R"({"fileName":"../a.zip"})"),
           std::string(R"({"fileName":"x/a.zip"})"),
           std::string(R"({"fileName":"/a/../a.zip"})"),
           std::string(R"({"fileName":"//a.zip"})"),
           std::string(R"({"fileName":"/a\u0000.zip"})"),
           R"({"fileName":")" + upload + R"(","checkVersion":1})",
           R"({"fileName":")" + upload + R"(/"})",
           R"({"fileName":"/)" + std::string(256, 'a') + R"(.zip"})",
       }) {
    EXPECT_EQ(AskFor(payload), 1) << payload;
  }
  EXPECT_TRUE(m_access.IsFree());
}

TEST_F(WebsTest, RefusesMissingFilesLinksAndALowBattery) {
  const std::string upload = Upload("a.zip");
  const std::string link = m_directory / "link.zip";
  ASSERT_EQ(symlink(upload.c_str(), link.c_str()), 0);
  EXPECT_EQ(AskFor(R"({"fileName":")" + (m_directory / "missing.zip") + R"("})"), 3);
  EXPECT_EQ(AskFor(R"({"fileName":")" + link + R"("})"), 3);
  m_access.battery.SetBattery(5);
  EXPECT_EQ(AskFor(R"({"fileName":")" + upload + R"("})"), 3);
  EXPECT_TRUE(m_access.IsFree());
}

TEST(QVUpgradeAccessUdisk, SearchesPartitionsByNumberBeforeWholeDisks) {
  EXPECT_EQ(
      QVUpgradeAccessUdisk::SearchOrder({"/dev/sda", "/dev/sda10", "/dev/sda2", "/dev/sdb", "/dev/sdb1"}),
      (std::vector<std::string>{"/dev/sda2", "/dev/sdb1", "/dev/sda10", "/dev/sda", "/dev/sdb"}));
}

namespace {

/// A source to which one package arrives that it cannot unpack; what becomes of it can be waited for.
class OnePackageSource : public QVUpgradeAccessBase {
 public:
  explicit OnePackageSource(const AccessContext& access)
      : QVUpgradeAccessBase("OnePackage", UP_UDISK, access) {}
  ~OnePackageSource() override { CleanUp(); }

  bool WaitUntilIdleAgain() {
    const CLock lock(m_mutex);
    return m_cond.WaitFor(m_mutex, std::chrono::seconds(5),
                          [this]() REQUIRES(m_mutex) { return m_waits >= 2; });
  }
  /// Why its package ended.
  Failure End() {
    const CLock lock(m_mutex);
    return m_end;
  }

 protected:
  bool _Listen() override { return true; }
  void _Unlisten() override {}
  bool _WaitForPackage() override {
    {
      const CLock lock(m_mutex);
      ++m_waits;
      m_cond.NotifyAll();
      if (m_waits == 1) return _Claim();
    }
    _WaitForQueuedState();  // until the stop
    return false;
  }
  Failure _UnpackPackage() override { return {Reason::PackageNone, "", UP_NO_TYPE}; }
  void _PackageEnded(const Failure& failure) override {
    const CLock lock(m_mutex);
    m_end = failure;
  }

 private:
  CMutex m_mutex;
  CCondition m_cond;
  int m_waits GUARDED_BY(m_mutex) = 0;
  Failure m_end GUARDED_BY(m_mutex);
};

}  // namespace

TEST(QVUpgradeAccessBase, GivesARefusedPackageBackAndWaitsForTheNext) {
  TestAccess access;
  access.battery.SetBattery(3);
  OnePackageSource source(access.context);
  ASSERT_TRUE(source.Start());
  ASSERT_TRUE(source.WaitUntilIdleAgain());
  EXPECT_EQ(source.End().Text(), "battery.low: 3 % are left, more than 5 % are needed");
  EXPECT_TRUE(access.IsFree());
  source.RequestStop();
  source.CleanUp();
}

// The version file: every part has its own field, and a damaged file gives defaults.
#include "UpgradeFrame/VersionRecord.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "../PlatformSDK/TempDirectory.h"
#include "UpgradePackage/Parts.h"

namespace {

class VersionRecordTest : public testing::Test {
 protected:
  const TempDirectory directory;
  const std::string path = directory / "version.json";
};

TEST_F(VersionRecordTest, EveryVersionComesBackInItsOwnField) {
  QVUpgradeVersionInfo versions;
  for (const Parts::Part& part : Parts::kAll) versions.*part.version = "V" + std::to_string(part.type);
  EXPECT_EQ(versions.m_uacVersion, "V5");
  EXPECT_EQ(versions.m_7204EvtVersion, "V9");

  Json::Value record = VersionRecord::ToJson({"S1.2.3.4", "H300"}, versions);
  EXPECT_EQ(record["subModulesVersion"]["7308Version"], "V10");
  EXPECT_EQ(record["subModulesVersion"].size(), Parts::kAll.size());
  record["otaList"][0]["fileName"] = "a.zip";
  std::ofstream(path) << record;

  AllVersion read;
  Json::Value otaList;
  ASSERT_TRUE(VersionRecord::Read(path, read, &otaList));
  EXPECT_EQ(read.m_oldOverallVer.m_softVersion, "S1.2.3.4");
  EXPECT_EQ(read.m_oldOverallVer.m_hardVersion, "H300");
  EXPECT_EQ(otaList, record["otaList"]);
  for (const Parts::Part& part : Parts::kAll) {
    EXPECT_EQ(read.m_SubmodulesVer.*part.version, "V" + std::to_string(part.type));
  }
}

TEST_F(VersionRecordTest, WhateverIsUnusableTakesItsDefault) {
  for (const char* content : {"", "[]", R"({"totalVersion":7,"subModulesVersion":[]})",
                              R"({"totalVersion":{"softVersion":1,"hardVersion":null},
                                  "subModulesVersion":{"appVersion":{}}})"}) {
    std::ofstream(path) << content;
    AllVersion read;
    read.m_SubmodulesVer.m_appVersion = "stale";
    Json::Value otaList = "stale";
    EXPECT_EQ(VersionRecord::Read(path, read, &otaList), *content == '{') << content;
    EXPECT_EQ(read.m_oldOverallVer.m_softVersion, "S4.0.9.10");
    EXPECT_EQ(read.m_oldOverallVer.m_hardVersion, "H200");
    EXPECT_EQ(read.m_SubmodulesVer.m_appVersion, "V0.0.0.00");
    EXPECT_TRUE(otaList.isNull());
  }
}

}  // namespace

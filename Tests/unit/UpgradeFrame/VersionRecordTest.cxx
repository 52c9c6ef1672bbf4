// The version file: every part has its own field, and a damaged file gives defaults.
#include "UpgradeFrame/VersionRecord.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

class VersionRecordTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "versionXXXXXX").string();
    const int fd = mkstemp(name.data());
    ASSERT_GE(fd, 0);
    close(fd);
    path = name;
  }
  void TearDown() override { std::filesystem::remove(path); }

  std::string path;
};

constexpr UPGRADETYPE kTypes[] = {UP_APP, UP_SYSTEM, UP_FPGA, UP_RTX,      UP_UAC,
                                  UP_MCU, UP_ROOTFS, UP_7204, UP_7204_EVT, UP_7308};

TEST_F(VersionRecordTest, EveryVersionComesBackInItsOwnField) {
  QVUpgradeVersionInfo versions;
  for (const UPGRADETYPE type : kTypes) *VersionRecord::Field(versions, type) = "V" + std::to_string(type);
  EXPECT_EQ(versions.m_uacVersion, "V5");
  EXPECT_EQ(versions.m_7204EvtVersion, "V9");
  EXPECT_EQ(VersionRecord::Field(versions, UP_NO_TYPE), nullptr);

  Json::Value record = VersionRecord::ToJson({"S1.2.3.4", "H300"}, versions);
  EXPECT_EQ(record["subModulesVersion"]["7308Version"], "V10");
  EXPECT_EQ(record["subModulesVersion"].size(), std::size(kTypes));
  record["otaList"][0]["fileName"] = "a.zip";
  std::ofstream(path) << record;

  AllVersion read;
  Json::Value otaList;
  ASSERT_TRUE(VersionRecord::Read(path, read, &otaList));
  EXPECT_EQ(read.m_oldOverallVer.m_softVersion, "S1.2.3.4");
  EXPECT_EQ(read.m_oldOverallVer.m_hardVersion, "H300");
  EXPECT_EQ(otaList, record["otaList"]);
  for (const UPGRADETYPE type : kTypes) {
    EXPECT_EQ(*VersionRecord::Field(read.m_SubmodulesVer, type), "V" + std::to_string(type));
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

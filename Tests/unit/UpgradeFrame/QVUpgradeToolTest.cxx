// The tools that meet names and files from outside: package search, version numbers, JSON, command results.
#include "UpgradeFrame/QVUpgradeTool.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

class QVUpgradeToolTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "toolXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  void TearDown() override { fs::remove_all(directory); }

  std::string Put(const std::string& name, const std::string& content = "x") const {
    std::ofstream(directory / name) << content;
    return (directory / name).string();
  }

  fs::path directory;
};

TEST_F(QVUpgradeToolTest, CommandResultTellsExitCodeFromFailure) {
  EXPECT_EQ(QVUpgradeTool::ExecCommand("exit 3"), 3);
  EXPECT_EQ(QVUpgradeTool::ExecCommand("/no/such/command 2>/dev/null"), 127);
  EXPECT_EQ(QVUpgradeTool::ExecCommand("kill -9 $$"), -1);
}

TEST_F(QVUpgradeToolTest, OnlyAWholePackageNameIsTakenFromAStick) {
  const std::string package = "QV_K9031_H200_S4.0.9.11_RRU_UDISK_Common_1.zip";
  const char* dir = directory.c_str();
  Put("._" + package);
  Put(package + ".part");
  Put("QV_K9032_H200_S4.0.9.11_RRU_UDISK_Common_1.zip");
  Put("QV_K9031_H200_S4.0.9_RRU_UDISK_Common_1.zip");
  Put("QV_K9031_H200_S4.0.9." + std::string(200, '1') + "_RRU_UDISK_Common_x.zip");
  fs::create_directory(directory / "QV_K9031_H200_S4.0.9.12_RRU_UDISK_Common_1.zip");
  fs::create_symlink("/etc/passwd", directory / "QV_K9031_H200_S4.0.9.13_RRU_UDISK_Common_1.zip");
  EXPECT_EQ(QVUpgradeTool::ReadAllUpgradeFileOTAPack(dir, ".zip"), "");
  Put(package);
  EXPECT_EQ(QVUpgradeTool::ReadAllUpgradeFileOTAPack(dir, ".zip"), package);
  EXPECT_EQ(QVUpgradeTool::ReadAllUpgradeFile(dir, "zip.part"), package + ".part");
  EXPECT_EQ(QVUpgradeTool::ReadAllUpgradeFile((directory / "absent").c_str(), ".zip"), "");
}

TEST_F(QVUpgradeToolTest, VersionIsTheFirstFourDottedNumbers) {
  std::string version = "kept";
  EXPECT_FALSE(QVUpgradeTool::ParseVerNum("K9031_Mcu_V1.2.3.zip", version));
  EXPECT_FALSE(QVUpgradeTool::ParseVerNum(std::string(100000, '1') + ".2.3.4", version));
  EXPECT_EQ(version, "kept");
  EXPECT_TRUE(QVUpgradeTool::ParseVerNum("K9031_Mcu_V1.20.3.04_5.6.7.8.zip", version));
  EXPECT_EQ(version, "1.20.3.04");
}

TEST_F(QVUpgradeToolTest, ExtensionIsWhatFollowsTheLastDot) {
  EXPECT_EQ(QVUpgradeTool::RemoveExtension("a.tar.gz"), "a.tar");
  EXPECT_EQ(QVUpgradeTool::RemoveExtension("plain"), "plain");
  EXPECT_EQ(QVUpgradeTool::RemoveExtension(".hidden"), "");
}

TEST_F(QVUpgradeToolTest, JsonFileMustHoldOneDocumentAndNothingElse) {
  Json::Value value;
  EXPECT_TRUE(QVUpgradeTool::readFileToJson(Put("good.json", "{\"a\":[1]}\n").c_str(), value));
  EXPECT_EQ(value["a"][0], 1);
  EXPECT_FALSE(QVUpgradeTool::readFileToJson(nullptr, value));
  EXPECT_FALSE(QVUpgradeTool::readFileToJson("", value));
  EXPECT_FALSE(QVUpgradeTool::readFileToJson((directory / "absent").c_str(), value));
  EXPECT_FALSE(QVUpgradeTool::readFileToJson(directory.c_str(), value));
  EXPECT_FALSE(QVUpgradeTool::readFileToJson(Put("more.json", "{} {}").c_str(), value));
  EXPECT_FALSE(QVUpgradeTool::readFileToJson(Put("deep.json", std::string(100000, '[')).c_str(), value));
  const std::string huge = "\"" + std::string(2U * 1024U * 1024U, 'x') + "\"";
  EXPECT_FALSE(QVUpgradeTool::readFileToJson(Put("huge.json", huge).c_str(), value));
}

TEST_F(QVUpgradeToolTest, Md5IsThatOfTheContent) {
  EXPECT_EQ(QVUpgradeTool::SumFileMd5(Put("abc", "abc").c_str()), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(QVUpgradeTool::SumFileMd5((directory / "absent").c_str()), "");
}

TEST_F(QVUpgradeToolTest, UsageAddsUp) {
  partition_usage_t usage;
  ASSERT_TRUE(QVUpgradeTool::getPartitionUserSize(directory.c_str(), &usage));
  EXPECT_GT(usage.total_bytes, 0U);
  EXPECT_EQ(usage.used_bytes + usage.free_bytes, usage.total_bytes);
  EXPECT_LE(usage.available_bytes, usage.free_bytes);
  EXPECT_GE(usage.usage_percent, 0.0);
  EXPECT_LE(usage.usage_percent, 100.0);
  ASSERT_TRUE(QVUpgradeTool::getPartitionUserSize("/proc", &usage));
  EXPECT_EQ(usage.usage_percent, 0.0) << "a file system without blocks";
  EXPECT_FALSE(QVUpgradeTool::getPartitionUserSize((directory / "absent").c_str(), &usage));
  EXPECT_FALSE(QVUpgradeTool::getPartitionUserSize(nullptr, &usage));
  EXPECT_FALSE(QVUpgradeTool::getPartitionUserSize("/", nullptr));
}

}  // namespace

// The MCU's firmware on the disk: the page unpacked, and the record that an interrupted upgrade leaves.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "UpgradeFrame/McuSubmodules/McuPackage.h"
#include "UpgradeFrame/McuSubmodules/McuUpgRecord.h"

namespace fs = std::filesystem;

namespace {

const FwInfo_t kFirmware = {"1.0.6.31", "k9031_McuApp.bin", "/firmware/mcu/k9031_McuApp.bin"};

TEST(McuUpgRecordTest, TellsAnInterruptedUpgradeFromOthers) {
  const TempDirectory directory;
  const McuUpgRecord record(directory.Path());
  EXPECT_FALSE(record.IsInterrupted());
  EXPECT_TRUE(record.SaveState("Idle")) << "nothing to record";
  EXPECT_EQ(directory.EntryCount(), 0U);
  EXPECT_FALSE(record.SaveState("UpgMcu")) << "of which firmware?";

  ASSERT_TRUE(record.Save(kFirmware));
  EXPECT_FALSE(record.IsInterrupted());
  ASSERT_TRUE(record.SaveState("UpgMcu"));
  EXPECT_TRUE(record.IsInterrupted());
  FwInfo_t read;
  ASSERT_TRUE(record.Load(read));
  EXPECT_EQ(read.m_strVersion, kFirmware.m_strVersion);
  EXPECT_EQ(read.m_strFileName, kFirmware.m_strFileName);
  EXPECT_EQ(read.m_strFwPath, kFirmware.m_strFwPath);
  ASSERT_TRUE(record.SaveState("Idle"));
  EXPECT_FALSE(record.IsInterrupted());
}

TEST(McuUpgRecordTest, RefusesARecordThatDescribesNoFirmware) {
  const TempDirectory directory;
  const McuUpgRecord record(directory.Path());
  FwInfo_t untouched = kFirmware;
  for (const char* text :
       {"", "{", "[]", R"({"UpgState":"UpgMcu"})", R"({"FileName":1,"FwPath":"p","Version":"1.0.6.31"})",
        R"({"FileName":"../n","FwPath":"p","Version":"1.0.6.31"})",
        R"({"FileName":"n","FwPath":"p","Version":"new"})"}) {
    WriteText(directory / "McuUpgInfo.json", text);
    EXPECT_FALSE(record.Load(untouched)) << text;
    EXPECT_EQ(untouched.m_strFwPath, kFirmware.m_strFwPath);
  }
  WriteText(directory / "McuUpgInfo.json", R"({"UpgState":["UpgMcu"]})");
  EXPECT_FALSE(record.IsInterrupted());
}

class McuPackageTest : public testing::Test {
 protected:
  // A page whose zip has the name `archive` and holds `image` under `imageName`.
  std::string MakePage(const std::string& archive, const std::string& imageName, const std::string& image) {
    const std::string parts = m_directory / "parts";
    fs::remove_all(parts);
    fs::create_directory(parts);
    WriteText(parts + "/" + imageName, image);
    const std::string command = "cd " + parts + " && 7za a -tzip '" + archive + "' " + imageName +
                                " >/dev/null && tar -cf ../page.tar '" + archive + "'";
    EXPECT_EQ(RunShell(command.c_str()).exitCode, 0);
    return m_directory / "page.tar";
  }
  Reason Unpack(const std::string& page) { return McuPackage::Unpack(page, m_target, m_firmware).reason; }

  TempDirectory m_directory;
  const std::string m_target = m_directory / "mcu";
  FwInfo_t m_firmware;
};

TEST_F(McuPackageTest, ReplacesWhatAnEarlierUpgradeLeft) {
  fs::create_directory(m_target);
  WriteText(m_target + "/McuUpgInfo.json", "old");
  WriteText(m_target + "/K9031_1.0.6.29.zip", "old");
  ASSERT_EQ(Unpack(MakePage("K9031 MCU_V1.0.6.30.zip", "k9031_McuApp.bin", "image")), Reason::None);
  EXPECT_EQ(m_firmware.m_strVersion, "1.0.6.30");
  EXPECT_EQ(m_firmware.m_strFileName, "k9031_McuApp.bin");
  EXPECT_EQ(ReadText(m_firmware.m_strFwPath), "image");
  EXPECT_FALSE(fs::exists(m_target + "/McuUpgInfo.json"));
}

TEST_F(McuPackageTest, RefusesWhatTheMcuMustNotGet) {
  EXPECT_EQ(Unpack(m_directory / "missing.tar"), Reason::PartUnpack);
  EXPECT_EQ(Unpack(MakePage("1.0.6.29.zip", "k9031_McuApp.bin", "image")), Reason::PartVersion) << "too old";
  EXPECT_EQ(Unpack(MakePage("newest.zip", "k9031_McuApp.bin", "image")), Reason::PartVersion) << "no version";
  EXPECT_EQ(Unpack(MakePage("1.0.6.256.zip", "k9031_McuApp.bin", "image")), Reason::PartVersion) << "no byte";
  EXPECT_EQ(Unpack(MakePage("1.0.6.31.zip", "other.bin", "image")), Reason::PartImage);
  EXPECT_EQ(Unpack(MakePage("1.0.6.31.zip", "k9031_McuApp.bin", "")), Reason::PartImage) << "nothing to run";
  EXPECT_EQ(Unpack(MakePage("1.0.6.31.rar", "k9031_McuApp.bin", "image")), Reason::PartImage);
}

}  // namespace

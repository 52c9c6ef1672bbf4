// The store of portable parts: which packages it takes, which one counts, what is unpacked and what is never
// left behind.
#include "UpgradePp/PpStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/ShellRunner.h"

namespace {

namespace fs = std::filesystem;
using namespace UpgPp;

const std::string kOlder = "QVD_K7308_H100_S1.0.2.9_OTA_Common_1.zip";
const std::string kNewer = "QVD_K7308_H100_S1.0.10.5_OTA_Common_1.zip";  // not newer as a text

class PpStoreTest : public testing::Test {
 protected:
  PpStoreTest() {
    fs::create_directories(m_7308);
    fs::create_directories(m_7204);
    fs::create_directory(m_root / "config");
    WriteText(m_versions, R"({"PpVer":[{"PpType":7308,"HwVersion":"H100","RtxVersion":"2.7.1"}]})");
  }

  // What the next archive holds.
  std::string Part(const std::string& name) const {
    fs::create_directories(fs::path(m_parts + name).parent_path());
    return m_parts + name;
  }
  // Packs the parts as the archive `name`; `entry` is renamed to `newName` in it.
  void Pack(const std::string& name, const std::string& entry = "", const std::string& newName = "") const {
    std::string command = "cd " + m_parts + " && 7za a -tzip -snl " + m_7308 + name + " -- *";
    if (!entry.empty()) command += " && 7za rn " + m_7308 + name + " " + entry + " " + newName;
    ASSERT_EQ(RunShell((command + " >/dev/null").c_str()).exitCode, 0);
    fs::remove_all(m_parts);
  }
  void PackImage(const std::string& name, const std::string& image) const {
    WriteText(Part("K7308_PP_APP.bin"), image);
    WriteText(Part("RTX/rtx.spihex"), "radio of " + image);
    Pack(name);
  }
  // True when there is a package of any family.
  bool Load() {
    m_found = PpStore::Load(m_root.Path());
    return Has(EM_PP_7308) || Has(EM_PP_7204) || Has(EM_PP_7204_EVT);
  }
  bool Has(PpType type) const { return HasPackage(m_found, type); }
  std::vector<std::string> NamesIn7308() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_7308)) names.push_back(entry.path().filename());
    return names;
  }

  // With these it is paired.
  void ExpectOnlyRecordsOfA7204() const {
    ASSERT_EQ(m_found.size(), 2U);
    const PpFw_t& dvt = m_found.at(EM_PP_7204);
    EXPECT_EQ(dvt.m_strFileName, "");
    EXPECT_EQ(dvt.m_strVerison + dvt.m_strHwVerison + dvt.m_strRtxVerison, "V0.0.0.00H100V0.0.0.0");
    EXPECT_EQ(m_found.at(EM_PP_7204_EVT).m_strHwVerison, "H000");
    EXPECT_FALSE(Has(EM_PP_7204) || Has(EM_PP_7204_EVT));
  }

  TempDirectory m_root;
  const std::string m_7308 = m_root / "firmware/pp/7308/";
  const std::string m_7204 = m_root / "firmware/pp/7204/";
  const std::string m_parts = m_root / "parts/";
  const std::string m_versions = m_root / "config/pp_ver.json";
  PpFwMap m_found;
};

TEST_F(PpStoreTest, TakesPackagesOfItsFamilyAlone) {
  const PpStore::Family* evt = PpStore::Find("7204_EVT");
  ASSERT_NE(evt, nullptr);
  EXPECT_EQ(PpStore::Find("7303"), nullptr);

  const std::string dvtPackage = m_7204 + "QVD_K7204_H100_S1.0.0.01_x.ota";
  WriteText(dvtPackage, "x");
  EXPECT_TRUE(PpStore::IsPackage(*PpStore::Find("7204"), dvtPackage));
  EXPECT_FALSE(PpStore::IsPackage(*evt, dvtPackage));

  // A link would make the store hold whatever it points to.
  const std::string link = m_7204 + "QVD_K7204_H000_S1.0.0.01_x.ota";
  fs::create_symlink(dvtPackage, link);
  EXPECT_FALSE(PpStore::IsPackage(*evt, link));
  EXPECT_FALSE(PpStore::IsPackage(*evt, m_7204 + "QVD_K7204_H000_S1.0.0.02_x.ota"));
}

TEST_F(PpStoreTest, HighestPackageOfEachFamilyCounts) {
  PackImage(kOlder, "old");
  PackImage(kNewer, "new");
  for (const char* name :
       {"QVD_K7204_H100_S2.0.0.3_a.ota", "QVD_K7204_H100_S2.0.0.03.ota", "QVD_K7204_H100_S1.9.9.9.ota",
        "QVD_K7204_H000_S1.0.0.0.ota", "QVD_K7204_H100_S9.0.0.0.ota.part", "xQVD_K7204_H100_S9.0.0.0.ota",
        "QVD_K7204_H100_S9.0.0.0_ota"}) {
    WriteText(m_7204 + name, "image");
  }
  fs::create_symlink("/etc/passwd", m_7204 + "QVD_K7204_H100_S8.0.0.0.ota");
  ASSERT_TRUE(Load());
  EXPECT_TRUE(Has(EM_PP_7308) && Has(EM_PP_7204) && Has(EM_PP_7204_EVT));

  const PpFw_t& part7308 = m_found.at(EM_PP_7308);
  EXPECT_EQ(part7308.m_strVerison, "S1.0.10.05");
  EXPECT_EQ(part7308.m_vecVerNum, std::vector<uint8_t>({1, 0, 10, 5}));
  EXPECT_EQ(part7308.m_strHwVerison, "H100");
  EXPECT_EQ(part7308.m_strRtxVerison, "2.7.1");
  EXPECT_EQ(part7308.m_strFwPath, m_7308);
  EXPECT_EQ(ReadText(m_7308 + part7308.m_strFileName), "new");
  EXPECT_EQ(ReadText(m_7308 + "RTX/rtx.spihex"), "radio of new");

  const PpFw_t& dvt = m_found.at(EM_PP_7204);
  EXPECT_EQ(dvt.m_strVerison, "S2.0.0.03");
  EXPECT_EQ(dvt.m_strHwVerison, "H100");
  EXPECT_EQ(dvt.m_strRtxVerison, "V0.0.0.0");
  EXPECT_EQ(dvt.m_strFwPath, m_7204);
  EXPECT_EQ(dvt.m_strFileName, "QVD_K7204_H100_S2.0.0.3_a.ota");
  EXPECT_EQ(m_found.at(EM_PP_7204_EVT).m_strHwVerison, "H000");
}

TEST_F(PpStoreTest, NothingOfAnOlderArchiveStays) {
  PackImage(kOlder, "old");
  ASSERT_TRUE(Load()) << "one family is enough";
  ASSERT_TRUE(Has(EM_PP_7308));
  WriteText(Part("readme"), "an archive without an image");
  Pack(kNewer);
  EXPECT_FALSE(Load());
  EXPECT_FALSE(Has(EM_PP_7308));
  EXPECT_EQ(m_found.at(EM_PP_7308).m_strFileName, "");
  const std::vector<std::string> left = NamesIn7308();
  EXPECT_EQ(std::set<std::string>(left.begin(), left.end()), std::set<std::string>({kOlder, kNewer}));

  fs::remove(m_7308 + kNewer);
  fs::create_symlink(m_versions, m_7308 + "link");
  Load();
  EXPECT_FALSE(fs::is_symlink(m_7308 + "link"));
  EXPECT_TRUE(fs::exists(m_versions)) << "what a link leads to is not the archive's";
  EXPECT_EQ(ReadText(m_7308 + "K7308_PP_APP.bin"), "old");
}

TEST_F(PpStoreTest, HostileArchiveLeavesNothingAnywhere) {
  const std::string outside = m_root / "outside";
  const auto refused = [&](const char* what) {
    EXPECT_FALSE(Load()) << what;
    EXPECT_FALSE(Has(EM_PP_7308)) << what;
    EXPECT_EQ(NamesIn7308(), std::vector<std::string>({kNewer})) << what;
    EXPECT_FALSE(fs::exists(outside)) << what;
    fs::remove(m_7308 + kNewer);
  };
  fs::create_symlink("/etc/passwd", Part("K7308_PP_APP.bin"));
  Pack(kNewer);
  refused("image is a link");

  WriteText(Part("K7308_PP_APP.bin"), "image");
  fs::create_directory_symlink(m_root.Path(), Part("RTX"));
  Pack(kNewer);
  refused("radio's directory is a link");

  WriteText(Part("K7308_PP_APP.bin"), "image");
  WriteText(Part("file"), "escaped");
  Pack(kNewer, "file", "../../../outside");
  refused("leaves the directory");

  WriteText(Part("K7308_PP_APP.bin"), "image");
  WriteText(Part("QVD_K7308_H100_S9.0.0.0_OTA_Common_1.zip"), "next");
  Pack(kNewer);
  refused("an archive that would be the next");

  fs::create_directories(Part("K7308_PP_APP.bin/x"));
  WriteText(Part("K7308_PP_APP.bin/x/y"), "");
  Pack(kNewer);
  refused("image is a directory");

  WriteText(m_7308 + kNewer, "PK no zip");
  refused("torn");
}

TEST_F(PpStoreTest, VersionFileFillsInWhatPackagesLack) {
  WriteText(m_7204 + "QVD_K7204_H000_S1.0.0.0.ota", "image");
  WriteText(m_versions, R"({"PpVer":[7303, {"PpType":"7303"}, {"PpType":7310,"SwVersion":"S1.0.0.0"},
    {"PpType":7205,"SwVersion":"S9.9.9.9","HwVersion":7,"RtxVersion":"3.1"},
    {"PpType":7303,"SwVersion":"S1.2.3.4","HwVersion":"H2"}, {"PpType":7308}]})");
  Load();
  EXPECT_EQ(m_found.size(), 4U);
  const PpFw_t& evt = m_found.at(EM_PP_7204_EVT);
  EXPECT_EQ(evt.m_strVerison, "S1.0.0.00") << "the package's";
  EXPECT_EQ(evt.m_strHwVerison, "H000");
  EXPECT_EQ(evt.m_strRtxVerison, "3.1");
  const PpFw_t& legacy = m_found.at(EM_PP_7302_03);
  EXPECT_EQ(legacy.m_strVerison, "S1.2.3.04");
  EXPECT_EQ(legacy.m_strHwVerison, "H2");
  EXPECT_EQ(legacy.m_strRtxVerison, "V0.0.0.0");
  EXPECT_EQ(legacy.m_strFileName, "");
  EXPECT_TRUE(legacy.m_vecVerNum.empty());
  EXPECT_EQ(m_found.at(EM_PP_7308).m_strVerison, "V0.0.0.00");
}

TEST_F(PpStoreTest, UnusableStoreLeavesWhatThereIs) {
  fs::remove_all(m_root / "firmware");
  for (const char* text : {"", "[]", R"({"PpVer":7})", R"({"PpVer":[)"}) {
    WriteText(m_versions, text);
    EXPECT_FALSE(Load()) << text;
    ExpectOnlyRecordsOfA7204();
  }
  EXPECT_TRUE(fs::is_directory(m_7308));
  EXPECT_TRUE(fs::is_directory(m_7204));
  WriteText(m_7308 + "QVD_K7308_H100_S1.0.2.256_OTA_Common_1.zip", "");
  WriteText(m_7204 + "QVD_K7204_H100_S1.0.2.256.ota", "");
  EXPECT_FALSE(Load()) << "a version that no part could be told";
  ExpectOnlyRecordsOfA7204();
}

}  // namespace

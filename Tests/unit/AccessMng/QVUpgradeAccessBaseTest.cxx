// The checks of a package that need no device: its name, its digest, and manifests of every shape.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "AccessTestSupport.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/PpStore.h"

namespace {

/// A source without a thread, whose reports can be read.
class BareSource : public QVUpgradeAccessBase {
 public:
  using QVUpgradeAccessBase::_CheckFileMd5Sum;
  using QVUpgradeAccessBase::_CheckPackName;
  using QVUpgradeAccessBase::_CheckPpPack;
  using QVUpgradeAccessBase::Unpack;

  bool RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK /*cb*/, void* /*data*/) override { return false; }
  bool UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK /*cb*/, void* /*data*/) override {
    return false;
  }

  std::vector<int> reports;

 protected:
  void _ReportStatus(int status) override { reports.push_back(status); }
};

using Reports = std::vector<int>;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::string error;
  EXPECT_TRUE(JsonUtils::Parse(text, value, error)) << error;
  return value;
}

}  // namespace

TEST(QVUpgradeAccessBase, RefusesTheInstalledVersionByNameAndNoOther) {
  const AccessState access;
  AllVersion versions;
  versions.m_oldOverallVer = {"S4.0.9.10", "H200"};
  access->setAllVersion(versions);

  BareSource source;
  const std::string same = "QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1.zip";
  EXPECT_FALSE(source._CheckPackName(UP_UDISK, same, true));
  EXPECT_EQ(source.reports, Reports{UI_STATUS_SAME_VERSION});
  source.reports.clear();
  EXPECT_TRUE(source._CheckPackName(UP_WEBS, same, false));
  EXPECT_TRUE(source._CheckPackName(UP_UDISK, "QV_K9031_H200_S4.0.9.09_RRU_UDISK_Common_1.zip", true));
  EXPECT_TRUE(source._CheckPackName(UP_OTA, "whatever.zip", true));
  EXPECT_TRUE(source.reports.empty());
  EXPECT_FALSE(source._CheckPackName(UP_UDISK, "QV_K9031.zip", true));
  EXPECT_EQ(source.reports, Reports{UI_STATUS_FAILED});
}

TEST(QVUpgradeAccessBase, LeavesAPackageUnderUpgradeAlone) {
  const AccessState access;
  access->setmStartUpgrade(true);
  BareSource source;
  EXPECT_FALSE(source.Unpack(UP_UDISK, "/nowhere"));
  EXPECT_TRUE(source.reports.empty());
}

TEST(QVUpgradeAccessBase, AcceptsTheDigestOfTheFileAlone) {
  const TempDirectory directory;
  const std::string file = directory / "pack.zip";
  WriteText(file, "abc");
  EXPECT_TRUE(BareSource::_CheckFileMd5Sum(file, "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_FALSE(BareSource::_CheckFileMd5Sum(file, "900150983cd24fb0d6963f7d28e17f73"));
  EXPECT_FALSE(BareSource::_CheckFileMd5Sum(file, ""));
  // A file that cannot be read has no digest, and no digest matches nothing.
  EXPECT_FALSE(BareSource::_CheckFileMd5Sum(directory / "missing.zip", ""));
}

TEST(QVUpgradeAccessBase, RefusesPortablePartElementsOfAnyShape) {
  AllVersion versions;
  for (const char* item : {
           "null",
           "7",
           "[]",
           "\"text\"",
           "{}",
           R"({"fileName":"a.zip"})",
           R"({"fileName":7,"fileMd5sum":"x"})",
           R"({"fileName":"a.zip","fileMd5sum":{}})",
           R"({"fileName":"../a.zip","fileMd5sum":""})",
           R"({"fileName":"/etc/a.zip","fileMd5sum":""})",
           R"({"fileName":"a.tar","fileMd5sum":""})",
           R"({"fileName":"missing.zip","fileMd5sum":""})",
       }) {
    EXPECT_FALSE(BareSource::_CheckPpPack(versions, Parsed(item))) << item;
  }
}

TEST(PpStore, TakesPackagesOfItsFamilyAlone) {
  const TempDirectory directory;
  const PpStore::Family* evt = PpStore::Find("7204_EVT");
  ASSERT_NE(evt, nullptr);
  EXPECT_EQ(PpStore::Find("7303"), nullptr);

  const std::string dvtPackage = directory / "QVD_K7204_H100_S1.0.0.01_x.ota";
  WriteText(dvtPackage, "x");
  EXPECT_TRUE(PpStore::IsPackage(*PpStore::Find("7204"), dvtPackage));
  EXPECT_FALSE(PpStore::IsPackage(*evt, dvtPackage));

  // A link would make the store hold whatever it points to.
  const std::string link = directory / "QVD_K7204_H000_S1.0.0.01_x.ota";
  ASSERT_EQ(symlink(dvtPackage.c_str(), link.c_str()), 0);
  EXPECT_FALSE(PpStore::IsPackage(*evt, link));
  EXPECT_FALSE(PpStore::IsPackage(*evt, directory / "QVD_K7204_H000_S1.0.0.02_x.ota"));
}

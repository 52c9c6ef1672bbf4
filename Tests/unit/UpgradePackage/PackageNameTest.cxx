// Which names count as packages, per source.
#include "UpgradePackage/PackageName.h"

#include <gtest/gtest.h>

#include <string>

namespace {

bool IsAccepted(UPGRADEACCESSTYPE source, const std::string& name) {
  return PackageName::Matches(name, PackageName::Pattern(source, name));
}

}  // namespace

TEST(PackageName, AcceptsThePackagesOfItsSource) {
  const std::string stickPackage = "QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1.zip";
  const std::string cloudPackage = "QV_K90XX_H200_S4.0.9.10_OTA_Common_20260113.zip";
  EXPECT_TRUE(IsAccepted(UP_UDISK, stickPackage));
  EXPECT_TRUE(IsAccepted(UP_WEBS, stickPackage));
  EXPECT_TRUE(IsAccepted(UP_WEBS, cloudPackage));
  EXPECT_FALSE(IsAccepted(UP_UDISK, cloudPackage));
  EXPECT_EQ(PackageName::Pattern(UP_OTA, "anything"), nullptr);
  EXPECT_EQ(PackageName::SoftVersion(stickPackage), "S4.0.9.10");
  EXPECT_EQ(PackageName::SoftVersion(cloudPackage), "S4.0.9.10");
}

TEST(PackageName, RefusesAllOthers) {
  const std::string longTail(256, 'x');
  for (const std::string& name : {
           std::string(),
           std::string("._QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1.zip"),
           std::string("QV_K9031_H20_S4.0.9.10_RRU_UDISK_Common_1.zip"),
           std::string("QV_K9031_H200_S4.0.9_RRU_UDISK_Common_1.zip"),
           std::string("QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_.zip"),
           std::string("QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1.zip\nreboot"),
           std::string("QV_K9032_H200_S4.0.9.10_RRU_UDISK_Common_1.zip"),
           "QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1" + longTail + ".zip",
       }) {
    EXPECT_FALSE(IsAccepted(UP_UDISK, name)) << name;
    EXPECT_FALSE(IsAccepted(UP_WEBS, name)) << name;
  }
  // A web package of this product is held against the stick's pattern, any other name against the cloud's.
  EXPECT_FALSE(IsAccepted(UP_WEBS, "QV_K9031_H200_S4.0.9.10_OTA_Common_1.zip"));
  EXPECT_FALSE(IsAccepted(UP_WEBS, "QV_K90XX_H200_S4.0.9.10_RRU_UDISK_Common_1.zip"));
}

TEST(PackageName, KnowsAZipByItsEnd) {
  EXPECT_TRUE(PackageName::IsZip("a.zip"));
  for (const char* name : {"", ".zip", "zip", "a.zip.tar", "a.ZIP"})
    EXPECT_FALSE(PackageName::IsZip(name)) << name;
}

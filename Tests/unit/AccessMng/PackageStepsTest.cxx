// The steps of a package that need no device: its name and its digest.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "../PlatformSDK/TempDirectory.h"
#include "AccessTestSupport.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/AccessMng/PackageUnpack.h"

TEST(PackageUnpack, RefusesTheInstalledVersionByNameAndNoOther) {
  TestAccess access;
  access.versions.Load("/nowhere/version.json");  // the defaults
  const auto reasonOf = [&](UPGRADEACCESSTYPE source, const std::string& name, bool checkVersion) {
    return PackageUnpack::_CheckPackName(access.versions, source, name, checkVersion).reason;
  };
  const std::string same = "QV_K9031_H200_S4.0.9.10_RRU_UDISK_Common_1.zip";
  EXPECT_EQ(reasonOf(UP_UDISK, same, true), Reason::PackageSameVersion);
  EXPECT_EQ(reasonOf(UP_WEBS, same, false), Reason::None);
  EXPECT_EQ(reasonOf(UP_UDISK, "QV_K9031_H200_S4.0.9.09_RRU_UDISK_Common_1.zip", true), Reason::None);
  EXPECT_EQ(reasonOf(UP_OTA, "whatever.zip", true), Reason::None);
  EXPECT_EQ(reasonOf(UP_UDISK, "QV_K9031.zip", true), Reason::PackageName);
}

TEST(PackageUnpack, LeavesAPackageUnderUpgradeAlone) {
  TestAccess access;
  access.claim.setmStartUpgrade(true);
  EXPECT_EQ(PackageUnpack::Unpack(access.context, UP_UDISK, "/nowhere").reason, Reason::Busy);
}

TEST(PackagePage, AcceptsTheDigestOfTheFileAlone) {
  const TempDirectory directory;
  const std::string file = directory / "pack.zip";
  WriteText(file, "abc");
  const auto reasonOf = [](const std::string& path, const char* md5, PackageManifest::Kind kind) {
    PackageManifest::Element element;
    element.kind = kind;
    element.md5 = md5;
    return PackagePage::_CheckFileMd5Sum(path, element).reason;
  };
  for (const auto& [kind, refusal] : {std::pair(PackageManifest::Kind::Station, Reason::PackageMd5),
                                      std::pair(PackageManifest::Kind::Portable, Reason::PortableMd5)}) {
    EXPECT_EQ(reasonOf(file, "900150983cd24fb0d6963f7d28e17f72", kind), Reason::None);
    EXPECT_EQ(reasonOf(file, "900150983cd24fb0d6963f7d28e17f73", kind), refusal);
    EXPECT_EQ(reasonOf(file, "", kind), refusal);
    // A file that cannot be read has no digest, and no digest matches nothing.
    EXPECT_EQ(reasonOf(directory / "missing.zip", "", kind), refusal);
  }
}

// Packages that are wrong in one thing each, from careless to hostile: every one gets its answer, nothing it
// holds is executed, nothing is written outside the page, and the daemon lives on or reboots as told.
#include <array>
#include <filesystem>
#include <functional>
#include <ostream>

#include "StationTest.h"
#include "VirtualStation/Process.h"

using namespace station;

namespace {

struct Row {
  const char* name;
  std::function<void(PackageBuilder&)> spoil;
  std::vector<int> statuses;  ///< what the panel hears, repeats once
  const char* log;
  const char* reason;  ///< why it ends; "" for a package that is installed
  bool reboots;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

Json::Value Nested(int depth) {
  Json::Value value(Json::arrayValue);
  for (int i = 0; i < depth; ++i) {
    Json::Value outer(Json::arrayValue);
    outer.append(value);
    value = outer;
  }
  return value;
}

// Sets a member of the manifest's one element.
std::function<void(PackageBuilder&)> Element(const char* key, const Json::Value& value) {
  return [key, value](PackageBuilder& builder) {
    builder.EditManifest([key, value](Json::Value& manifest) { manifest["otaList"][0][key] = value; });
  };
}

std::function<void(PackageBuilder&)> WithoutElement(const char* key) {
  return [key](PackageBuilder& builder) {
    builder.EditManifest([key](Json::Value& manifest) { manifest["otaList"][0].removeMember(key); });
  };
}

// Sets a member of the RRU archive's first page entry.
std::function<void(PackageBuilder&)> PageEntry(const char* key, const Json::Value& value) {
  return [key, value](PackageBuilder& builder) {
    builder.EditRruManifest([key, value](Json::Value& pages) { pages[0][key] = value; });
  };
}

const std::vector<int> kRefused = {kStarted, kFailed};
const std::vector<int> kUpgraded = {kStarted, kUpgrading, kFinished};
const std::vector<int> kPartFailed = {kStarted, kUpgrading, kFailed};

const std::array kRows = {
    Row{"OtherProduct",
        [](auto& b) { b.Name("QV_K9032_H200_S4.1.0.1_RRU_UDISK_Common_1.zip"); },
        {kStarted, kNoTask},
        "zip not fin pack",
        "package.none",
        false},
    Row{"SameVersion",
        [](auto& b) { b = PackageBuilder("S4.0.9.10").App("V2.0.0.01"); },
        {kStarted, kSameVersion},
        "softVersion error new softVersion:S4.0.9.10",
        "package.same-version",
        false},
    Row{"SameVersionInManifestAlone",
        Element("softVersion", "S4.0.9.10"),
        {kStarted, kSameVersion},
        "Version same no need upg.",
        "package.same-version",
        false},
    Row{"SameVersionWithPortableParts",
        [](auto& b) {
          b.PpPage("7308", "S1.0.2.05", "QVD_K7308_H100_S1.0.2.5_OTA_Common_1.zip", "zip");
          Element("softVersion", "S4.0.9.10")(b);
        },
        {kStarted, kSameVersion},
        "===Successfully imported PP upgrade package!===",
        "package.same-version",
        false},
    Row{"OlderVersion", [](auto& b) { b = PackageBuilder("S3.0.0.1").App("V0.9.0.01"); }, kUpgraded,
        "upgrade succed type:1", "", true},
    Row{"OtherHardware", Element("hardVersion", "H300"), kRefused, "hardVersion error new hardVersion:H300",
        "package.hardware", true},
    Row{"WrongMd5", Element("fileMd5sum", "00000000000000000000000000000000"), kRefused,
        "checkFileMd5sum error", "package.md5", true},
    Row{"DamagedPackage", [](auto& b) { b.EditPackage(PackageBuilder::Truncate(0.6)); }, kRefused,
        "Udisk tar file is error", "package.unpack", true},
    Row{"FlippedByteInRruArchive", [](auto& b) { b.EditRru(PackageBuilder::FlipByte(0.5)); }, kRefused,
        "  error", "package.inner-unpack", true},
    Row{"EmptyPackage", [](auto& b) { b.EditPackage(PackageBuilder::Truncate(0)); }, kRefused,
        "Udisk tar file is error", "package.unpack", true},
    Row{"DamagedRruArchive", [](auto& b) { b.EditRru(PackageBuilder::Truncate(0.5)); }, kRefused, "  error",
        "package.inner-unpack", true},
    Row{"NoElement", [](auto& b) { b.EditManifest([](Json::Value& m) { m["otaList"].clear(); }); }, kRefused,
        "Check and move file error!", "manifest.no-station", false},
    Row{"UnknownElement", Element("upgradeType", "TOASTER"), kRefused,
        "dev type error not RRU or PP!ErrVal:TOASTER", "manifest.no-station", false},
    Row{"PortablePartsAlone",
        [](auto& b) {
          // An unknown family does not end the list, and what the package holds where they are unpacked goes.
          b = PackageBuilder("S4.1.0.1")
                  .PpPage("9999", "", "other.zip", "zip")
                  .PpPage("7308", "S1.0.2.05", "QVD_K7308_H100_S1.0.2.5_OTA_Common_1.zip", "zip")
                  .EditPackage(PackageBuilder::AddEntry("pp", "in the way"));
        },
        kRefused, "===Successfully imported PP upgrade package!===", "manifest.no-station", false},
    Row{"UnknownPage", [](auto& b) { b.RawPage("toaster", "V1", "toaster.bin", "crumbs"); }, kUpgraded,
        "not find pageType", "", true},
    Row{"PageWithoutVersion",
        [](auto& b) { b.EditRruManifest([](Json::Value& p) { p[0].removeMember("version"); }); },
        {kStarted, kFinished},
        "page json file error not pagetype or version or pageName",
        "",
        true},
    Row{"ManifestIsNumber", [](auto& b) { b.EditManifest([](Json::Value& m) { m = 5; }); }, kRefused,
        "readFile to json failed.File:", "manifest.unreadable", false},
    Row{"ManifestIsDeep",
        [](auto& b) { b.EditManifest([](Json::Value& m) { m["otaList"] = Nested(1000); }); }, kRefused,
        "readFile to json failed.File:", "manifest.unreadable", false},
    Row{"ListHoldsNumbers", [](auto& b) { b.EditManifest([](Json::Value& m) { m["otaList"][0] = 7; }); },
        kRefused, "Check and move file error!", "manifest.no-station", false},
    Row{"VersionIsObject", Element("softVersion", Json::Value(Json::objectValue)), kRefused,
        "checkFileMd5sum error", "manifest.element", true},
    Row{"Md5Missing", WithoutElement("fileMd5sum"), kRefused, "checkFileMd5sum error", "manifest.element",
        true},
    Row{"NameLeavesPage", Element("fileName", "../../../pwned.zip"), kRefused, "checkFileMd5sum error",
        "manifest.element", true},
    Row{"NameIsCommand", Element("fileName", "x.zip;touch /pwned"), kRefused, "checkFileMd5sum error",
        "manifest.element", true},
    Row{"NameIsSubstitution", Element("fileName", "$(touch pwned).zip"), kRefused, "checkFileMd5sum error",
        "package.md5", true},
    Row{"NameIsTooLong", Element("fileName", std::string(300, 'x')), kRefused, "checkFileMd5sum error",
        "manifest.element", true},
    Row{"PagesAreNoArray", [](auto& b) { b.EditRruManifest([](Json::Value& p) { p = "pages"; }); }, kRefused,
        "upgradeVersion is null", "pages.manifest", true},
    Row{"PageLeavesStaging", PageEntry("pageName", "../../../../pwned"), kRefused, "mv pack error  reboot",
        "pages.entry", true},
    Row{"PageIsNumber", PageEntry("pageName", 9), kRefused, "mv pack error  reboot", "pages.entry", true},
    Row{"EntryLeavesPage", [](auto& b) { b.EditPackage(PackageBuilder::AddEntry("../../../pwned", "evil")); },
        kUpgraded, "upgrade succed type:1", "", true},
    Row{"TarEntryLeavesPartition",
        [](auto& b) { b.EditPage("app", PackageBuilder::AddEntry("../../../pwned", "evil")); }, kPartFailed,
        "Udisk tar file is error", "part.app.unpack", true},
    Row{"PageNameIsCommand",
        [](auto& b) {
          b = PackageBuilder("S4.1.0.1")
                  .RawPage("app", "V2.0.0.01", "a$(touch pwned);touch pwned;.tar", "no tar");
        },
        kPartFailed, "Udisk tar file is error", "part.app.unpack", true},
    Row{"DamagedSystemPage",
        [](auto& b) { b.System("V2.0.0.01").EditPage("system", PackageBuilder::Truncate(0.5)); }, kPartFailed,
        "upgrade error type:2", "part.system.unpack", true},
    Row{"DamagedRootfsPage",
        [](auto& b) { b.Rootfs("V2.0.0.01").EditPage("rootfs", PackageBuilder::Truncate(0.5)); }, kPartFailed,
        "upgrade error type:7", "part.rootfs.unpack", true},
    Row{"FileNameMissing", WithoutElement("fileName"), kRefused, "checkFileMd5sum error", "manifest.element",
        true},
    Row{"HardVersionMissing", WithoutElement("hardVersion"), kRefused, "checkFileMd5sum error",
        "manifest.element", true},
    Row{"TypeMissing", WithoutElement("upgradeType"), kRefused,
        "dev type error not RRU or PP!ErrVal:", "manifest.no-station", false},
};

}  // namespace

class Packages : public StationTest, public ::testing::WithParamInterface<Row> {};

TEST_P(Packages, GetTheirAnswer) {
  const Row& row = GetParam();
  StationOptions options;
  options.pauseDivisor = 100;
  Station station(options);
  ASSERT_TRUE(station.Start());
  PackageBuilder builder("S4.1.0.1");
  builder.App("V2.0.0.01", 4096);
  row.spoil(builder);
  station.InsertStick(builder.Build());
  ExpectLog(row.log);
  if (*row.reason != '\0') ExpectLog(row.reason + std::string(": "));
  if (row.reboots) {
    ExpectReboot(station);
    EXPECT_GE(station.commands().Count("systemctl stop lcd-esd-check.service"), 1U);
  } else {
    EXPECT_TRUE(station.panel().WaitForStatus(row.statuses.back(), kPatience).has_value());
  }
  EXPECT_EQ(Statuses(station.panel()), row.statuses);
  EXPECT_EQ(Station::MarkedForBoot(), row.statuses.back() == kFinished ? Partition::B : Partition::A);
  for (const char* path :
       {"/pwned", "/firmware/pwned", "/firmware/upload/pwned", "/app_B/pwned", "/pwned.zip", "pwned"}) {
    EXPECT_FALSE(Exists(path)) << path;
  }
  if (!row.reboots) {
    // It lives on, the claim on the one package under way is free, and nothing of this package is in the
    // next.
    station.panel().Clear();
    ExpectUpgrade(station, PackageBuilder("S4.1.0.2").App("V2.0.0.02", 4096).Build());
  }
}

INSTANTIATE_TEST_SUITE_P(All, Packages, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

using PpPackages = StationTest;

TEST_F(PpPackages, ThatCannotBeMovedLeaveNoVersionBehindAndAreTakenNextTime) {
  const std::string stored = "/firmware/pp/7308/QVD_K7308_H100_S1.0.2.5_OTA_Common_1.zip";
  const auto storedVersion = [] {
    return Station::Versions(Partition::A)["subModulesVersion"]["7308Version"].asString();
  };
  Station station;
  Station::SetVersions(Partition::A, "S4.0.9.10", "H200", {{"7308Version", "S1.0.1.01"}});
  WriteText(stored + "/in the way", "");
  ASSERT_TRUE(station.Start());
  const Package package = PackageBuilder("S4.1.0.1")
                              .PpPage("7308", "S1.0.2.05", std::filesystem::path(stored).filename(), "zip")
                              .Build();
  station.InsertStick(package);
  ExpectLog("portable.store: cannot move /firmware/upload/page/pp/");
  ASSERT_TRUE(station.panel().WaitForStatus(kFailed, kPatience).has_value());
  EXPECT_EQ(storedVersion(), "V0.0.0.00");

  std::filesystem::remove_all(stored);
  station.InsertStick(package);
  ExpectLog("===Successfully imported PP upgrade package!===");
  EXPECT_EQ(storedVersion(), "S1.0.2.05");
  EXPECT_EQ(ReadFile(stored), "zip");
}

// The lists of a package in every shape: what is usable comes through, anything else gets its reason.
#include "UpgradePackage/PackageManifest.h"

#include <gtest/gtest.h>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"

namespace {

using PackageManifest::Element;
using PackageManifest::Kind;
using PackageManifest::Page;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::string error;
  EXPECT_TRUE(JsonUtils::Parse(text, value, error)) << text << error;
  return value;
}

Element ElementOf(const std::string& members) {
  std::vector<Element> elements;
  EXPECT_FALSE(PackageManifest::ReadElements(Parsed("{\"otaList\":[" + members + "]}"), elements));
  EXPECT_EQ(elements.size(), 1U);
  return elements.empty() ? Element() : elements.front();
}

}  // namespace

TEST(PackageManifest, ReadsTheElementsOfAPackage) {
  const Element station = ElementOf(
      R"({"upgradeType":"RRU","softVersion":"S1","hardVersion":"H200","fileName":"a.zip","fileMd5sum":"x"})");
  EXPECT_FALSE(station.unusable) << station.unusable.Text();
  EXPECT_EQ(station.fileName, "a.zip");
  EXPECT_EQ(PackageManifest::CheckSoftVersion("S1", {"S1", "H200"}).reason, Reason::PackageSameVersion);
  EXPECT_FALSE(PackageManifest::CheckSoftVersion("S1", {"S2", "H200"}));
  EXPECT_FALSE(PackageManifest::CheckHardVersion(station, {"S2", "H200"}));
  EXPECT_EQ(PackageManifest::CheckHardVersion(station, {"S2", "H300"}).Text(),
            "package.hardware: it is for H200, the unit is H300");
  // Portable parts have their versions elsewhere; what is for another device is not judged.
  EXPECT_FALSE(ElementOf(R"({"upgradeType":"PP","fileName":"a.zip","fileMd5sum":"x"})").unusable);
  for (const char* other : {"7", "[]", "{}", R"({"upgradeType":"TOASTER"})", R"({"upgradeType":{}})"}) {
    EXPECT_EQ(ElementOf(other).kind, Kind::Other) << other;
  }
}

TEST(PackageManifest, TellsWhichMemberOfAnElementCannotBeUsed) {
  const struct {
    const char* members;
    const char* key;
  } rows[] = {
      {R"("fileMd5sum":"x")", "fileName"},
      {R"("fileName":7,"fileMd5sum":"x")", "fileName"},
      {R"("fileName":"../a.zip","fileMd5sum":"x")", "fileName"},
      {R"("fileName":"/etc/a.zip","fileMd5sum":"x")", "fileName"},
      {R"("fileName":"a.tar","fileMd5sum":"x")", "fileName"},
      {R"("fileName":"a\u000a.zip","fileMd5sum":"x")", "fileName"},
      {R"("fileName":"a.zip")", "fileMd5sum"},
      {R"("fileName":"a.zip","fileMd5sum":{})", "fileMd5sum"},
  };
  for (const auto& row : rows) {
    for (const bool isStation : {false, true}) {
      const std::string head = isStation ? R"({"upgradeType":"RRU","softVersion":"S1","hardVersion":"H200",)"
                                         : R"({"upgradeType":"PP",)";
      const Failure failure = ElementOf(head + row.members + "}").unusable;
      EXPECT_EQ(failure.reason, isStation ? Reason::ManifestElement : Reason::PortableElement) << row.members;
      EXPECT_EQ(failure.context.find('"' + std::string(row.key) + '"'), 0U) << failure.Text();
      EXPECT_EQ(failure.context.find('\n'), std::string::npos);
    }
  }
  for (const char* version : {R"("")", "{}", R"("S1\u0007")", "1"}) {
    const std::string members = R"({"upgradeType":"RRU","hardVersion":"H200","fileName":"a.zip",)"
                                R"("fileMd5sum":"x","softVersion":)" +
                                std::string(version) + "}";
    EXPECT_EQ(ElementOf(members).unusable.reason, Reason::ManifestElement) << version;
  }
}

TEST(PackageManifest, RefusesADocumentWithoutAList) {
  std::vector<Element> elements;
  for (const char* text : {"5", "[]", "{}", R"({"otaList":{}})", R"({"otaList":"RRU"})"}) {
    EXPECT_EQ(PackageManifest::ReadElements(Parsed(text), elements).reason, Reason::ManifestUnreadable);
  }
  EXPECT_TRUE(elements.empty());
}

TEST(PackageManifest, PassesOverPagesThatAreNotForTheStation) {
  std::vector<Page> pages;
  ASSERT_FALSE(PackageManifest::ReadPages(
      Parsed(R"([7, {"pageType":"app","version":"V1"}, {"pageType":"7308","version":"V1","pageName":"x"},
                 {"pageType":"rootfs","version":"V1","pageName":"r.tar.gz"}])"),
      Kind::Station, pages));
  ASSERT_EQ(pages.size(), 4U);
  EXPECT_EQ(pages[0].use, Page::Use::Incomplete);
  EXPECT_EQ(pages[1].use, Page::Use::Incomplete);
  EXPECT_EQ(pages[2].use, Page::Use::Unknown);
  ASSERT_EQ(pages[3].use, Page::Use::Wanted);
  EXPECT_EQ(pages[3].part->type, UP_ROOTFS);
}

TEST(PackageManifest, RefusesPagesThatLeaveTheirDirectoryOrStandTwice) {
  const std::string first = R"({"pageType":"app","version":"V1","pageName":"a.tar"})";
  std::vector<Page> pages;
  EXPECT_EQ(PackageManifest::ReadPages(Parsed(R"("pages")"), Kind::Station, pages).reason,
            Reason::PagesManifest);
  for (const std::string& second : {
           first,
           std::string(R"({"pageType":"mcu","version":"V1","pageName":"../a.tar"})"),
           std::string(R"({"pageType":"mcu","version":"V1","pageName":9})"),
           std::string(R"({"pageType":"mcu","version":"../V1","pageName":"a.tar"})"),
       }) {
    pages.clear();
    const Failure failure = PackageManifest::ReadPages(
        Parsed(FormatText("[%s,%s]", first.c_str(), second.c_str())), Kind::Station, pages);
    EXPECT_EQ(failure.reason, Reason::PagesEntry) << second;
    EXPECT_EQ(pages.size(), 1U) << "those before are told";
  }
}

TEST(PackageManifest, PassesOverUnknownFamiliesAndRefusesUnusablePackages) {
  std::vector<Page> pages;
  ASSERT_FALSE(PackageManifest::ReadPages(Parsed(R"([{"pageType":"9999"}, {"pageType":"app"},
                 {"pageType":"7204_EVT","version":"S1.0.2.05","pageName":"a.ota"}])"),
                                          Kind::Portable, pages));
  ASSERT_EQ(pages.size(), 3U);
  EXPECT_EQ(pages[0].part, nullptr);
  EXPECT_EQ(pages[1].part, nullptr);
  EXPECT_EQ(pages[2].part->type, UP_7204_EVT);
  EXPECT_EQ(PackageManifest::ReadPages(Parsed("{}"), Kind::Portable, pages).reason, Reason::PortableManifest);
  for (const char* entry : {"7", "{}", R"({"pageType":"7308","version":"","pageName":"a"})",
                            R"({"pageType":"7308","version":"V","pageName":"a/b"})"}) {
    EXPECT_EQ(
        PackageManifest::ReadPages(Parsed("[" + std::string(entry) + "]"), Kind::Portable, pages).reason,
        Reason::PortableElement);
  }
}

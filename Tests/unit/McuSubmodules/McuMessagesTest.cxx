// What goes to the MCU and comes back, byte by byte, and how versions compare.
#include "UpgradeFrame/McuSubmodules/McuMessages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

McuVersion Version(const std::string& text) {
  return McuVersion::Parse(text).value();
}

TEST(McuVersionTest, ComparesNumberByNumber) {
  EXPECT_LT(Version("1.0.5.99"), Version("1.0.6.00"));
  EXPECT_LT(Version("1.0.6.9"), Version("1.0.6.30")) << "not as text";
  EXPECT_LT(Version("9.255.255.255"), Version("10.0.0.0"));
  EXPECT_EQ(Version("V1.0.6.5"), Version("1.0.6.05"));
  EXPECT_EQ(Version("1.0.6.5").Text(), "1.0.6.05");
  EXPECT_EQ(Version("1.0.6.130").Text(), "1.0.6.130");
}

TEST(McuVersionTest, RefusesWhatIsNoVersion) {
  for (const char* text :
       {"", "V", "1.0.6", "1.0.6.30.1", "1.0.6.", "1.0.6.256", "1.0.-6.30", "1.0.6.3x", " 1.0.6.3"}) {
    EXPECT_FALSE(McuVersion::Parse(text)) << text;
  }
}

TEST(McuMessagesTest, DescriptionHoldsSizeVersionAndName) {
  const Bytes expected = {0x02, 0x04, 0x03, 0x02, 0x01, 1, 0, 6, 30, 'a', '.', 'b'};
  EXPECT_EQ(McuMessages::FirmwareDescription(0x01020304, Version("1.0.6.30"), "a.b"), expected);
}

TEST(McuMessagesTest, ImageGoesInPackagesOf512Bytes) {
  std::string image(1025, '\0');
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<char>(i * 7);
  ASSERT_EQ(McuMessages::PackageCount(image.size()), 3U);
  EXPECT_EQ(McuMessages::PackageCount(1024), 2U);
  std::string joined;
  const size_t sizes[] = {512, 512, 1};
  for (size_t index = 0; index < 3; ++index) {
    const Bytes package = McuMessages::Package(image, index);
    EXPECT_EQ(package.front(), index + 1);
    EXPECT_EQ(package.size(), 1 + sizes[index]);
    joined.append(package.begin() + 1, package.end());
  }
  EXPECT_EQ(joined, image);
}

TEST(McuMessagesTest, PackageNumberWraps) {
  const std::string image(257 * 512, 'x');
  EXPECT_EQ(McuMessages::Package(image, 254).front(), 255);
  EXPECT_EQ(McuMessages::Package(image, 255).front(), 0);
  EXPECT_EQ(McuMessages::Package(image, 256).front(), 1);
}

TEST(McuMessagesTest, VersionAnswerCountsOnlyWholeAndSuccessful) {
  const auto application = McuMessages::ReadVersion({0, 0, 1, 0, 6, 31, 9, 9});
  ASSERT_TRUE(application);
  EXPECT_EQ(application->mode, McuMessages::RunMode::Application);
  EXPECT_EQ(application->version, Version("1.0.6.31"));
  EXPECT_EQ(McuMessages::ReadVersion({0, 1, 0, 0, 0, 2, 0, 0})->mode, McuMessages::RunMode::BootLoader);
  EXPECT_FALSE(McuMessages::ReadVersion({0xF1, 0, 1, 0, 6, 31, 0, 0}));
  EXPECT_FALSE(McuMessages::ReadVersion({0, 0, 1, 0, 6, 31, 0}));
  EXPECT_FALSE(McuMessages::ReadVersion({0, 0, 1, 0, 6, 31, 0, 0, 0}));
}

}  // namespace

// GPIO lines against a directory that stands in for the kernel's: a line's files come some time after its
// export.
#include "BSW/GPIO/GPIO.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "../PlatformSDK/TempDirectory.h"

TEST(GPIO, DrivesALineAndGivesBackOnlyWhatItExported) {
  const TempDirectory sysfs;
  WriteText(sysfs / "export", "");
  WriteText(sysfs / "unexport", "");
  std::thread kernel([&] {
    while (ReadText(sysfs / "export") != "102") std::this_thread::yield();
    std::filesystem::create_directory(sysfs / "gpio102");
    WriteText(sysfs / "gpio102/value", "");
    WriteText(sysfs / "gpio102/direction", "in");
  });
  GPIO own(sysfs.Path());
  EXPECT_FALSE(own.SetLevel(true)) << "no line yet";
  EXPECT_TRUE(own.Init(102));
  kernel.join();
  EXPECT_EQ(ReadText(sysfs / "gpio102/direction"), "out");
  EXPECT_TRUE(own.SetLevel(true));
  EXPECT_EQ(ReadText(sysfs / "gpio102/value"), "1");

  GPIO shared(sysfs.Path());
  ASSERT_TRUE(shared.Init(102)) << "exported already is success";
  EXPECT_TRUE(shared.SetLevel(false));
  EXPECT_EQ(ReadText(sysfs / "gpio102/value"), "0");
  shared.Release();
  EXPECT_EQ(ReadText(sysfs / "unexport"), "");
  own.Release();
  EXPECT_EQ(ReadText(sysfs / "unexport"), "102");
  EXPECT_FALSE(own.SetLevel(true));
}

TEST(GPIO, FailsWhenTheLineNeverComes) {
  const TempDirectory sysfs;
  GPIO line(sysfs.Path());
  EXPECT_FALSE(line.Init(99)) << "nothing to export with";
  WriteText(sysfs / "export", "");
  WriteText(sysfs / "unexport", "");
  EXPECT_FALSE(line.Init(99));
  EXPECT_EQ(ReadText(sysfs / "unexport"), "99") << "what was exported is given back";
}

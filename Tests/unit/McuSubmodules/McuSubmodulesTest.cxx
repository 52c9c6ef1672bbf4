// The MCU upgrader on a machine without an MCU: nothing begins, nothing waits. Upgrades are seen on a virtual
// station.
#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"

#include <gtest/gtest.h>

#include <chrono>

#include "BSW/BasicFun/FileUtils.h"
#include "UpgradeFrame/McuSubmodules/McuStartup.h"

namespace {

class McuSubmodulesTest : public testing::Test {
 protected:
  // A machine with the real port is no place for these tests, and no reason to pass them.
  void SetUp() override { ASSERT_FALSE(XFilePathExists(McuSubmodules::m_strUartName)); }
};

TEST_F(McuSubmodulesTest, StartsNothingWithoutItsLine) {
  McuSubmodules mcu;
  EXPECT_FALSE(mcu.Init());
  EXPECT_FALSE(mcu.StartUpgrade());
  EXPECT_FALSE(mcu.ContinueUpg(McuSubmodules::EM_STATE_ENTER_BOOT));
  EXPECT_FALSE(mcu.ContinueUpg(McuSubmodules::EM_STATE_UPG_MCU));
  EXPECT_FALSE(mcu.LoadVersion());
  int result = -1;
  mcu.GetUpgradeStatus(result, 1);
  EXPECT_EQ(result, -1) << "an upgrade that never ended has not succeeded";
  EXPECT_TRUE(mcu.CleanUp());
}

TEST_F(McuSubmodulesTest, StartupWithoutMcuEndsAtOnce) {
  const auto begin = std::chrono::steady_clock::now();
  McuStartup startup;
  EXPECT_FALSE(startup.Run());
  startup.HandOverLine();
  startup.RequestStop();
  EXPECT_FALSE(startup.Run());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace

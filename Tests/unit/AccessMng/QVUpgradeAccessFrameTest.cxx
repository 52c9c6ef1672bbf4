// The access frame takes the notices that are its business.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"

#include <gtest/gtest.h>

// The cloud source starts the frame itself.
TEST(QVUpgradeAccessFrame, RefusesANoticeThatIsNotItsBusiness) {
  EXPECT_EQ(QVUpgradeAccessFrame::AccessCallback(UP_OTA, QVUpgradeAccessFrame::getAccessFrame()), -1);
}

// Runs the system tests inside a box, in which the base station's fixed paths and devices are real. Listing
// the tests needs no box, so that the build can do it as any user.
#include <gtest/gtest.h>

#include "VirtualStation/Box.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  return station::RunInBox([] { return RUN_ALL_TESTS(); });
}

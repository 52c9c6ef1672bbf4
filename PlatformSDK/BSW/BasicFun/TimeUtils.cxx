/// Monotonic time: sleeping and the millisecond clock. Used everywhere below and above the threads; the
/// masking of the clock to 31 bits is what its users count on.
#include "BSW/BasicFun/TimeUtils.h"

#include <cerrno>
#include <ctime>

void XSleep(uint32_t milliseconds) {
  timespec left{};
  left.tv_sec = static_cast<time_t>(milliseconds / 1000U);
  left.tv_nsec = static_cast<long>(milliseconds % 1000U) * 1'000'000L;
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

uint32_t GetCurTimeMilliSec() {
  constexpr uint64_t kMask31Bits = 0x7FFFFFFFU;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t milliseconds =
      static_cast<uint64_t>(now.tv_sec) * 1000U + static_cast<uint64_t>(now.tv_nsec) / 1'000'000U;
  return static_cast<uint32_t>(milliseconds & kMask31Bits);
}

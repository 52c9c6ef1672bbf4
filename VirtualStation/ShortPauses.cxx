/// Preloaded into the daemon: shortens its long pauses, so that demonstrations and tests last seconds and not
/// minutes. It changes two calls alone, in which the daemon does nothing but pause: sem_clockwait and
/// clock_nanosleep. A wait of a second and more lasts a tenth (or the part that QV_PAUSE_DIVISOR names);
/// shorter ones and all others are untouched.
#include <dlfcn.h>
#include <semaphore.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

constexpr long long kNanosecondsPerSecond = 1000000000;
constexpr long long kLongPause = kNanosecondsPerSecond;
constexpr long long kDefaultDivisor = 10;

long long g_divisor = kDefaultDivisor;

/// The programs that the daemon starts keep their own time.
__attribute__((constructor)) void Load() {
  unsetenv("LD_PRELOAD");
  if (const char* divisor = std::getenv("QV_PAUSE_DIVISOR")) {
    g_divisor = std::atoll(divisor) > 0 ? std::atoll(divisor) : kDefaultDivisor;
  }
}

long long ToNanoseconds(const timespec& time) {
  return static_cast<long long>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

timespec ToTimespec(long long nanoseconds) {
  return {static_cast<time_t>(nanoseconds / kNanosecondsPerSecond),
          static_cast<long>(nanoseconds % kNanosecondsPerSecond)};
}

bool IsValid(const timespec& time) {
  return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kNanosecondsPerSecond;
}

bool IsLong(long long nanoseconds) {
  return g_divisor > 1 && nanoseconds >= kLongPause;
}

/// The deadline to wait for in place of `deadline`; the same one when the pause is short or the clock
/// unknown.
timespec EarlierDeadline(clockid_t clock, const timespec& deadline) {
  timespec now{};
  if (!IsValid(deadline) || clock_gettime(clock, &now) != 0) {
    return deadline;
  }
  const long long remaining = ToNanoseconds(deadline) - ToNanoseconds(now);
  return IsLong(remaining) ? ToTimespec(ToNanoseconds(now) + remaining / g_divisor) : deadline;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system header's names are reserved
extern "C" int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
  static auto* const real = Next<int(sem_t*, clockid_t, const timespec*)>("sem_clockwait");
  const timespec earlier = EarlierDeadline(clock, *deadline);
  return real(semaphore, clock, &earlier);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
  static auto* const real = Next<int(clockid_t, int, const timespec*, timespec*)>("clock_nanosleep");
  if ((flags & TIMER_ABSTIME) != 0) {
    const timespec earlier = EarlierDeadline(clock, *request);
    return real(clock, flags, &earlier, remaining);
  }
  if (!IsValid(*request) || !IsLong(ToNanoseconds(*request))) {
    return real(clock, flags, request, remaining);
  }
  const timespec shorter = ToTimespec(ToNanoseconds(*request) / g_divisor);
  const int result = real(clock, flags, &shorter, remaining);
  if (result == EINTR && remaining != nullptr) {
    *remaining = ToTimespec(ToNanoseconds(*remaining) * g_divisor);  // in the caller's time
  }
  return result;
}

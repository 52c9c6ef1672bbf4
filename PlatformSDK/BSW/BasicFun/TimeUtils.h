/// Time helpers used throughout. A thread of the daemon pauses with CThread::Pause, which a stop ends; XSleep
/// is for threads that are no CThread, such as main's polling loop.
#pragma once

#include <cstdint>

/// Sleeps for `milliseconds` of monotonic time, through every signal.
void XSleep(uint32_t milliseconds);

/// Monotonic milliseconds, masked to 31 bits: it wraps after about 24 days.
uint32_t GetCurTimeMilliSec();

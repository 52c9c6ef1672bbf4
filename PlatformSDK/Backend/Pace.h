/// Whether a download gets on: so many bytes must come in so much time, again and again. The time runs while
/// a connection brings bytes, and over all connections of the download, so that a server that hangs up after
/// every few bytes does not escape it. Used by Download.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace Quorvalen {

class Pace {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `bytes` must come in `time`. A connection that brings any counts for `shortest` at least.
  Pace(uint64_t bytes, Milliseconds time, Milliseconds shortest);

  /// Bytes came. True for the first of a connection: the time runs from now on.
  bool Take(uint64_t bytes, TimePoint now);
  /// The connection ended; the time stands still.
  void Leave(TimePoint now);
  /// What is left of the time; 0 when it is over.
  Milliseconds Left(TimePoint now) const;
  /// The time is over: it starts anew with the next connection. Gives the bytes that came.
  uint64_t Expire();
  /// True from Expire on, until enough has come in time.
  bool IsTooSlow() const { return m_bTooSlow; }

 private:
  const uint64_t m_wanted;
  const Milliseconds m_time;
  const Milliseconds m_shortest;
  uint64_t m_bytes = 0;
  TimePoint::duration m_left;        ///< of the time, when m_since was or the last connection ended
  std::optional<TimePoint> m_since;  ///< none: the time stands still
  bool m_bTooSlow = false;
};

}  // namespace Quorvalen

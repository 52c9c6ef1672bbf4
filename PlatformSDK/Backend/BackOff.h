/// How long to wait before the next try: growing, and jittered so that devices that lost their backend
/// together do not come back together.
#pragma once

#include <chrono>
#include <random>

namespace Quorvalen {

class BackOff {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Waits lie between `first` and `longest`.
  BackOff(Milliseconds first, Milliseconds longest);

  /// Between `first` and twice that, then double that each time; in the end between half of `longest` and
  /// `longest`. At least `asked`, what the server asked for.
  Milliseconds Next(Milliseconds asked);
  /// Starts over with `first`.
  void Reset() { m_lower = m_first; }

 private:
  const Milliseconds m_first;
  const Milliseconds m_longest;
  Milliseconds m_lower;
  std::minstd_rand m_random;
};

}  // namespace Quorvalen

/// Growing, jittered waits.
#include "Backend/BackOff.h"

#include <algorithm>

namespace Quorvalen {

BackOff::BackOff(Milliseconds first, Milliseconds longest)
    : m_first(first), m_longest(longest), m_lower(first), m_random(std::random_device()()) {}

BackOff::Milliseconds BackOff::Next(Milliseconds asked) {
  const Milliseconds upper = std::min(2 * m_lower, m_longest);
  std::uniform_int_distribution<Milliseconds::rep> jitter(m_lower.count(), std::max(m_lower, upper).count());
  const Milliseconds wait(jitter(m_random));
  m_lower = std::max(m_first, std::min(2 * m_lower, m_longest / 2));
  return std::max(wait, asked);
}

}  // namespace Quorvalen

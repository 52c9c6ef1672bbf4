/// One stretch of time after the other: it ends when its bytes are there, or when it is over.
#include "Backend/Pace.h"

#include <algorithm>
#include <utility>

namespace Quorvalen {

Pace::Pace(uint64_t bytes, Milliseconds time, Milliseconds shortest)
    : m_wanted(bytes), m_time(time), m_shortest(shortest), m_left(time) {}

bool Pace::Take(uint64_t bytes, TimePoint now) {
  const bool isFirst = !m_since;
  if (isFirst) m_since = now;
  m_bytes += bytes;
  if (m_bytes >= m_wanted) {
    m_bytes = 0;
    m_left = m_time;
    m_since = now;
    m_bTooSlow = false;
  }
  return isFirst;
}

void Pace::Leave(TimePoint now) {
  if (!m_since) return;
  m_left -= std::max<TimePoint::duration>(now - *m_since, m_shortest);
  m_since.reset();
}

Pace::Milliseconds Pace::Left(TimePoint now) const {
  const TimePoint::duration left = m_since ? m_left - (now - *m_since) : m_left;
  return std::max(std::chrono::ceil<Milliseconds>(left), Milliseconds(0));
}

uint64_t Pace::Expire() {
  m_left = m_time;
  m_since.reset();
  m_bTooSlow = true;
  return std::exchange(m_bytes, 0);
}

}  // namespace Quorvalen

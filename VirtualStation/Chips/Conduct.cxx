/// Counts the phases and decides which faults strike; the chips act on what it says.
#include "VirtualStation/Chips/Conduct.h"

#include <algorithm>
#include <array>

namespace station {
namespace {

constexpr std::size_t kEver = std::numeric_limits<std::size_t>::max();

}  // namespace

const char* Name(Phase phase) {
#define STATION_PHASE_WORDS(name, words) words,
  static constexpr std::array kWords = {STATION_PHASES(STATION_PHASE_WORDS)};
#undef STATION_PHASE_WORDS
  return kWords.at(static_cast<std::size_t>(phase));
}

void Conduct::Add(const Fault& fault) {
  const CLock lock(m_mutex);
  m_faults.push_back(fault);
}

void Conduct::ClearFaults() {
  const CLock lock(m_mutex);
  m_faults.clear();
  m_hears = kEver;
}

void Conduct::Clear() {
  ClearFaults();
  const CLock lock(m_mutex);
  m_counts.clear();
  m_trail.clear();
}

bool Conduct::WaitFor(Phase phase, Milliseconds timeout, std::size_t count) const {
  const CLock lock(m_mutex);
  return m_reached.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) {
    const auto reached = m_counts.find(phase);
    return reached != m_counts.end() && reached->second >= count;
  });
}

std::size_t Conduct::Count(Phase phase) const {
  const CLock lock(m_mutex);
  const auto reached = m_counts.find(phase);
  return reached == m_counts.end() ? 0 : reached->second;
}

std::vector<std::pair<Phase, std::size_t>> Conduct::Trail() const {
  const CLock lock(m_mutex);
  return m_trail;
}

std::optional<Conduct::Faults> Conduct::Reach(Phase phase) {
  const CLock lock(m_mutex);
  if (m_hears == 0) {
    return std::nullopt;
  }
  ++m_counts[phase];
  if (m_trail.empty() || m_trail.back().first != phase) {
    m_trail.emplace_back(phase, 0);
  }
  ++m_trail.back().second;
  m_reached.NotifyAll();

  Faults faults;
  for (Fault& fault : m_faults) {
    if (fault.phase != phase || fault.times == 0) {
      continue;
    }
    if (fault.after > 0) {
      --fault.after;
      continue;
    }
    --fault.times;
    faults[fault.kind] = fault.bytes;
    if (fault.kind == FaultKind::StopAfter) {
      m_hears = std::min(m_hears, fault.bytes);
    }
  }
  if (faults.count(FaultKind::Silent) != 0) {
    m_hears = 0;
    return std::nullopt;
  }
  return faults;
}

std::size_t Conduct::Hear(std::size_t count) {
  const CLock lock(m_mutex);
  if (m_hears == kEver) {
    return count;
  }
  const std::size_t heard = std::min(count, m_hears);
  m_hears -= heard;
  return heard;
}

std::string Words(const Conduct& conduct) {
  std::string text;
  for (const auto& [phase, count] : conduct.Trail()) {
    text += (text.empty() ? "" : ", ") + std::string(Name(phase));
    text += count == 1 ? "" : " x" + std::to_string(count);
  }
  return text.empty() ? "untouched" : text;
}

}  // namespace station

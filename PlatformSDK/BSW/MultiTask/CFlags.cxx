/// The two words of flags and the waits for them.
#include "BSW/MultiTask/CFlags.h"

void CFlags::Set(uint32_t flags) {
  const CLock lock(m_SateLock);
  SetHeld(flags);
}

void CFlags::SetHeld(uint32_t flags) {
  m_iFlags |= flags & ~m_iLongTerm;
  m_iLongTermFlags |= flags & m_iLongTerm;
  Notify();
}

void CFlags::Clear(uint32_t flags) {
  m_iFlags &= ~flags;
  m_iLongTermFlags &= ~flags;
}

void CFlags::End() {
  const CLock lock(m_SateLock);
  EndHeld();
}

void CFlags::EndHeld() {
  m_bEnding = true;
  Notify();
}

bool CFlags::WaitFor(uint32_t flags, std::chrono::milliseconds time) {
  const CLock lock(m_SateLock);
  return WaitHeld(time, [&] { return Has(flags); });
}

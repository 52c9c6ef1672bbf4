/// The two flag words. Which word a flag belongs to is decided here alone.
#include "UpgradePp/PpSignals.h"

using namespace UpgPp;

namespace {

constexpr uint32_t kLongTerm = EM_FLAG_CLEAN_UP | EM_FLAG_7308_VER_INFO_LOADED | EM_FLAG_PLUG_IN |
                               EM_FLAG_LOAD_STORAGE | EM_FLAG_LOAD_7204_EVT_PACKAGE |
                               EM_FLAG_LOAD_7204_DVT_PACKAGE;
constexpr uint32_t kPortsOpen = EM_FLAG_OLD_UART_OPEN | EM_FLAG_NEW_UART_OPEN;

}  // namespace

void PpSignals::Set(uint32_t flags) {
  Set(Hold(), flags);
}

void PpSignals::Set(const Lock& /*held*/, uint32_t flags) {
  m_iFlags |= flags & ~kLongTerm;
  m_iLongTermFlags |= flags & kLongTerm;
  Notify();
}

void PpSignals::Clear(uint32_t flags) {
  m_iFlags &= ~flags;
  m_iLongTermFlags &= ~flags;
}

void PpSignals::ClearAttempt() {
  m_iFlags &= kPortsOpen;
}

bool PpSignals::Has(uint32_t flags) const {
  return ((m_iFlags | m_iLongTermFlags) & flags) != 0;
}

bool PpSignals::WaitFor(uint32_t flags, std::chrono::milliseconds time) {
  Lock lock = Hold();
  return WaitFor(lock, time, [&] { return Has(flags); });
}

/// What comes and goes: turns the hot-plug monitor's news of devices into turns of portable parts, and ends
/// the turn of one that went. While the cascade clock is out of sync, news of parts is recorded but held
/// back. UpgradePp owns the one object and takes the turns.
#pragma once

#include <atomic>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "UpgradePp/Pp7308Sequence.h"
#include "UpgradePp/PpDevices.h"
#include "UpgradePp/PpLink.h"
#include "UpgradePp/PpTypes.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

class PpHotPlug {
 public:
  /// The arguments outlive this; `state` is shown in the log.
  PpHotPlug(CFlags& flags, PpDevices& devices, const UpgPp::UpgradeStateType& state, PpLink& link,
            Pp7308Sequence& sequence)
      : m_flags(flags), m_devices(devices), m_emState(state), m_link(link), m_7308(sequence) {}

  /// Registers with the hot-plug monitor, whose thread calls back. The callbacks stay registered, since
  /// another owner's share a pattern with them: once the flags are ending no part is handled any more.
  void Init();

  /// Whether the cascade clock is in sync. When it is again, what was held back is handled. Any thread.
  void SetClockStatus(bool bStatus) EXCLUDES(m_plugMutex);
  [[nodiscard]] bool IsClockInSync() const { return m_bCascadeClockSync; }
  [[nodiscard]] bool IsAnyIn() const { return m_bUsbInsert; }

 private:
  int _UsbHotPlugProcessCallback(const std::string& device, bool plugged) EXCLUDES(m_plugMutex);
  int _LoadStorageDevCallback(const std::string& node, bool present);

  void _Handle(const PpDevices::UsbHotPlugInfo& info) REQUIRES(m_plugMutex);
  void _PlugIn(const std::string& device) REQUIRES(m_plugMutex);
  void _PlugOut(const std::string& device) REQUIRES(m_plugMutex);
  /// The device went: if it is the one under way, its turn is over, though not yet its state. True if it was.
  bool _EndTurn(const std::string& device);
  UpgPp::UpgradeStateType _State();

  CMutex m_plugMutex;  ///< serialises events and their replay; taken before every other lock here
  std::atomic<bool> m_bCascadeClockSync{true};
  std::atomic<bool> m_bUsbInsert{false};  ///< a serial device of a part is present

  CFlags& m_flags;
  PpDevices& m_devices GUARDED_BY(m_flags.Mutex());
  const UpgPp::UpgradeStateType& m_emState GUARDED_BY(m_flags.Mutex());
  PpLink& m_link;
  Pp7308Sequence& m_7308;
};

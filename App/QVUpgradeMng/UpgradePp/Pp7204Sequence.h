/// The upgrade of a 7204: its firmware is copied to its storage, which the part reads when it restarts.
/// UpgradePp owns the one object and runs it on its state thread.
#pragma once

#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "UpgradeFrame/Mount.h"
#include "UpgradePp/PpDevices.h"
#include "UpgradePp/PpTypes.h"
#include "common/ThreadAnnotations.h"

class Pp7204Sequence {
 public:
  /// The arguments outlive this.
  Pp7204Sequence(CFlags& flags, const PpDevices& devices) : m_flags(flags), m_devices(devices) {}

  /// Copies `firmware` to the storage of the part under way and waits for the part to restart: success,
  /// failure, or interrupt when it went for good. The storage is not mounted afterwards, whatever happened.
  /// Waits end at once when the flags are ending, a copy is finished. State thread.
  UpgPp::UpgradeStateType _Upg7204(const UpgPp::PpFw_t& firmware) EXCLUDES(m_flags.Mutex());

 private:
  /// Waits for the storage node; false, logged, when none came in time, it is not clear whose it is, or it
  /// went again.
  bool _WaitForStorage();
  /// True when all of the file is on the storage, and that is still there.
  bool _CopyFirmware(const UpgPp::PpFw_t& firmware);
  /// The storage of the part; not mounted, logged, on failure.
  Mount _MountPp() const;
  /// True when neither the part nor its storage has gone since its turn began.
  bool _IsStillIn();
  UpgPp::UpgradeStateType _WaitForRestart();

  CFlags& m_flags;
  const PpDevices& m_devices GUARDED_BY(m_flags.Mutex());
  std::string m_str7204Dev;  ///< storage node of the part under way; state thread only
};

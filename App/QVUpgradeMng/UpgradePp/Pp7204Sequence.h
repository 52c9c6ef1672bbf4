/// The upgrade of a 7204: its firmware is copied to its storage, which the part reads when it restarts.
/// UpgradePp owns the one object and runs it on its state thread.
#pragma once

#include <string>

#include "UpgradePp/PpDevices.h"
#include "UpgradePp/PpSignals.h"
#include "UpgradePp/PpState.h"
#include "UpgradePp/PpTypes.h"

class Pp7204Sequence {
 public:
  /// The arguments outlive this. `devices` is read with the lock of `signals` held.
  Pp7204Sequence(PpSignals& signals, const PpDevices& devices) : m_signals(signals), m_devices(devices) {}

  /// Copies `firmware` to the storage of the part under way and waits for the part to restart: success,
  /// failure, or interrupt when it went for good. The storage is not mounted afterwards, whatever happened.
  /// Waits end at once on EM_FLAG_CLEAN_UP, a copy is finished. State thread, no lock held.
  UpgPp::UpgradeStateType _Upg7204(const UpgPp::PpFw_t& firmware);

 private:
  /// Waits for the storage node; false, logged, when none came in time, it is not clear whose it is, or it
  /// went again.
  bool _WaitForStorage();
  /// True when all of the file is on the storage, and that is still there.
  bool _CopyFirmware(const UpgPp::PpFw_t& firmware);
  /// True when neither the part nor its storage has gone since its turn began.
  bool _IsStillIn();
  UpgPp::UpgradeStateType _WaitForRestart();

  PpSignals& m_signals;
  const PpDevices& m_devices;
  std::string m_str7204Dev;  ///< storage node of the part under way; state thread only
};

/// The upgrade of a 7308: its application image over the serial line, then, where it differs, its radio
/// module through UpgPpRtx. UpgradePp owns the one object and runs it on its state thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "UpgradePp/PpLink.h"
#include "UpgradePp/PpTypes.h"
#include "UpgradePp/UpgPpRtx/UpgPpRtx.h"

class Pp7308Sequence {
 public:
  /// The arguments outlive this.
  Pp7308Sequence(CFlags& flags, PpLink& link);

  /// Starts the threads of the radio module's upgrader; false, logged, when one cannot start.
  bool Init() { return m_upgPpRtx.Init(); }
  /// Ends a run of the radio module's upgrader, for good. While _Upg7308 is under way only once the flags are
  /// ending: no result comes any more.
  void CleanUp() { m_upgPpRtx.CleanUp(); }

  /// Upgrades the part behind `device`, whose newer port is open, to `firmware`, that of its `type`: success
  /// or failure. Ends as failed when any answer is missing, and at once when the flags are ending. State
  /// thread, no lock held.
  UpgPp::UpgradeStateType _Upg7308(UpgPp::PpType type, const UpgPp::PpFw_t& firmware,
                                   const std::string& device);

  /// The part was pulled out: ends the radio module's upgrade, if one is under way. Any thread, no lock held.
  void OnPlugOut();

 private:
  enum RetValType {
    EM_RET_SUCESS = 0,
    EM_RET_ERROR = 1,
    EM_RET_TIMEOUT = 2,
    EM_RET_BAD_PARAMER = 3,
  };

  /// Sends a command without data and waits for its acknowledgement; `onTimeout` is logged when none came.
  bool _Ask(uint16_t cmd, uint32_t ack, std::chrono::milliseconds time, const char* onTimeout);
  bool _StartUpg();
  RetValType _RrepareFwInfo(UpgPp::PpType type, const UpgPp::PpFw_t& firmware);
  RetValType _RrepareFwDataPack(const UpgPp::PpFw_t& firmware);
  bool _FinishTransfer();
  bool _ReCheckVersion(const UpgPp::PpFw_t& firmware);
  bool _UpgradeRtx(const UpgPp::PpFw_t& firmware, const std::string& device);
  bool _RunRtx(const std::string& directory, const std::string& device);
  bool _NotifyRtxResult(const std::string& device);
  /// Called by the radio module's upgrader, on its thread.
  void _UpgRtxResultCb(bool success, const std::string& message);

  CFlags& m_flags;
  PpLink& m_link;
  UpgPpRtx m_upgPpRtx;
};

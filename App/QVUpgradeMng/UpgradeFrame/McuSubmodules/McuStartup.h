/// What happens to the MCU when the daemon starts: it is asked for its version, and an upgrade that a power
/// cut interrupted is continued. Owned by the frame, which runs it beside everything else and has it give the
/// MCU's line back before an upgrade.
#pragma once

#include <optional>

#include "UpgradeFrame/McuSubmodules/McuSubmodules.h"
#include "common/Condition.h"
#include "common/Mutex.h"

class McuStartup {
 public:
  /// Does all of it, once, on the calling thread: at once on a unit without an MCU's line, else up to 10 s,
  /// or as long as the rest of an upgrade takes. The version that the MCU has then, all zeros when it is
  /// silent; empty when it was not asked to the end.
  std::optional<McuVersion> Run();

  /// Another thread, before it uses the MCU's line: a Run that only asks is ended, one that continues an
  /// upgrade is waited for, and none begins any more. The wait lasts as long as Run, which a stop ends.
  void HandOverLine();

  /// Ends Run for good and returns at once. Any thread.
  void RequestStop();

 private:
  enum class Phase { NotBegun, Asking, Continuing, Ended };

  bool _EnterPhase(Phase phase);
  void _EndRun();
  std::optional<McuMessages::Identity> _ContinueUpgrade();
  void _WaitForResult();
  /// True after a stop, unless the continued upgrade had ended before.
  bool _IsCutOff();

  McuSubmodules m_mcu;
  CMutex m_mutex;
  CCondition m_cvNews;  ///< one of the members below changed
  Phase m_emPhase GUARDED_BY(m_mutex) = Phase::NotBegun;
  bool m_bStopped GUARDED_BY(m_mutex) = false;
  bool m_bResult GUARDED_BY(m_mutex) = false;  ///< the continued upgrade has ended
};

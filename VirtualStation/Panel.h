/// The front panel: hears the daemon's progress, version and event messages. Owned by Station.
#pragma once

#include "VirtualStation/Bus.h"
#include "VirtualStation/BusListener.h"
#include "VirtualStation/Reports.h"

namespace station {

/// "UpgradeStatus" as the panel understands it.
enum PanelStatus {
  kFailed = -1,
  kFinished = 0,
  kStarted = 1,
  kUpgrading = 2,
  kSameVersion = 3,
  kNoTask = 4,
};

/// Any thread. Waiting and reading: see Reports.
class Panel : public Reports {
 public:
  explicit Panel(const Bus& bus);

 private:
  BusListener m_listener;  ///< last: it calls into the rest
};

}  // namespace station

/// The front panel: hears the daemon's progress, version and event messages, and asks it for what the cloud
/// has. Owned by Station.
#pragma once

#include "VirtualStation/BusListener.h"
#include "VirtualStation/Reports.h"
#include "VirtualStation/Requests.h"

namespace station {

/// "UpgradeStatus" as the panel understands it.
enum PanelStatus {
  kFailed = -1,
  kFinished = 0,
  kStarted = 1,
  kUpgrading = 2,
  kSameVersion = 3,
  kNoTask = 4,
  kDownloading = 5,
};

/// What the panel asks of the cloud's package source, and the commands of the messages that tell it the rest.
enum CloudCommand {
  kQueryCloud = 500,      ///< is there a newer package?
  kUpgradeByCloud = 501,  ///< download it and upgrade
  kAskVersions = 502,     ///< the version report
};

/// Any thread. Waiting and reading: see Reports; asking: see Requests.
class Panel : public Reports, public Requests {
 public:
  explicit Panel(const Bus& bus);

  using Requests::Request;
  std::optional<Envelope> Request(CloudCommand command) { return Request(command, Json::nullValue); }

 private:
  BusListener m_listener;  ///< last: it calls into the rest
};

}  // namespace station

/// The device's web server: hands an uploaded package to the daemon and hears the progress. Owned by Station.
#pragma once

#include <optional>
#include <string>

#include "VirtualStation/BusListener.h"
#include "VirtualStation/Reports.h"
#include "VirtualStation/Requests.h"

namespace station {

/// Any thread. What the daemon reports: see Reports; what it is asked: see Requests.
class WebServer : public Reports, public Requests {
 public:
  /// Where uploads lie.
  static constexpr const char* kUploads = "/firmware/webs/download/";

  explicit WebServer(const Bus& bus);

  /// Puts a copy of the file where uploads lie, as a browser's upload would.
  static void Store(const std::string& file);
  /// Asks for the upgrade with a stored package.
  std::optional<Envelope> RequestUpgrade(const std::string& fileName, std::optional<bool> checkVersion = {});

 private:
  BusListener m_listener;  ///< last: it calls into the rest
};

}  // namespace station

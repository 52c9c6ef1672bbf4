/// The device's web server: hands an uploaded package to the daemon and hears the progress. Owned by Station.
#pragma once

#include <optional>
#include <string>

#include "VirtualStation/Bus.h"
#include "VirtualStation/BusListener.h"
#include "VirtualStation/Envelope.h"
#include "VirtualStation/Reports.h"

namespace station {

/// Any thread. What the daemon reports: see Reports.
class WebServer : public Reports {
 public:
  /// Values of "ErrorCode" in the daemon's replies.
  enum ReplyCode { kAccepted = 0, kMalformed = 1, kBusy = 2, kRefused = 3 };
  /// Where uploads lie.
  static constexpr const char* kUploads = "/firmware/webs/download/";

  explicit WebServer(const Bus& bus);

  /// Puts a copy of the file where uploads lie, as a browser's upload would.
  static void Store(const std::string& file);
  /// Asks for the upgrade with a stored package, and gives the daemon's reply; nothing when none came within
  /// 10 s.
  std::optional<Envelope> RequestUpgrade(const std::string& fileName, std::optional<bool> checkVersion = {});
  /// The same with any text in place of a request.
  std::optional<Envelope> Request(const std::string& text);

 private:
  const Bus& m_bus;
  int m_snr = 0;
  BusListener m_listener;  ///< last: it calls into the rest
};

}  // namespace station

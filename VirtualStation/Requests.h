/// One method of the daemon that takes requests in the common envelope. Part of Panel and WebServer.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "VirtualStation/Bus.h"
#include "VirtualStation/Envelope.h"

namespace station {

/// Any thread.
class Requests {
 public:
  /// Values of "ErrorCode" in the daemon's replies.
  enum ReplyCode { kAccepted = 0, kMalformed = 1, kBusy = 2, kRefused = 3 };

  /// `bus` outlives this object.
  Requests(const Bus& bus, std::string interface, std::string member);

  /// Sends a request, each with a serial number of its own, and gives the daemon's reply; nothing when none
  /// came within 10 s.
  std::optional<Envelope> Request(int cmd, const Json::Value& property);
  /// The same with any text in place of a request.
  std::optional<Envelope> Request(const std::string& text);

 private:
  const Bus& m_bus;
  const std::string m_interface, m_member;
  std::atomic<int> m_snr{0};
};

}  // namespace station

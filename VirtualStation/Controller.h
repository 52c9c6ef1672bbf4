/// The system controller: reports the hardware's state to the daemon and hears its acknowledgements and
/// requests. Owned by Station.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VirtualStation/Bus.h"
#include "VirtualStation/BusConnection.h"
#include "VirtualStation/BusListener.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// Any thread may call any member.
class Controller {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Test = std::function<bool(const Json::Value&)>;

  /// "Cmd" of what it reports and, the last, is asked.
  enum Cmd {
    kFpgaVersion = 100,
    kRtxVersion = 101,
    kBattery = 102,
    kClockStatus = 103,
    kVersionRequest = 104,
    kUacVersion = 105,
    kPair = 0,
  };

  explicit Controller(const Bus& bus);

  /// Reports by a method call with the next serial number; the reply's text, or nothing within 10 s.
  std::optional<std::string> Report(int cmd, const Json::Value& data);
  /// The same with any text in place of a report.
  std::optional<std::string> Call(const std::string& text) const;
  /// Any text as a signal; those of one controller arrive in order.
  void Signal(const std::string& text);
  /// {"Cmd","Data","Snr"}.
  static std::string Message(int cmd, const Json::Value& data, const Json::Value& snr);

  /// The nth message of the daemon since the last Clear that passes, waited for if need be; nothing when time
  /// is up. Text that is no JSON counts as null.
  std::optional<Json::Value> WaitFor(const Test& test, Milliseconds timeout, std::size_t nth = 1) const;
  /// The same for {"Type":"ACK"} with this serial number.
  bool WaitForAck(const Json::Value& snr, Milliseconds timeout) const;
  /// The same for the "Data" of a request.
  std::optional<Json::Value> WaitForRequest(int cmd, Milliseconds timeout, std::size_t nth = 1) const;
  std::vector<Json::Value> All() const;
  void Clear();

 private:
  void _Heard(const std::string& text);

  const Bus& m_bus;
  mutable CMutex m_mutex;
  mutable CCondition m_added;
  std::vector<Json::Value> m_messages GUARDED_BY(m_mutex);
  int m_snr GUARDED_BY(m_mutex) = 0;
  CMutex m_sendMutex;
  BusConnection m_connection GUARDED_BY(m_sendMutex);
  BusListener m_listener;  ///< last: it calls into the rest
};

}  // namespace station

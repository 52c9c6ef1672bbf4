/// Sends the controller's reports and keeps what the daemon says to it.
#include "VirtualStation/Controller.h"

#include <algorithm>
#include <sstream>

namespace station {
namespace {

constexpr const char* kPath = "/org/Upgread/object";
constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMember = "upgrade_dbus_method_comm_sys";

}  // namespace

Controller::Controller(const Bus& bus)
    : m_bus(bus),
      m_connection(bus.Address()),
      m_listener(bus.Address(), "org.SysctrlMng.interface", kMember,
                 [this](const std::string& text) { _Heard(text); }) {}

std::optional<std::string> Controller::Report(int cmd, const Json::Value& data) {
  int snr = 0;
  {
    const CLock lock(m_mutex);
    snr = ++m_snr;
  }
  return Call(Message(cmd, data, snr));
}

std::optional<std::string> Controller::Call(const std::string& text) const {
  return m_bus.Call(kPath, kInterface, kMember, text, std::chrono::seconds(10));
}

void Controller::Signal(const std::string& text) {
  const CLock lock(m_sendMutex);
  m_connection.SendSignal("/org/SysctrlMng/object", kInterface, kMember, text);
}

std::string Controller::Message(int cmd, const Json::Value& data, const Json::Value& snr) {
  Json::Value message;
  message["Cmd"] = cmd;
  message["Data"] = data;
  message["Snr"] = snr;
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  return Json::writeString(compact, message);
}

std::optional<Json::Value> Controller::WaitFor(const Test& test, Milliseconds timeout,
                                               std::size_t nth) const {
  const CLock lock(m_mutex);
  std::optional<Json::Value> found;
  m_added.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) {
    std::size_t remaining = nth;
    const auto at = std::find_if(m_messages.begin(), m_messages.end(), [&](const Json::Value& message) {
      return test(message) && --remaining == 0;
    });
    if (at != m_messages.end()) found = *at;
    return found.has_value();
  });
  return found;
}

bool Controller::WaitForAck(const Json::Value& snr, Milliseconds timeout) const {
  Json::Value ack;
  ack["Type"] = "ACK";
  ack["Snr"] = snr;
  return WaitFor([&](const Json::Value& message) { return message == ack; }, timeout).has_value();
}

std::optional<Json::Value> Controller::WaitForRequest(int cmd, Milliseconds timeout, std::size_t nth) const {
  const auto request = WaitFor(
      [&](const Json::Value& message) { return message.isObject() && message["Cmd"] == cmd; }, timeout, nth);
  return request ? std::optional<Json::Value>((*request)["Data"]) : std::nullopt;
}

std::vector<Json::Value> Controller::All() const {
  const CLock lock(m_mutex);
  return m_messages;
}

void Controller::Clear() {
  const CLock lock(m_mutex);
  m_messages.clear();
}

void Controller::_Heard(const std::string& text) {
  Json::Value message;
  std::istringstream stream(text);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &message, nullptr)) {
    message = Json::Value();
  }
  const CLock lock(m_mutex);
  m_messages.push_back(message);
  m_added.NotifyAll();
}

}  // namespace station

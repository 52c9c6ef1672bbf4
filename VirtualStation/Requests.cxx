/// Sends one request in the envelope and reads the reply as one.
#include "VirtualStation/Requests.h"

#include <utility>

namespace station {

Requests::Requests(const Bus& bus, std::string interface, std::string member)
    : m_bus(bus), m_interface(std::move(interface)), m_member(std::move(member)) {}

std::optional<Envelope> Requests::Request(int cmd, const Json::Value& property) {
  return Request(MakeRequest(++m_snr, cmd, property));
}

std::optional<Envelope> Requests::Request(const std::string& text) {
  constexpr std::chrono::seconds kLimit(10);
  const std::optional<std::string> reply =
      m_bus.Call("/org/Upgread/object", m_interface, m_member, text, kLimit);
  return reply ? std::optional<Envelope>(ParseEnvelope(*reply)) : std::nullopt;
}

}  // namespace station

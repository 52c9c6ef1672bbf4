/// Requests and their answers. The web server and the panel rely on the names and codes, and on the order of
/// the checks: malformed, busy, refused.
#include "UpgradeFrame/AccessMng/RequestedSource.h"

#include <cstddef>
#include <utility>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

constexpr const char* kObject = "/org/Upgread/object";
constexpr const char* kRequestInterfaceName = "UpgradeRequest";

}  // namespace

std::array<std::atomic<RequestedSource*>, UP_CONNECT> RequestedSource::m_listening{};

RequestedSource::RequestedSource(const char* threadName, UPGRADEACCESSTYPE accessType,
                                 const AccessContext& access, const Service& service)
    : QVUpgradeAccessBase(threadName, accessType, access), m_service(service) {}

bool RequestedSource::_Listen() {
  m_listening[static_cast<size_t>(m_accessType)] = this;
  const bool registered = CDbusHandler::instance()->RegisteredServices(
      kObject, m_service.interface, m_service.method, m_service.callback, false);
  if (!registered) m_listening[static_cast<size_t>(m_accessType)] = nullptr;
  return registered;
}

void RequestedSource::_Unlisten() {
  CDbusHandler::instance()->UnRegisteredServices(kObject, m_service.interface, m_service.method);
  m_listening[static_cast<size_t>(m_accessType)] = nullptr;
}

std::string RequestedSource::HandleRequest(const std::string& text) {
  LOGI("%sRequest:%s", m_service.logName, Printable(text).c_str());
  IpcEnvelope::Request request;
  const bool isRequest = IpcEnvelope::ParseRequest(text, kRequestInterfaceName, request);
  const Answer answer = isRequest ? _Accept(request) : _Malformed();
  Json::Value payload;
  if (answer.code != REPLY_ACCEPTED) payload["ErrorMsg"] = answer.message;
  std::string reply =
      JsonUtils::ToCompactText(IpcEnvelope::Make(kRequestInterfaceName, IpcEnvelope::kTypeResponse,
                                                 request.snr, request.cmd, answer.code, std::move(payload)));
  LOGI("%sReply:%s", m_service.logName, reply.c_str());
  return reply;
}

RequestedSource::Answer RequestedSource::_AcceptPackage(const std::function<Answer()>& check,
                                                        const std::function<void()>& handOver) {
  if (!_Claim()) return _Busy();
  if (const Failure failure = _CheckBattery()) {
    _EndWithoutStart(failure);
    return {REPLY_REFUSED, kBatteryTooLow};
  }
  Answer answer = check();
  if (answer.code != REPLY_ACCEPTED) {
    m_access.claim.ReleaseClaim();
    return answer;
  }
  // First this: what the source's thread then reports is for the web server as well.
  UpgradeIpcMsg::GetUpgradeIpc()->SwitchWebReport(true);
  handOver();
  return answer;
}

void RequestedSource::_PackageEnded(const Failure& /*failure*/) {
  UpgradeIpcMsg::GetUpgradeIpc()->SwitchWebReport(false);
}

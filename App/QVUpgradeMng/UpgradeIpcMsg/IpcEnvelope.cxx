/// Builds and reads the JSON envelope. The key names and fixed values are agreed with every peer on the bus;
/// nothing here may be changed alone.
#include "UpgradeIpcMsg/IpcEnvelope.h"

#include <utility>

#include "BSW/BasicFun/JsonUtils.h"

namespace IpcEnvelope {

namespace {

constexpr const char* kProtocolType = "dbus";
constexpr const char* kProtocolVersion = "v1.0";
constexpr const char* kProjectNum = "9031";

}  // namespace

Json::Value Make(const char* interfaceName, const char* interfaceType, int snr, int cmd, int errorCode,
                 Json::Value propertyData) {
  Json::Value body(Json::objectValue);
  body["Cmd"] = cmd;
  body["ErrorCode"] = errorCode;
  body["PropertyData"] = std::move(propertyData);

  Json::Value envelope(Json::objectValue);
  envelope["ProtocolType"] = kProtocolType;
  envelope["ProtocolVersion"] = kProtocolVersion;
  envelope["Snr"] = snr;
  envelope["ProjectNum"] = kProjectNum;
  envelope["InterfaceName"] = interfaceName;
  envelope["InterfaceType"] = interfaceType;
  envelope["Data"] = std::move(body);
  return envelope;
}

bool ParseRequest(const std::string& text, const char* interfaceName, Request& request) {
  request = Request();
  Json::Value envelope;
  std::string error;
  if (!JsonUtils::Parse(text, envelope, error) || !envelope.isObject()) return false;

  // What the reply repeats is read first, so that a bad request is answered under its own number.
  JsonUtils::GetInt(envelope, "Snr", request.snr);
  const Json::Value& body = envelope["Data"];
  if (!JsonUtils::GetInt(body, "Cmd", request.cmd) ||
      JsonUtils::StringOr(envelope, "InterfaceName", "") != interfaceName ||
      JsonUtils::StringOr(envelope, "InterfaceType", "") != kTypeRequest) {
    return false;
  }
  const Json::Value& payload = body["PropertyData"];
  if (!payload.isNull() && !payload.isObject()) return false;
  request.propertyData = payload;
  return true;
}

}  // namespace IpcEnvelope

/// The JSON envelope of every IPC message: built for the panel and the web server, parsed from their
/// requests. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>

namespace IpcEnvelope {

/// A received request.
struct Request {
  int snr = 0;  ///< the sender's serial number, 0 when it gave none
  int cmd = 0;
  Json::Value propertyData;  ///< an object, or null
};

inline constexpr const char* kTypeSignal = "signal";
inline constexpr const char* kTypeRequest = "request";
inline constexpr const char* kTypeResponse = "response";

Json::Value Make(const char* interfaceName, const char* interfaceType, int snr, int cmd, int errorCode,
                 Json::Value propertyData);

/// Parses a request of `interfaceName`. False for anything malformed: no JSON, another interface or type, no
/// command code, a payload that is no object. `request.snr` and `request.cmd` hold what could be read even
/// then.
bool ParseRequest(const std::string& text, const char* interfaceName, Request& request);

}  // namespace IpcEnvelope

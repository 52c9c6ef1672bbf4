/// The JSON envelope as the daemon's peers know it; written apart from the daemon's own codec, so that
/// neither hides the other's mistakes. Used by the peers.
#pragma once

#include <json/json.h>

#include <string>

namespace station {

/// A message that a peer received. Fields hold what could be read.
struct Envelope {
  std::string text;   ///< as received
  std::string fault;  ///< empty when the envelope is well formed, else what is wrong with it
  std::string interfaceName, interfaceType;
  int snr = 0;
  int cmd = 0;
  int errorCode = 0;
  Json::Value property;  ///< "PropertyData"
};

/// Checks that all keys of the envelope are there, of the right type and in no other company.
Envelope ParseEnvelope(const std::string& text);

/// A request as the web server and the panel send it.
std::string MakeRequest(int snr, int cmd, const Json::Value& property);

}  // namespace station

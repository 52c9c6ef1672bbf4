/// Reads and checks the envelope's keys with jsoncpp.
#include "VirtualStation/Envelope.h"

#include <memory>
#include <set>
#include <vector>

namespace station {
namespace {

constexpr const char* kProjectNum = "9031";

/// What is wrong with the keys of an object, or nothing.
std::string KeyFault(const Json::Value& object, const std::set<std::string>& keys) {
  if (!object.isObject()) {
    return "not an object";
  }
  const std::vector<std::string> names = object.getMemberNames();
  return std::set<std::string>(names.begin(), names.end()) == keys ? "" : "other keys than the protocol's";
}

std::string Fault(const Json::Value& root) {
  std::string fault = KeyFault(root, {"ProtocolType", "ProtocolVersion", "Snr", "ProjectNum", "InterfaceName",
                                      "InterfaceType", "Data"});
  if (!fault.empty()) {
    return "envelope: " + fault;
  }
  if (root["ProtocolType"] != "dbus" || root["ProtocolVersion"] != "v1.0" ||
      root["ProjectNum"] != kProjectNum) {
    return "wrong protocol or project";
  }
  if (!root["Snr"].isInt() || !root["InterfaceName"].isString() || !root["InterfaceType"].isString()) {
    return "a field has the wrong type";
  }
  const Json::Value& data = root["Data"];
  fault = KeyFault(data, {"Cmd", "ErrorCode", "PropertyData"});
  if (!fault.empty()) {
    return "Data: " + fault;
  }
  return data["Cmd"].isInt() && data["ErrorCode"].isInt() ? "" : "Data: a code is no integer";
}

}  // namespace

Envelope ParseEnvelope(const std::string& text) {
  Envelope envelope;
  envelope.text = text;
  Json::Value root;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &envelope.fault)) {
    return envelope;
  }
  envelope.fault = Fault(root);
  if (envelope.fault.empty()) {
    envelope.interfaceName = root["InterfaceName"].asString();
    envelope.interfaceType = root["InterfaceType"].asString();
    envelope.snr = root["Snr"].asInt();
    envelope.cmd = root["Data"]["Cmd"].asInt();
    envelope.errorCode = root["Data"]["ErrorCode"].asInt();
    envelope.property = root["Data"]["PropertyData"];
  }
  return envelope;
}

std::string MakeRequest(int snr, int cmd, const Json::Value& property) {
  Json::Value root;
  root["ProtocolType"] = "dbus";
  root["ProtocolVersion"] = "v1.0";
  root["Snr"] = snr;
  root["ProjectNum"] = kProjectNum;
  root["InterfaceName"] = "UpgradeRequest";
  root["InterfaceType"] = "request";
  root["Data"]["Cmd"] = cmd;
  root["Data"]["ErrorCode"] = 0;
  root["Data"]["PropertyData"] = property;
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  return Json::writeString(compact, root);
}

}  // namespace station

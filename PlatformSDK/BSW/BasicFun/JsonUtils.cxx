/// JSON in and out. Every document of the daemon, from a file or from the bus, passes here; the bounds and
/// the form of the text on the bus may only be changed together with its peers.
#include "BSW/BasicFun/JsonUtils.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include "BSW/BasicFun/FileUtils.h"

namespace JsonUtils {

bool Parse(std::string_view text, Json::Value& value, std::string& error) {
  if (text.size() > kMaxDocumentBytes) {
    error = "document too large";
    return false;
  }
  try {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["stackLimit"] = kMaxDepth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, &error);
  } catch (const std::exception& exception) {
    error = exception.what();
  }
  return false;
}

bool ReadFileToJson(const std::string& path, Json::Value& value, std::string* error) {
  std::string text;
  std::string reason;
  bool read = ReadFileToString(path, kMaxDocumentBytes, text);
  if (read) {
    read = Parse(text, value, reason);
  } else {
    reason = std::strerror(errno);
  }
  if (error != nullptr) *error = reason;
  return read;
}

bool WriteFileToJson(const std::string& path, const Json::Value& value, bool styled) {
  return WriteFileAtomic(path, styled ? ToStyledText(value) : ToCompactText(value));
}

std::string ToCompactText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value) + "\n";
}

std::string ToStyledText(const Json::Value& value) {
  return value.toStyledString();
}

bool GetString(const Json::Value& object, const char* key, std::string& out) {
  if (!object.isObject() || !object[key].isString()) return false;
  out = object[key].asString();
  return true;
}

bool GetInt(const Json::Value& object, const char* key, int& out) {
  if (!object.isObject() || !object[key].isInt()) return false;
  out = object[key].asInt();
  return true;
}

std::string StringOr(const Json::Value& object, const char* key, const std::string& fallback) {
  std::string text;
  return GetString(object, key, text) ? text : fallback;
}

}  // namespace JsonUtils

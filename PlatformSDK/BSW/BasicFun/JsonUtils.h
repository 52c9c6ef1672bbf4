/// JSON as the daemon reads and writes it. Everything read here may come from outside: size and depth are
/// bounded, a wrong type is an answer and not an exception, and nothing throws.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace JsonUtils {

/// The largest document that is read, in bytes, and the deepest nesting that is followed.
constexpr size_t kMaxDocumentBytes = 1024U * 1024U;
constexpr int kMaxDepth = 64;

/// Parses exactly one document without comments or anything after it. False with the reason in `error`.
bool Parse(std::string_view text, Json::Value& value, std::string& error);

/// Reads and parses a file. False with the reason in `error`, where wanted.
bool ReadFileToJson(const std::string& path, Json::Value& value, std::string* error = nullptr);

/// Replaces the file in one step (WriteFileAtomic): indented when `styled`, else one line. False leaves the
/// old file.
bool WriteFileToJson(const std::string& path, const Json::Value& value, bool styled);

/// One line without blanks, ended by a newline: the form of every message on the bus.
std::string ToCompactText(const Json::Value& value);

/// Indented text, for files that people read and for log lines.
std::string ToStyledText(const Json::Value& value);

/// Member `key` of `object` when it is there and has the type; false otherwise, also when `object` is no
/// object.
bool GetString(const Json::Value& object, const char* key, std::string& out);
bool GetInt(const Json::Value& object, const char* key, int& out);

/// Member `key` as a text, or `fallback` when it is missing or no text.
std::string StringOr(const Json::Value& object, const char* key, const std::string& fallback);

}  // namespace JsonUtils

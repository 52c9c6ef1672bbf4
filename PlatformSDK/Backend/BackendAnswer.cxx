/// Reads the answer in two steps: a flat table of its members, then the table's check. RapidJSON's event
/// parser is ended before it goes deeper than it may, so that neither depth nor a wrong type can end it
/// otherwise than with an error.
#include "Backend/BackendAnswer.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/StringUtils.h"
#include "Backend/AllowedAddress.h"
#include "Backend/PartFile.h"

namespace Quorvalen {
namespace {

/// Deeper documents are refused; the answer itself takes two levels.
constexpr size_t kMaxDepth = 8;
/// Of a version, and of the backend's own message.
constexpr size_t kMaxTextBytes = 255;

enum class Level { Answer, Data, Unknown };

struct Value {
  enum class Kind { Null, Text, Count, Object, Other };
  Kind kind = Kind::Other;
  std::string text;
  uint64_t count = 0;
};

using Table = std::map<std::pair<Level, std::string>, Value>;

template <class Integer>
bool IsInteger(std::string_view text, Integer& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

/// A number as it stands in the answer. One that is no integer, or too large for one, has no text.
Value NumberFrom(std::string_view text) {
  uint64_t count = 0;
  if (IsInteger(text, count)) return {Value::Kind::Count, std::to_string(count), count};
  int64_t negative = 0;
  if (IsInteger(text, negative)) return {Value::Kind::Other, std::to_string(negative), 0};
  return {};
}

/// Takes the parser's events; a false ends it. The base makes the events of numbers that the parser no longer
/// sends.
class TableFiller : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TableFiller> {
 public:
  explicit TableFiller(Table& table) : m_table(table) {}

  /// Why it ended the parser; "" when it did not.
  const std::string& Objection() const { return m_strObjection; }

  bool Null() { return _Put({Value::Kind::Null, "", 0}); }
  bool Bool(bool /*value*/) { return _Put({}); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    return _Put(NumberFrom({text, length}));
  }
  bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    return _Put({Value::Kind::Text, std::string(text, length), 0});
  }
  bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    m_strKey.assign(text, length);
    return true;
  }
  bool StartObject() {
    if (m_levels.empty()) return _Enter(Level::Answer);
    const bool isData = m_levels.back() == Level::Answer && m_strKey == "data";
    return _Put({Value::Kind::Object, "", 0}) && _Enter(isData ? Level::Data : Level::Unknown);
  }
  bool EndObject(rapidjson::SizeType /*members*/) { return _Leave(); }
  bool StartArray() { return _Put({}) && _Enter(Level::Unknown); }
  bool EndArray(rapidjson::SizeType /*elements*/) { return _Leave(); }

 private:
  bool _Put(Value value) {
    if (m_levels.empty() || m_levels.back() == Level::Unknown) return true;
    if (m_table.emplace(std::make_pair(m_levels.back(), m_strKey), std::move(value)).second) return true;
    m_strObjection = "a member comes twice";
    return false;
  }
  bool _Enter(Level level) {
    m_levels.push_back(level);
    if (m_levels.size() <= kMaxDepth) return true;
    m_strObjection = "it is nested too deeply";
    return false;
  }
  bool _Leave() {
    m_levels.pop_back();
    return true;
  }

  Table& m_table;
  std::vector<Level> m_levels;
  std::string m_strKey;
  std::string m_strObjection;
};

bool FillTable(const std::string& text, Table& table, std::string& error) {
  if (text.size() > kMaxAnswerBytes) {
    error = FormatText("it is longer than %zu bytes", kMaxAnswerBytes);
    return false;
  }
  // Before the parser sees it: a NUL would be the end to it, and its own check reads past a cut-off
  // character.
  if (!IsValidUtf8(text)) {
    error = "it is no UTF-8 text";
    return false;
  }
  std::string buffer = text;  // the parser puts the texts together in place
  rapidjson::InsituStringStream stream(buffer.data());
  rapidjson::Reader reader;
  TableFiller filler(table);
  // Numbers stay text: the parser's own arithmetic with exponents reads past its tables when one is far below
  // zero.
  constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, filler);
  if (!result.IsError()) return true;
  error = filler.Objection().empty() ? rapidjson::GetParseError_En(result.Code()) : filler.Objection();
  return false;
}

const Value* Find(const Table& table, Level level, const char* key, Value::Kind kind) {
  const auto found = table.find({level, key});
  return found != table.end() && found->second.kind == kind ? &found->second : nullptr;
}

/// A text that may be sent on the bus.
bool FindText(const Table& table, Level level, const char* key, std::string& text) {
  const Value* const value = Find(table, level, key, Value::Kind::Text);
  if (value == nullptr || !IsValidUtf8(value->text)) return false;
  text = value->text;
  return true;
}

/// One that may be logged as well: a line break could forge a log line, an escape sequence the terminal.
bool FindLine(const Table& table, Level level, const char* key, std::string& text) {
  return FindText(table, level, key, text) && !HasControlCharacter(text);
}

/// What the backend says when it refuses; "" when it does not.
std::string Refusal(const Table& table) {
  const auto code = table.find({Level::Answer, "code"});
  if (code == table.end() || code->second.text.empty() || code->second.kind == Value::Kind::Text) {
    return "it has no code";
  }
  if (code->second.text == "0") return {};
  std::string message;
  if (!FindLine(table, Level::Answer, "message", message) || message.size() > kMaxTextBytes) message.clear();
  return "code " + code->second.text + ": " + message;
}

bool ReadPackage(const Table& table, PackageInfo& package, std::string& error) {
  const auto isLine = [&](const char* key, std::string& text) {
    return FindLine(table, Level::Data, key, text);
  };
  const Value* const size = Find(table, Level::Data, "size", Value::Kind::Count);
  package.size = size != nullptr ? size->count : 0;
  const bool hasNote = table.find({Level::Data, "releaseNote"}) != table.end() &&
                       Find(table, Level::Data, "releaseNote", Value::Kind::Null) == nullptr;

  if (!isLine("softVersion", package.softVersion) || package.softVersion.empty() ||
      package.softVersion.size() > kMaxTextBytes) {
    error = "its \"softVersion\" is no version";
  } else if (!isLine("fileName", package.fileName) || !PartFile::IsUsableName(package.fileName)) {
    error = "its \"fileName\" is no plain file name";
  } else if (package.size == 0 || package.size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    error = "its \"size\" is no size";
  } else if (!isLine("md5", package.md5) || !md5::IsDigest(package.md5)) {
    error = "its \"md5\" is not 32 lower-case hex digits";
  } else if (hasNote && !FindText(table, Level::Data, "releaseNote", package.releaseNote)) {
    error = "its \"releaseNote\" is no text";
  } else if (!isLine("url", package.url)) {
    error = "its \"url\" is no address";
  } else {
    return IsAllowedAddress(package.url, error);
  }
  return false;
}

/// What is wrong with the answer; "" when nothing is.
std::string Objection(const std::string& text, QueryResult& result) {
  Table table;
  std::string error;
  if (!FillTable(text, table, error)) return error;
  error = Refusal(table);
  if (!error.empty() || Find(table, Level::Answer, "data", Value::Kind::Null) != nullptr) return error;
  if (Find(table, Level::Answer, "data", Value::Kind::Object) == nullptr) return "it has no data";
  PackageInfo package;
  if (!ReadPackage(table, package, error)) return error;
  result.package = std::move(package);
  return {};
}

}  // namespace

QueryResult ParseBackendAnswer(const std::string& text) {
  QueryResult result;
  const std::string objection = Objection(text, result);
  if (!objection.empty()) result.error = "the answer is not usable: " + objection;
  return result;
}

}  // namespace Quorvalen

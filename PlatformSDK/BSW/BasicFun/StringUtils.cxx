/// Text helpers. What guards against texts from outside (IsPlainFileName, ShellQuote, IsValidUtf8,
/// IsVersionText, Printable) has its one home here: widen a rule only together with the tests that attack it.
#include "BSW/BasicFun/StringUtils.h"

#include <algorithm>
#include <cstdio>

namespace {

bool NeedsNoQuoting(char c) {
  constexpr std::string_view kPlainMarks = "_./:=@%+,-";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kPlainMarks.find(c) != std::string_view::npos;
}

bool IsControl(char c) {
  constexpr unsigned char kDelete = 0x7F;
  const auto byte = static_cast<unsigned char>(c);
  return byte < ' ' || byte == kDelete;
}

/// Length in bytes of the well-formed UTF-8 sequence at the start of `text`, 0 when there is none.
size_t Utf8SequenceLength(std::string_view text) {
  const auto byteAt = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byteAt(0);
  if (lead < 0x80U) return 1;
  if (lead < 0xC2U || lead > 0xF4U) return 0;
  const size_t length = lead < 0xE0U ? 2 : lead < 0xF0U ? 3 : 4;
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0U) != 0x80U) return 0;
  }
  const unsigned second = byteAt(1);
  const bool overlong = (lead == 0xE0U && second < 0xA0U) || (lead == 0xF0U && second < 0x90U);
  const bool surrogate = lead == 0xEDU && second > 0x9FU;
  const bool beyondUnicode = lead == 0xF4U && second > 0x8FU;
  return overlong || surrogate || beyondUnicode ? 0 : length;
}

}  // namespace

std::string_view BaseName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), IsControl);
}

bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxFileNameBytes && name != "." &&
         name.find('/') == std::string_view::npos && !HasControlCharacter(name) &&
         name.find("..") == std::string_view::npos;
}

std::string ShellQuote(std::string_view word) {
  if (!word.empty() && std::all_of(word.begin(), word.end(), NeedsNoQuoting)) return std::string(word);
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += R"('\'')";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  for (size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator, begin)) {
    parts.emplace_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.emplace_back(text.substr(begin));
  return parts;
}

bool IsValidUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = Utf8SequenceLength(text);
    if (length == 0 || text.front() == '\0') return false;
    text.remove_prefix(length);
  }
  return true;
}

bool IsVersionText(std::string_view text) {
  constexpr size_t kMaxVersionBytes = 255;
  return text.size() <= kMaxVersionBytes && IsValidUtf8(text) && !HasControlCharacter(text);
}

std::string Printable(std::string_view text, size_t maxBytes) {
  std::string printable(text.substr(0, maxBytes));
  std::replace_if(printable.begin(), printable.end(), IsControl, ' ');
  if (text.size() > maxBytes) printable += "...";
  return printable;
}

std::string FormatText(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatTextV(format, args);
  va_end(args);
  return text;
}

std::string FormatTextV(const char* format, va_list args) {
  constexpr size_t kFirstSize = 1024;
  constexpr size_t kLargestFailedSize = 1024U * 1024U;  // a format that still fails here never succeeds
  std::string buffer(kFirstSize, '\0');
  for (;;) {
    va_list attempt;
    va_copy(attempt, args);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), format, attempt);
    va_end(attempt);
    if (length < 0) {
      if (buffer.size() >= kLargestFailedSize) return {};
      buffer.resize(buffer.size() * 2);
    } else if (static_cast<size_t>(length) >= buffer.size()) {
      buffer.resize(static_cast<size_t>(length) + 1);
    } else {
      buffer.resize(static_cast<size_t>(length));
      return buffer;
    }
  }
}

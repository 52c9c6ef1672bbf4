/// Text helpers: names that come from outside, shell quoting, and printf into a string.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The longest file name the daemon looks at, in bytes (NAME_MAX of Linux file systems).
constexpr size_t kMaxFileNameBytes = 255;

/// The text after the last "/"; the whole text when it has none.
std::string_view BaseName(std::string_view path);

/// True for a name that stays in its directory: 1 to 255 bytes, not ".", without "/" and NUL, and without
/// ".." anywhere.
bool IsPlainFileName(std::string_view name);

/// `word` as one word for /bin/sh. A word of letters, digits and "_./:=@%+,-" alone comes back as it is, so
/// that ordinary commands read as written; anything else is put in single quotes.
std::string ShellQuote(std::string_view word);

/// The parts of `text` between the separators, empty ones included; at least one.
std::vector<std::string> Split(std::string_view text, char separator);

/// True when `text` is well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates) without NUL.
bool IsValidUtf8(std::string_view text);

/// printf into a string of the needed length; empty when the format cannot be printed.
std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// The same for a list of arguments, which is left as it was.
std::string FormatTextV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

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

/// True when a byte below 0x20 or 0x7F is in it: what ends a line or moves a cursor.
bool HasControlCharacter(std::string_view text);

/// True for a name that stays in its directory: 1 to 255 bytes, not ".", without "/" and control characters,
/// and without ".." anywhere.
bool IsPlainFileName(std::string_view name);

/// `word` as one word for /bin/sh. A word of letters, digits and "_./:=@%+,-" alone comes back as it is, so
/// that ordinary commands read as written; anything else is put in single quotes.
std::string ShellQuote(std::string_view word);

/// The parts of `text` between the separators, empty ones included; at least one.
std::vector<std::string> Split(std::string_view text, char separator);

/// True when `text` is well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates) without NUL.
bool IsValidUtf8(std::string_view text);

/// True for what may be kept and shown as a version: up to 255 bytes of well-formed UTF-8 without control
/// characters. May be empty.
bool IsVersionText(std::string_view text);

/// The most that a log line repeats of a text from outside, in bytes.
constexpr size_t kMaxPrintedBytes = 1024;

/// A text from outside as it may stand in a log line: a control character becomes a blank, so that it neither
/// begins a line of its own nor reaches a terminal, and what goes beyond `maxBytes` becomes "...".
std::string Printable(std::string_view text, size_t maxBytes = kMaxPrintedBytes);

/// printf into a string of the needed length; empty when the format cannot be printed.
std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// The same for a list of arguments, which is left as it was.
std::string FormatTextV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

/// The version of a chip's or a portable part's firmware as its wire carries it: four numbers of one byte.
/// What stands before them in a text differs from device to device and is the caller's. Stateless.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

using VersionNumbers = std::array<uint8_t, 4>;

/// Reads "1.0.6.30": exactly four decimal numbers up to 255. Empty for anything else.
std::optional<VersionNumbers> ParseVersionNumbers(std::string_view text);

/// "%u.%u.%u.%02u".
std::string VersionNumbersText(const VersionNumbers& numbers);

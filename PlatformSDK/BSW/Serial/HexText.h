/// Bytes as text for traffic dumps.
#pragma once

#include <cstddef>
#include <string>

/// Every byte as two lower-case digits and a blank: "aa dd 07 ".
std::string HexText(const void* data, size_t length);

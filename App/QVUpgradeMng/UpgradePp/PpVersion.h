/// The one form in which software versions of portable parts are kept and compared: "S", four numbers, the
/// last with at least two digits ("S1.0.2.05"). Package names may write it without the padding. Stateless.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace PpVersion {

/// "S" a "." b "." c "." d, d with at least two digits.
std::string Format(uint8_t a, uint8_t b, uint8_t c, uint8_t d);

/// Takes `text` as a whole for "[S]a.b.c.d" and gives it in the one form, or "" when it is no version or a
/// number is over 255.
std::string Normal(const std::string& text);

/// The four numbers of a version, one byte each; empty when `text` is no version.
std::vector<uint8_t> Numbers(const std::string& text);

}  // namespace PpVersion

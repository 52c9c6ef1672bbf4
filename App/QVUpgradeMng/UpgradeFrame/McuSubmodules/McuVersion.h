/// A version of the MCU's firmware: four numbers, compared one by one. The upgrader compares the running one
/// with the package's; the frame compares what the MCU says with what the record holds.
#pragma once

#include <optional>
#include <string>

#include "BSW/BasicFun/VersionNumbers.h"

/// A plain value. Each number fits the byte that it has on the wire.
struct McuVersion {
  VersionNumbers numbers{};

  /// Reads "1.0.6.30" or "V1.0.6.30": exactly four decimal numbers up to 255. Empty for anything else.
  static std::optional<McuVersion> Parse(const std::string& text);

  /// "%u.%u.%u.%02u".
  [[nodiscard]] std::string Text() const;

  bool operator==(const McuVersion& other) const { return numbers == other.numbers; }
  bool operator!=(const McuVersion& other) const { return numbers != other.numbers; }
  bool operator<(const McuVersion& other) const { return numbers < other.numbers; }
};

/// What the VirtualStation program can show. Each scenario runs inside the box, on a station of its own, and
/// judges what it sees.
#pragma once

#include <vector>

#include "VirtualStation/Screen.h"

namespace station {

struct Scenario {
  const char* name;
  const char* about;
  /// Prints to the screen; false when the station did not do what it should. `pauseDivisor`: see
  /// StationOptions.
  bool (*run)(Screen& screen, unsigned pauseDivisor);
};

/// All of them, the one that run-station shows first.
const std::vector<Scenario>& Scenarios();

}  // namespace station

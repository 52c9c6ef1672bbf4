/// The box: a private world in which the base station's fixed paths and devices are real and nothing reaches
/// the host. The main function of every program with a virtual station calls RunInBox before it starts a
/// thread.
#pragma once

#include <functional>

namespace station {

/// Where the station keeps what belongs to the simulation and not to the simulated machine (inside the box).
inline constexpr const char* kStationDir = "/run/station";

/// Runs `body` as a process inside a new box and gives its exit status (128 + signal when a signal ended it,
/// 1 with a message on stderr when the box cannot be made, for instance for want of root). Its root is an
/// overlay over the host's, with /dev, /sys, /proc, /run, processes and network of its own; everything ends
/// when `body` does. SIGINT, SIGTERM and SIGHUP end the box at once. The caller must be single-threaded.
int RunInBox(const std::function<int()>& body);

}  // namespace station

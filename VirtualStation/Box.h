/// The box: a private world in which the base station's fixed paths and devices are real and nothing reaches
/// the host. The main function of every program with a virtual station calls RunInBox before it starts a
/// thread.
#pragma once

#include <functional>
#include <string>

namespace station {

/// Where the station keeps what belongs to the simulation and not to the simulated machine (inside the box).
inline constexpr const char* kStationDir = "/run/station";

/// Runs `body` as a process inside a new box and gives its exit status (128 + signal when a signal ended it,
/// 1 with a message on stderr when the box cannot be made, for instance for want of root). Its root is an
/// overlay over the host's, with /dev, /sys, /proc, /run, processes and network of its own; everything ends
/// when `body` does. SIGINT, SIGTERM and SIGHUP end the box at once. The caller must be single-threaded.
int RunInBox(const std::function<int()>& body);

/// The source of "/" of a new box.
inline constexpr const char* kUntoldRoot = "box";

/// From here on the mount table of every process of the box names `source` as what is mounted on "/". All
/// directories, files and mounts stay; a directory directly below "/" that holds something becomes a mount of
/// its own. No process of the simulated machine may run. Inside the box only.
void SetRootSource(const std::string& source);

}  // namespace station

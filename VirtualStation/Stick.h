/// A USB stick: /dev/sda with one partition (or none) that holds an ext4 with the given files. Owned by
/// Station.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VirtualStation/Disk.h"

namespace station {

struct StickOptions {
  bool mounted = true;      ///< the system mounts it at /run/media/<node>; else that is left to the daemon
  bool partitioned = true;  ///< /dev/sda1 beside /dev/sda
};

/// The constructor plugs it in. One thread.
class Stick {
 public:
  Stick(const std::vector<std::string>& files, const StickOptions& options);
  /// Pulls it out if it is still in.
  ~Stick();

  /// Every access fails from now on, the nodes vanish, and the system lets go of its mount.
  void Pull();

 private:
  std::unique_ptr<Disk> m_disk;
  std::vector<std::string> m_nodes;
  std::string m_mountPoint;  ///< of the system's mount; empty without one
};

}  // namespace station

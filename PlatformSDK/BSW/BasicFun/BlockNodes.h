/// The names of SCSI and USB disks and their partitions below "/dev": "/dev/sda", "/dev/sda1". Whoever takes
/// a stick or a belt pack's storage asks here what a node is. Stateless; any thread.
#pragma once

#include <string>

namespace BlockNodes {

/// What the hot-plug monitor is asked for; more than disks matches it.
inline constexpr const char* kWatchPattern = "/dev/sd.*";

/// True for the node of a disk or of a partition.
bool IsNode(const std::string& path);
/// The disk that a node belongs to; a disk's own node as it is.
std::string DiskOf(const std::string& node);
bool IsWholeDisk(const std::string& node);
/// The order of partitions: "sda2" before "sda10".
bool ComesBefore(const std::string& left, const std::string& right);

}  // namespace BlockNodes

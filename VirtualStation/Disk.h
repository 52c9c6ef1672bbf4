/// One block device of the simulated machine: a sparse image on the box's tmpfs behind a loop device, under
/// the node names that the daemon expects. Used by Disks and Stick.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace station {

/// One thread at a time. The destructor unmounts and detaches; the kernel detaches too when the process ends.
class Disk {
 public:
  /// `name` is the image's name; `size` in bytes. Halts when there is no loop device to be had.
  Disk(const std::string& name, std::uint64_t size);
  ~Disk();
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  /// Makes an ext4, with a journal, so that a cut in the power leaves it consistent.
  void Format(const std::string& label);
  /// Creates a block node for this device (hot-plug monitors see it appear), and removes it again.
  void MakeNode(const std::string& path);
  void RemoveNode(const std::string& path);

  /// Mounts at `directory`, which is created. False when there is no readable file system on the device.
  bool Mount(const std::string& node, const std::string& directory);

  /// Unmounts wherever it is mounted, everything written.
  void Unmount() const;
  /// Unmounts wherever it is mounted, and what had not reached the device is lost, as in a cut of the power.
  void DropAndUnmount() const;
  /// Every further access through any mount of the device fails with EIO, also for what is cached.
  void FailAllAccess() const;

  /// Where it is mounted now, oldest first.
  std::vector<std::string> MountPoints() const;
  /// Bytes [offset, offset + length) as they are on the device.
  std::string Read(std::uint64_t offset, std::size_t length) const;

 private:
  std::string m_image;
  std::string m_loopNode;
  unsigned m_device = 0;  ///< minor number of the loop device
  int m_loopFd = -1;
  std::vector<std::string> m_nodes;
};

}  // namespace station

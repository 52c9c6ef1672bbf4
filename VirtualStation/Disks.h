/// The fixed storage of the base station: both sets of partitions, the eMMC user and boot areas, /firmware
/// and the settings. Owned by Station, which decides when to mount.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "VirtualStation/Disk.h"

namespace station {

enum class Partition { A, B };

inline Partition Other(Partition p) {
  return p == Partition::A ? Partition::B : Partition::A;
}

class Disks {
 public:
  /// `firmwareBytes` is the size of /firmware. All file systems are made, none is mounted.
  explicit Disks(std::uint64_t firmwareBytes);

  /// Mounts everything, with `running` as the partition that the machine runs from: its root file system lies
  /// at RootfsDir and not below /run/media. A file system that was torn by a cut in the power stays unmounted
  /// when the machine can run without it (the other partition's), and halts otherwise.
  void MountAll(Partition running);
  /// The settings alone, from which the boot loader reads the markers.
  void MountSettings();
  void UnmountAll();
  /// Unmounts all and loses what had not reached the disks.
  void CutPower();

  /// Directories of a partition, valid while mounted: "/app_A", "/run/media/mmcblk2p1", and so on.
  static std::string AppDir(Partition p);
  static std::string SystemDir(Partition p);
  std::string RootfsDir(Partition p) const;
  /// The node of its root file system: "/dev/mmcblk2p2", "/dev/mmcblk2p3".
  static std::string RootfsNode(Partition p);

  Disk& App(Partition p) { return *m_disks.at(p == Partition::A ? "app_A" : "app_B"); }
  Disk& System(Partition p) { return *m_disks.at(p == Partition::A ? "mmcblk2p1" : "mmcblk2p5"); }
  Disk& Rootfs(Partition p) { return *m_disks.at(p == Partition::A ? "mmcblk2p2" : "mmcblk2p3"); }
  /// The eMMC's user area ("/dev/mmcblk2", the boot image lies at 32 KiB) and its boot area
  /// ("/dev/mmcblk2boot0").
  Disk& UserArea() { return *m_disks.at("mmcblk2"); }
  Disk& BootArea() { return *m_disks.at("mmcblk2boot0"); }
  Disk& Firmware() { return *m_disks.at("firmware"); }

 private:
  std::map<std::string, std::unique_ptr<Disk>> m_disks;
  Partition m_running = Partition::A;
};

}  // namespace station

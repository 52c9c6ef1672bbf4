/// The table of partitions with their sizes, and in which order the machine mounts them.
#include "VirtualStation/Disks.h"

#include <sys/mount.h>

#include <cerrno>
#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

constexpr std::uint64_t kMiB = 1ULL << 20;
constexpr const char* kSettings = "settings";
/// These are directories of one file system.
constexpr const char* kSettingsDirs[] = {"/qv_config", "/qv_data", "/var"};

std::string SettingsDir() {
  return std::string(kStationDir) + "/settings";
}

/// All but the settings are named after their node, or the partition's mount point where the daemon knows no
/// node.
std::string Node(const std::string& name) {
  return "/dev/" + name;
}

const char* RootfsName(Partition p) {
  return p == Partition::A ? "mmcblk2p2" : "mmcblk2p3";
}

}  // namespace

Disks::Disks(std::uint64_t firmwareBytes) {
  struct Item {
    const char* name;
    std::uint64_t size;
    bool formatted;
  };
  const Item items[] = {{"mmcblk2", 16 * kMiB, false},  {"mmcblk2boot0", 4 * kMiB, false},
                        {"mmcblk2p1", 32 * kMiB, true}, {"mmcblk2p5", 32 * kMiB, true},
                        {"mmcblk2p2", 64 * kMiB, true}, {"mmcblk2p3", 64 * kMiB, true},
                        {"app_A", 48 * kMiB, true},     {"app_B", 48 * kMiB, true},
                        {kSettings, 16 * kMiB, true},   {"firmware", firmwareBytes, true}};
  for (const Item& item : items) {
    auto& disk = m_disks[item.name] = std::make_unique<Disk>(item.name, item.size);
    disk->MakeNode(Node(item.name));
    if (item.formatted) {
      disk->Format(item.name);
    }
  }
}

void Disks::MountSettings() {
  if (!m_disks.at(kSettings)->MountPoints().empty()) {
    return;
  }
  if (!m_disks.at(kSettings)->Mount(Node(kSettings), SettingsDir())) {
    Halt("the settings cannot be mounted", errno);
  }
  for (const char* directory : kSettingsDirs) {
    const std::string source = SettingsDir() + directory;
    std::filesystem::create_directories(source);
    std::filesystem::create_directories(directory);
    if (mount(source.c_str(), directory, nullptr, MS_BIND, nullptr) != 0) {
      Halt(std::string("cannot mount ") + directory, errno);
    }
  }
}

void Disks::MountAll(Partition running) {
  m_running = running;
  MountSettings();
  const auto mountDisk = [&](const std::string& name, const std::string& directory, bool needed) {
    if (!m_disks.at(name)->Mount(Node(name), directory) && needed) {
      Halt("the station does not boot: cannot mount " + directory, errno);
    }
  };
  mountDisk("firmware", "/firmware", true);
  for (const Partition p : {Partition::A, Partition::B}) {
    const bool needed = p == running;
    mountDisk(p == Partition::A ? "app_A" : "app_B", AppDir(p), needed);
    mountDisk(p == Partition::A ? "mmcblk2p1" : "mmcblk2p5", SystemDir(p), needed);
    mountDisk(RootfsName(p), RootfsDir(p), needed);
  }
}

void Disks::UnmountAll() {
  for (auto& [name, disk] : m_disks) {
    disk->Unmount();
  }
}

void Disks::CutPower() {
  for (auto& [name, disk] : m_disks) {
    disk->DropAndUnmount();
  }
}

std::string Disks::AppDir(Partition p) {
  return p == Partition::A ? "/app_A" : "/app_B";
}

std::string Disks::SystemDir(Partition p) {
  return p == Partition::A ? "/run/media/mmcblk2p1" : "/run/media/mmcblk2p5";
}

std::string Disks::RootfsDir(Partition p) const {
  return p == m_running ? std::string(kStationDir) + "/rootfs" : std::string("/run/media/") + RootfsName(p);
}

std::string Disks::RootfsNode(Partition p) {
  return Node(RootfsName(p));
}

}  // namespace station

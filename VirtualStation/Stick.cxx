/// Formats the stick, puts its files on it, and plugs and pulls its nodes as the kernel would.
#include "VirtualStation/Stick.h"

#include <sys/mount.h>

#include <cerrno>
#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {

namespace fs = std::filesystem;

Stick::Stick(const std::vector<std::string>& files, const StickOptions& options) {
  std::uint64_t bytes = 0;
  for (const std::string& file : files) {
    bytes += fs::file_size(file);
  }
  constexpr std::uint64_t kOverhead = 16ULL << 20;
  m_disk = std::make_unique<Disk>("stick", bytes + bytes / 8 + kOverhead);
  m_disk->Format("STICK");
  // Filled under a node and a mount point that the daemon does not look at.
  const std::string hidden = std::string(kStationDir) + "/stick";
  m_disk->MakeNode(hidden + ".node");
  if (!m_disk->Mount(hidden + ".node", hidden)) {
    Halt("cannot mount the new stick", errno);
  }
  for (const std::string& file : files) {
    std::error_code error;
    fs::copy_file(file, hidden + "/" + fs::path(file).filename().string(), error);
    if (error) {
      Halt("cannot fill the stick with " + file + ": " + error.message());
    }
  }
  m_disk->Unmount();
  m_disk->RemoveNode(hidden + ".node");

  m_nodes = {"/dev/sda"};
  if (options.partitioned) {
    m_nodes.emplace_back("/dev/sda1");
  }
  for (const std::string& node : m_nodes) {
    m_disk->MakeNode(node);
  }
  if (options.mounted) {
    m_mountPoint = "/run/media/" + fs::path(m_nodes.back()).filename().string();
    if (!m_disk->Mount(m_nodes.back(), m_mountPoint)) {
      Halt("cannot mount the stick", errno);
    }
  }
}

Stick::~Stick() {
  Pull();
  for (const std::string& point : m_disk->MountPoints()) {
    umount2(point.c_str(), MNT_DETACH);
  }
}

void Stick::Pull() {
  if (m_nodes.empty()) {
    return;
  }
  m_disk->FailAllAccess();
  for (const std::string& node : m_nodes) {
    m_disk->RemoveNode(node);
  }
  m_nodes.clear();
  if (!m_mountPoint.empty()) {
    umount2(m_mountPoint.c_str(), MNT_DETACH);
  }
}

}  // namespace station

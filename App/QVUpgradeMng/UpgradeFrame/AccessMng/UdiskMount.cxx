/// Mounting a stick. The options keep whatever is on it from acting on the base station: nothing of a stick
/// is run, and no device node on it opens a device.
#include "UpgradeFrame/AccessMng/UdiskMount.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

constexpr const char* kMountRoot = "/run/media/";
constexpr const char* kMountCommand = "mount -o ro,nosuid,nodev,noexec ";
constexpr mode_t kMountPointMode = 0755;

/// Where the system has mounted `node`; empty when it has not.
std::string SystemMountPoint(const std::string& node) {
  for (const MountEntry& entry : ReadMountTable()) {
    if (entry.device == node) return entry.mountPoint;
  }
  return {};
}

}  // namespace

UdiskMount::UdiskMount(const std::string& node) : m_path(SystemMountPoint(node)) {
  if (IsMounted() || CThread::StopRequested()) return;

  const std::string path = kMountRoot + std::string(BaseName(node));
  if (!XCreateFullPathDir(path, kMountPointMode)) {
    LOGE("cannot create mount point %s: %s", path.c_str(), std::strerror(errno));
    return;
  }
  if (QVUpgradeTool::ExecCommand(kMountCommand + ShellQuote(node) + " " + ShellQuote(path)) != 0) {
    LOGE("cannot mount %s at %s", node.c_str(), path.c_str());
    rmdir(path.c_str());
    return;
  }
  m_path = path;
  m_bOwn = true;
}

UdiskMount::~UdiskMount() {
  if (!m_bOwn) return;
  // A stick that was pulled, or a file that somebody opened meanwhile, must not keep the mount.
  if (QVUpgradeTool::ExecCommand("umount " + ShellQuote(m_path)) != 0 &&
      QVUpgradeTool::ExecCommand("umount -l " + ShellQuote(m_path)) != 0) {
    LOGE("cannot unmount %s", m_path.c_str());
    return;
  }
  rmdir(m_path.c_str());
}

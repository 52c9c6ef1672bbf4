/// A stick's way from its device nodes to the unpacked package. Nodes appear one by one (disk, then
/// partitions), the system may mount them a moment later, and portable parts bring storage nodes of their
/// own: so nothing is read until the nodes have been quiet for two seconds.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "BSW/BasicFun/BlockNodes.h"
#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/PhyInterface/PhyInterface.h"
#include "UpgradeFrame/AccessMng/PackageUnpack.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

/// What is watched: the nodes of sticks and of portable parts.
constexpr std::array<const char*, 2> kPatterns = {BlockNodes::kWatchPattern, "/dev/ttyACM[0-9]"};
constexpr const char* kPpNode = "/dev/ttyACM";
constexpr int kPpNodeCount = 10;

/// How long no node may have come or gone before the stick is read: the system has mounted it by then, if it
/// does.
constexpr std::chrono::seconds kNodesQuiet(2);

constexpr const char* kMountRoot = "/run/media/";
/// Whatever is on the stick does not act on the base station: nothing of it is run, and no device node on it
/// opens a device.
constexpr const char* kMountCommand = "mount -o ro,nosuid,nodev,noexec ";
constexpr mode_t kMountPointMode = 0755;

/// The file system of `node` where the system mounted it, else mounted read-only by us. A failure is logged.
Mount MountStick(const std::string& node) {
  for (MountEntry& entry : ReadMountTable()) {
    if (entry.device == node) return Mount::Existing(std::move(entry.mountPoint));
  }
  if (CThread::StopRequested()) return {};
  const std::string path = kMountRoot + std::string(BaseName(node));
  if (!XCreateFullPathDir(path, kMountPointMode)) {
    LOGE("cannot create mount point %s: %s", path.c_str(), std::strerror(errno));
    return {};
  }
  Mount mount(path, kMountCommand + ShellQuote(node) + " " + ShellQuote(path),
              {"umount " + ShellQuote(path), true, true});
  if (!mount.IsMounted()) {
    LOGE("cannot mount %s at %s", node.c_str(), path.c_str());
    rmdir(path.c_str());
  }
  return mount;
}

}  // namespace

QVUpgradeAccessUdisk::QVUpgradeAccessUdisk(const AccessContext& access)
    : QVUpgradeAccessBase("AccessUdisk", UP_UDISK, access) {}

QVUpgradeAccessUdisk::~QVUpgradeAccessUdisk() {
  CleanUp();
}

bool QVUpgradeAccessUdisk::_Listen() {
  PhyInterface* monitor = PhyInterface::instance();
  if (!monitor->Init()) return false;
  for (const char* pattern : kPatterns) {
    monitor->RegisterInterface(pattern, [this](const std::string& path, bool plugged) {
      _OnNode(path, plugged);
      return 0;
    });
  }
  // Under the lock, so that a portable part that goes right now is forgotten by its event, which waits for
  // the lock.
  const CLock lock(m_queueNextMutex);
  for (int i = 0; i < kPpNodeCount; ++i) {
    const std::string node = kPpNode + std::to_string(i);
    if (XFilePathExists(node)) m_ppNodes.insert(node);
  }
  return true;
}

void QVUpgradeAccessUdisk::_Unlisten() {
  for (const char* pattern : kPatterns) PhyInterface::instance()->UnRegisterInterface(pattern);
}

void QVUpgradeAccessUdisk::_OnNode(const std::string& path, bool plugged) {
  const bool isPp = path.rfind(kPpNode, 0) == 0;
  if (!isPp && !BlockNodes::IsNode(path)) return;
  const CLock lock(m_queueNextMutex);
  std::set<std::string>& nodes = isPp ? m_ppNodes : m_newStickNodes;
  if (plugged) {
    nodes.insert(path);
  } else {
    nodes.erase(path);
  }
  m_lastNodeEvent = std::chrono::steady_clock::now();
  m_stateCond.NotifyAll();
}

bool QVUpgradeAccessUdisk::_WaitForPackage() {
  CLock lock(m_queueNextMutex);
  m_stateCond.Wait(m_queueNextMutex,
                   [this]() REQUIRES(m_queueNextMutex) { return !m_newStickNodes.empty() || !IsRunning(); });
  while (IsRunning() && std::chrono::steady_clock::now() < m_lastNodeEvent + kNodesQuiet) {
    m_stateCond.WaitUntil(m_queueNextMutex, m_lastNodeEvent + kNodesQuiet);
  }
  if (!IsRunning() || m_newStickNodes.empty()) return false;  // asked to stop, or pulled again

  m_vecStick = SearchOrder(m_newStickNodes);
  m_newStickNodes.clear();
  const bool isPpStorage = !m_ppNodes.empty();
  lock.Unlock();
  if (isPpStorage) {
    LOGI("%s belongs to a PP, left alone", m_vecStick.front().c_str());
    return false;
  }
  return _Claim();
}

std::vector<std::string> QVUpgradeAccessUdisk::SearchOrder(const std::set<std::string>& nodes) {
  std::vector<std::string> order(nodes.begin(), nodes.end());
  std::sort(order.begin(), order.end(), BlockNodes::ComesBefore);
  std::stable_partition(order.begin(), order.end(),
                        [](const std::string& node) { return !BlockNodes::IsWholeDisk(node); });
  return order;
}

Failure QVUpgradeAccessUdisk::_UnpackPackage() {
  _FindPackage();
  if (!m_mount.IsMounted()) {
    return Fail(Reason::StickUnreadable, "no file system on %s can be read", m_vecStick.front().c_str());
  }
  Failure failure = PackageUnpack::Unpack(m_access, UP_UDISK, m_mount.Path());
  if (!failure) m_mount = {};  // else it is told first
  return failure;
}

void QVUpgradeAccessUdisk::_FindPackage() {
  std::set<std::string> readDisks;
  for (const std::string& node : m_vecStick) {
    // A disk has no file system of its own when one of its partitions has.
    if (readDisks.count(node) != 0) continue;
    Mount mount = MountStick(node);
    if (!mount.IsMounted()) continue;
    m_mount = std::move(mount);
    readDisks.insert(BlockNodes::DiskOf(node));
    if (!QVUpgradeTool::ReadAllUpgradeFileOTAPack(m_mount.Path().c_str(), ".zip").empty()) return;
  }
}

void QVUpgradeAccessUdisk::ThreadProc() {
  QVUpgradeAccessBase::ThreadProc();
  m_mount = {};
}

/// A stick's way from its device nodes to the unpacked package. Nodes appear one by one (disk, then
/// partitions), the system may mount them a moment later, and portable parts bring storage nodes of their
/// own: so nothing is read until the nodes have been quiet for two seconds.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessUdisk.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <tuple>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/PhyInterface/PhyInterface.h"
#include "UpgradeFrame/QVUpgradeTool.h"

namespace {

constexpr const char* kStickPattern = "/dev/sd.*";
constexpr const char* kPpPattern = "/dev/ttyACM[0-9]";
constexpr const char* kPpNode = "/dev/ttyACM";
constexpr int kPpNodeCount = 10;

/// A disk or partition node; nothing else that matches the monitor's pattern is mounted.
constexpr const char* kDiskNodePattern = "/dev/sd[a-z]+[0-9]*";

/// How long no node may have come or gone before the stick is read: the system has mounted it by then, if it
/// does.
constexpr std::chrono::seconds kNodesQuiet(2);

}  // namespace

QVUpgradeAccessUdisk::QVUpgradeAccessUdisk() : QVUpgradeAccessSource("AccessUdisk", UP_UDISK) {}

QVUpgradeAccessUdisk::~QVUpgradeAccessUdisk() {
  CleanUp();
}

bool QVUpgradeAccessUdisk::_Listen() {
  PhyInterface* monitor = PhyInterface::instance();
  if (!monitor->Init()) return false;
  monitor->RegisterInterface(kStickPattern, [this](const std::string& path, bool plugged) {
    static const std::regex diskNode(kDiskNodePattern);
    if (std::regex_match(path, diskNode)) _OnNode(m_newStickNodes, path, plugged);
    return 0;
  });
  monitor->RegisterInterface(kPpPattern, [this](const std::string& path, bool plugged) {
    _OnNode(m_ppNodes, path, plugged);
    return 0;
  });
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
  PhyInterface::instance()->UnRegisterInterface(kStickPattern);
  PhyInterface::instance()->UnRegisterInterface(kPpPattern);
}

void QVUpgradeAccessUdisk::_OnNode(Nodes& nodes, const std::string& path, bool plugged) {
  const CLock lock(m_queueNextMutex);
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
  // Shorter names first: "sda2" comes before "sda10".
  const auto rank = [](const std::string& node) {
    const bool isWholeDisk = std::isdigit(static_cast<unsigned char>(node.back())) == 0;
    return std::make_tuple(isWholeDisk, node.size(), node);
  };
  std::sort(order.begin(), order.end(),
            [&rank](const std::string& left, const std::string& right) { return rank(left) < rank(right); });
  return order;
}

bool QVUpgradeAccessUdisk::_UnpackPackage() {
  const std::string stick = _FindPackage();
  if (stick.empty()) {
    LOGE("no file system on %s can be read", m_vecStick.front().c_str());
    return false;
  }
  const bool unpacked = Unpack(UP_UDISK, stick);
  m_pMount.reset();
  return unpacked;
}

std::string QVUpgradeAccessUdisk::_FindPackage() {
  std::vector<std::string> readNodes;
  for (const std::string& node : m_vecStick) {
    // A disk has no file system of its own when one of its partitions has.
    const bool hasReadPartition =
        std::any_of(readNodes.begin(), readNodes.end(),
                    [&node](const std::string& read) { return read.compare(0, node.size(), node) == 0; });
    if (hasReadPartition) continue;
    auto mount = std::make_unique<UdiskMount>(node);
    if (!mount->IsMounted()) continue;
    m_pMount = std::move(mount);
    readNodes.push_back(node);
    if (!QVUpgradeTool::ReadAllUpgradeFileOTAPack(m_pMount->Path().c_str(), ".zip").empty()) break;
  }
  return m_pMount != nullptr ? m_pMount->Path() : std::string();
}

void QVUpgradeAccessUdisk::_BeforeReboot() {
  m_pMount.reset();
}

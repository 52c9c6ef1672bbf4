/// The USB-stick source: a stick that is plugged in while the daemon runs is searched for a package. A stick
/// that was there at start is not read, so that a bad one cannot reboot the unit for ever.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "UpgradeFrame/AccessMng/QVUpgradeAccessSource.h"
#include "UpgradeFrame/AccessMng/UdiskMount.h"

class QVUpgradeAccessUdisk : public QVUpgradeAccessSource {
 public:
  QVUpgradeAccessUdisk();
  ~QVUpgradeAccessUdisk() override;

  /// A stick's nodes in the order in which they are searched: partitions by number, then whole disks.
  static std::vector<std::string> SearchOrder(const std::set<std::string>& nodes);

 protected:
  bool _Listen() override;
  void _Unlisten() override;
  bool _WaitForPackage() override;
  bool _UnpackPackage() override;
  /// No mount of ours outlasts a reboot that is refused.
  void _BeforeReboot() override;

 private:
  using Nodes = std::set<std::string>;

  /// Notes a node's coming or going in `nodes` and wakes the source. Monitor thread.
  void _OnNode(Nodes& nodes, const std::string& path, bool plugged);
  /// Where the stick's package is, or where it was missed on a stick without one; empty when no file system
  /// of the stick can be read. What had to be mounted is in m_pMount.
  std::string _FindPackage();

  Nodes m_newStickNodes;  ///< plugged in and not yet looked at; m_queueNextMutex
  Nodes m_ppNodes;        ///< serial devices of portable parts that are present; m_queueNextMutex
  std::chrono::steady_clock::time_point m_lastNodeEvent;  ///< m_queueNextMutex

  std::vector<std::string>
      m_vecStick;  ///< the nodes of the stick under way; source's thread only, like the next
  std::unique_ptr<UdiskMount> m_pMount;
};

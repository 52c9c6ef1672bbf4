/// The USB-stick source: a stick that is plugged in while the daemon runs is searched for a package. A stick
/// that was there at start is not read, so that a bad one cannot reboot the unit for ever.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"
#include "UpgradeFrame/Mount.h"
#include "common/ThreadAnnotations.h"

class QVUpgradeAccessUdisk : public QVUpgradeAccessBase {
 public:
  explicit QVUpgradeAccessUdisk(const AccessContext& access);
  ~QVUpgradeAccessUdisk() override;

  /// A stick's nodes in the order in which they are searched: partitions by number, then whole disks.
  static std::vector<std::string> SearchOrder(const std::set<std::string>& nodes);

 protected:
  bool _Listen() override;
  void _Unlisten() override;
  bool _WaitForPackage() override;
  Failure _UnpackPackage() override;
  /// No mount of ours outlasts a reboot that is refused, nor the thread.
  void _PackageEnded(const Failure& /*failure*/) override { m_mount = {}; }
  void ThreadProc() override;

 private:
  /// Notes a node's coming or going and wakes the source. Monitor thread.
  void _OnNode(const std::string& path, bool plugged);
  /// Mounts, in m_mount, the file system with the stick's package, or one that has none when all are without.
  void _FindPackage();

  /// Plugged in and not yet looked at.
  std::set<std::string> m_newStickNodes GUARDED_BY(m_queueNextMutex);
  /// Serial devices of portable parts that are present.
  std::set<std::string> m_ppNodes GUARDED_BY(m_queueNextMutex);
  std::chrono::steady_clock::time_point m_lastNodeEvent GUARDED_BY(m_queueNextMutex);

  // The source's thread only.
  std::vector<std::string> m_vecStick;  ///< the nodes of the stick under way
  Mount m_mount;                        ///< what is read of it
};

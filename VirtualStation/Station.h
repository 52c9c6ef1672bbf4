/// The virtual base station: disks, commands, bus, peers and the shipped daemon, put together as on the
/// device. Tests and scenarios make one inside the box, one at a time; the destructor takes it apart again.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "VirtualStation/Bus.h"
#include "VirtualStation/Chips/Chips.h"
#include "VirtualStation/Cloud/Cloud.h"
#include "VirtualStation/Commands.h"
#include "VirtualStation/Controller.h"
#include "VirtualStation/Daemon.h"
#include "VirtualStation/Disks.h"
#include "VirtualStation/PackageBuilder.h"
#include "VirtualStation/Panel.h"
#include "VirtualStation/Stick.h"
#include "VirtualStation/WebServer.h"

namespace station {

struct StationOptions {
  std::uint64_t firmwareBytes = 256ULL << 20;  ///< size of /firmware
  unsigned pauseDivisor = 10;                  ///< 1: pauses last as long as on the device
  Daemon::Environment environment;             ///< added to the daemon's
  Daemon::CommandLine launcher;                ///< in front of the daemon's command line
  bool chips = true;                           ///< false: none is connected
  bool rootTells = true;  ///< false: "/" does not show from which partition the machine runs
};

/// One thread; what the members give out says more.
class Station {
 public:
  /// A station with both partitions filled, versions soft "S4.0.9.10", hard "H200" and "V1.0.0.01" for every
  /// part, booted from A; the daemon is not started yet.
  explicit Station(const StationOptions& options = {});
  ~Station();

  Disks& disks() { return m_disks; }
  const Disks& disks() const { return m_disks; }
  Commands& commands() { return m_commands; }
  const Bus& bus() const { return m_bus; }
  Panel& panel() { return m_panel; }
  WebServer& web() { return m_web; }
  Controller& controller() { return m_controller; }
  Cloud& cloud() { return m_cloud; }
  Daemon& daemon() { return m_daemon; }
  /// Only of a station that has chips.
  Chips& chips() { return *m_chips; }

  /// The partition that the machine runs from, and the one that its marker files would boot now.
  Partition Running() const { return m_running; }
  static Partition MarkedForBoot();

  /// Starts the daemon and waits until it has told the panel its versions and takes portable parts: then it
  /// listens to sticks and requests too, some time after it owns its bus name. False, with the reason on
  /// stderr, when it does not.
  bool Start();
  /// The machine goes down in order (all that was written stays) and boots from what is on its disks. The
  /// daemon is killed if it still runs; it and the peers' reports and the commands' journal start anew.
  /// Result: see Daemon::Start.
  bool Reboot();
  /// The same after a cut in the power: what had not reached the disks is lost.
  bool PowerCut();

  /// A stick with these files goes into the USB socket (the previous one is pulled first).
  void InsertStick(const std::vector<std::string>& files, const StickOptions& options = {});
  void InsertStick(const Package& package, const StickOptions& options = {});
  void PullStick();

  /// The version file of a partition; null when there is none or it is no JSON.
  static Json::Value Versions(Partition p);
  /// Writes it: overall versions, and part versions by key ("appVersion") over those there are.
  static void SetVersions(Partition p, const std::string& soft, const std::string& hard,
                          const std::map<std::string, std::string>& parts = {});
  /// Compares the SoC parts that `package` holds with what is in partition `p`, in both directions, the
  /// version file apart; empty when all is equal. (A boot loader of an earlier package may be left over and
  /// is then reported.)
  std::vector<std::string> DifferencesFrom(const Package& package, Partition p) const;

 private:
  void _Boot();
  void _Down(bool inOrder);

  bool m_rootTells;
  Disks m_disks;
  Commands m_commands;
  Bus m_bus;
  Panel m_panel;
  WebServer m_web;
  Controller m_controller;
  Cloud m_cloud;
  std::unique_ptr<Chips> m_chips;
  Daemon m_daemon;
  std::unique_ptr<Stick> m_stick;
  Partition m_running = Partition::A;
};

}  // namespace station

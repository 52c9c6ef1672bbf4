/// Puts the machine together, fills its partitions as a factory does, and boots it.
#include "VirtualStation/Station.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>

#include "UpgradePackage/Parts.h"
#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"
#include "VirtualStation/TreeCompare.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMarkerA = "/qv_config/parta.ini";
constexpr const char* kMarkerB = "/qv_config/partb.ini";
constexpr std::chrono::seconds kStartTime(20);
constexpr const char* kFactoryVersion = "V1.0.0.01";

std::string VersionFile(Partition p) {
  return Disks::AppDir(p) + "/quorvalen/version.json";
}

}  // namespace

Station::Station(const StationOptions& options)
    : m_rootTells(options.rootTells),
      m_disks(options.firmwareBytes),
      m_panel(m_bus),
      m_web(m_bus),
      m_controller(m_bus),
      m_chips(options.chips ? std::make_unique<Chips>() : nullptr),
      m_daemon(m_bus, options.pauseDivisor, options.environment, options.launcher) {
  m_disks.MountAll(m_running);
  std::map<std::string, std::string> parts;
  for (const Parts::Part& part : Parts::kAll) {
    parts[part.versionKey] = kFactoryVersion;
  }
  for (const Partition p : {Partition::A, Partition::B}) {
    const std::string name = p == Partition::A ? "A" : "B";
    WriteText(Disks::AppDir(p) + "/quorvalen/bin/factory", "application " + name + "\n");
    WriteText(Disks::SystemDir(p) + "/Image", "kernel " + name + "\n");
    WriteText(m_disks.RootfsDir(p) + "/etc/factory", "root file system " + name + "\n");
    SetVersions(p, "S4.0.9.10", "H200", parts);
  }
  WritePpVersions();
  WriteText(kMarkerA, "part=0");
  WriteText("/var/first_upgrade.ini", "1\n");
  m_disks.UnmountAll();
  _Boot();
}

Station::~Station() {
  _Down(true);
}

Partition Station::MarkedForBoot() {
  // As the boot loader and the daemon read them: only B's marker alone selects B.
  return fs::exists(kMarkerB) && !fs::exists(kMarkerA) ? Partition::B : Partition::A;
}

bool Station::Start() {
  constexpr int kVersionReport = 200;
  const auto reports = m_panel.All();
  const auto before = std::count_if(reports.begin(), reports.end(),
                                    [](const Report& report) { return report.cmd == kVersionReport; });
  const std::size_t logged = Daemon::Log().size();
  if (!m_daemon.Start()) {
    return false;
  }
  if (m_panel.WaitForCmd(kVersionReport, kStartTime, static_cast<std::size_t>(before) + 1) &&
      Daemon::WaitForLog("Enter UpgradePp Thread", kStartTime, logged)) {
    return true;
  }
  std::cerr << "virtual station: the daemon does not report its versions, or does not take portable parts\n";
  return false;
}

bool Station::Reboot() {
  _Down(true);
  _Boot();
  return Start();
}

bool Station::PowerCut() {
  _Down(false);
  _Boot();
  return Start();
}

void Station::_Down(bool inOrder) {
  m_stick.reset();
  m_daemon.Kill();
  m_daemon.WaitExit(std::chrono::seconds(10));
  inOrder ? m_disks.UnmountAll() : m_disks.CutPower();
}

void Station::_Boot() {
  m_disks.MountSettings();
  m_running = MarkedForBoot();
  m_disks.UnmountAll();  // else they would hide for good what is below them
  SetRootSource(m_rootTells ? Disks::RootfsNode(m_running) : kUntoldRoot);
  m_disks.MountAll(m_running);
  m_panel.Clear();
  m_web.Clear();
  m_controller.Clear();
  m_commands.Clear();
  if (m_chips) {
    m_chips->PowerCycle();
  }
}

void Station::InsertStick(const std::vector<std::string>& files, const StickOptions& options) {
  m_stick.reset();
  m_stick = std::make_unique<Stick>(files, options);
}

void Station::InsertStick(const Package& package, const StickOptions& options) {
  InsertStick(std::vector<std::string>{package.path}, options);
}

void Station::PullStick() {
  if (m_stick) {
    m_stick->Pull();
  }
}

Json::Value Station::Versions(Partition p) {
  Json::Value root;
  std::istringstream text(ReadText(VersionFile(p)));
  return Json::parseFromStream(Json::CharReaderBuilder(), text, &root, nullptr) ? root : Json::Value();
}

void Station::SetVersions(Partition p, const std::string& soft, const std::string& hard,
                          const std::map<std::string, std::string>& parts) {
  Json::Value root = Versions(p);
  root["totalVersion"]["softVersion"] = soft;
  root["totalVersion"]["hardVersion"] = hard;
  for (const auto& [key, version] : parts) {
    root["subModulesVersion"][key] = version;
  }
  WriteText(VersionFile(p), root.toStyledString());
}

std::vector<std::string> Station::DifferencesFrom(const Package& package, Partition p) const {
  std::vector<std::string> all;
  const auto compare = [&](const char* type, const std::string& actual, const TreeCompareOptions& options) {
    const std::string expected = package.tree + "/" + type;
    if (fs::exists(expected)) {
      const std::vector<std::string> differences = TreeDifferences(expected, actual, options);
      all.insert(all.end(), differences.begin(), differences.end());
    }
  };
  compare("app", Disks::AppDir(p), {{"quorvalen/version.json"}, false});
  // New system files are copied over the old ones; the built packages all hold the same names.
  compare("system", Disks::SystemDir(p), {});
  compare("rootfs", m_disks.RootfsDir(p), {});
  return all;
}

}  // namespace station

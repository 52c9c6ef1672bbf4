/// What the system tests share: the sentences in which an upgrade of the station is told and judged.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "VirtualStation/Station.h"

using namespace std::chrono_literals;

/// How long anything may take before a test gives up. Generous: nothing waits for it unless it has failed.
constexpr auto kPatience = 120s;

/// Every test has a station of its own and fails when a sanitizer had something to say about the daemon.
class StationTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(station::Daemon::SanitizerReports(), ""); }

  /// The statuses of the base station's progress reports, repeated ones once.
  static std::vector<int> Statuses(const station::Reports& reports) {
    std::vector<int> statuses;
    for (const auto& report : reports.Progress()) {
      if (statuses.empty() || statuses.back() != report.status) statuses.push_back(report.status);
    }
    return statuses;
  }

  /// The daemon was killed by its own "reboot -f", which was the last command.
  static void ExpectReboot(station::Station& station) {
    const auto status = station.daemon().WaitExit(kPatience);
    ASSERT_TRUE(status.has_value()) << "no reboot; log:\n" << station::Daemon::Log();
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL) << "wait status " << *status;
    ASSERT_FALSE(station.commands().Lines().empty());
    EXPECT_EQ(station.commands().Lines().back(), "reboot -f");
  }

  /// The log holds `text`, now or soon, at `from` (in bytes) or behind.
  static void ExpectLog(const std::string& text, std::size_t from = 0) {
    EXPECT_TRUE(station::Daemon::WaitForLog(text, kPatience, from)) << "not logged: " << text << "\nlog:\n"
                                                                    << station::Daemon::Log().substr(from);
  }

  static void ExpectNoDifferences(const std::vector<std::string>& differences) {
    for (const auto& difference : differences) ADD_FAILURE() << difference;
  }

  /// Inserts a stick with `package` and expects that the running station upgrades itself to it and boots from
  /// the other partition.
  static void ExpectUpgrade(station::Station& station, const station::Package& package) {
    const station::Partition target = station::Other(station.Running());
    station.InsertStick(package);
    ExpectReboot(station);
    station.PullStick();
    const auto progress = station.panel().Progress();
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().status, station::kFinished) << station::Daemon::Log();
    ASSERT_TRUE(station.Reboot());
    EXPECT_EQ(station.Running(), target);
    ExpectNoDifferences(station.DifferencesFrom(package, target));
    EXPECT_EQ(station::Station::Versions(target)["totalVersion"]["softVersion"], package.softVersion);
  }

  static std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static bool Exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
  }
};

/// True under a sanitizer, which slows everything: limits on durations are stretched there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowness = 10;
#else
constexpr int kSlowness = 1;
#endif

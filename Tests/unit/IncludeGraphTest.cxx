// Guards the layering of the sources: a file includes only its own floor and those below, and no files
// include each other in a circle. Add a floor to kFloors when a folder is added.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Path prefixes from the ground up. The last prefix that matches a path decides its floor, so that a folder's
// exceptions stand behind it.
constexpr std::array<std::pair<const char*, int>, 17> kFloors = {{
    {"PlatformSDK/Include/", 0},
    {"PlatformSDK/BSW/", 4},
    {"PlatformSDK/Backend/", 4},
    {"PlatformSDK/BSW/BasicFun/", 1},
    {"PlatformSDK/BSW/MultiTask/", 2},
    {"PlatformSDK/BSW/Log/", 3},
    {"App/QVUpgradeMng/UpgradeIpcMsg/", 6},
    {"App/QVUpgradeMng/UpgradeFrame/", 7},
    {"App/QVUpgradeMng/UpgradeFrame/UpgradeTypes", 5},
    {"App/QVUpgradeMng/UpgradePackage/", 6},
    {"App/QVUpgradeMng/UpgradeFrame/UpgradePaths", 5},
    {"App/QVUpgradeMng/UpgradeFrame/SubmoduleFactory", 9},
    {"App/QVUpgradeMng/UpgradeFrame/QVUpgradeFrameBase", 10},
    {"App/QVUpgradeMng/UpgradeFrame/AccessMng/", 11},
    {"App/QVUpgradeMng/UpgradePp/", 12},
    {"App/QVUpgradeMng/UpgradePp/PpTypes", 5},
    {"App/QVUpgradeMng/UpgradePp/PpStore", 8},
}};
// Every upgrader has its folder, as "UpgradeFrame/UacSubmodules/".
constexpr std::pair<const char*, int> kUpgraderFolders = {"Submodules/", 8};
constexpr int kMainFloor = 13;

int Floor(const std::string& path) {
  int floor = kMainFloor;
  for (const auto& [prefix, number] : kFloors) {
    if (path.rfind(prefix, 0) == 0) floor = number;
  }
  if (path.find(kUpgraderFolders.first) != std::string::npos) floor = kUpgraderFolders.second;
  return floor;
}

// Source file to the project files it includes, both as paths below the project.
std::map<std::string, std::set<std::string>> ReadIncludes() {
  const fs::path root = PROJECT_SOURCE_DIR;
  const std::array<fs::path, 3> searched = {"PlatformSDK", "PlatformSDK/Include", "App/QVUpgradeMng"};
  const std::regex directive(R"re(^\s*#\s*include\s*"([^"]+)")re");
  std::map<std::string, std::set<std::string>> includes;
  for (const char* top : {"PlatformSDK", "App"}) {
    for (const auto& entry : fs::recursive_directory_iterator(root / top)) {
      if (entry.path().extension() != ".h" && entry.path().extension() != ".cxx") continue;
      auto& targets = includes[fs::relative(entry.path(), root).string()];
      std::ifstream file(entry.path());
      std::smatch match;
      for (std::string line; std::getline(file, line);) {
        if (!std::regex_search(line, match, directive)) continue;
        for (const auto& directory : searched) {
          if (fs::exists(root / directory / match[1].str()))
            targets.insert((directory / match[1].str()).string());
        }
      }
    }
  }
  return includes;
}

// A header and its source are one unit.
std::string Unit(const std::string& path) {
  return fs::path(path).replace_extension().string();
}

bool InAccessMng(const std::string& path) {
  return path.find("/AccessMng/") != std::string::npos;
}

// Depth-first; `trail` holds the units on the way here.
void FindCircle(const std::map<std::string, std::set<std::string>>& graph, const std::string& unit,
                std::vector<std::string>& trail, std::set<std::string>& done) {
  for (size_t at = 0; at < trail.size(); ++at) {
    if (trail[at] != unit) continue;
    std::string circle;
    for (; at < trail.size(); ++at) circle += trail[at] + " -> ";
    ADD_FAILURE() << "circle: " << circle << unit;
    return;
  }
  if (!done.insert(unit).second) return;
  trail.push_back(unit);
  const auto next = graph.find(unit);
  if (next != graph.end()) {
    for (const auto& target : next->second) FindCircle(graph, target, trail, done);
  }
  trail.pop_back();
}

}  // namespace

TEST(IncludeGraph, NoArrowRunsUpTheFloors) {
  const auto includes = ReadIncludes();
  ASSERT_GT(includes.size(), 20U) << "the sources were not found";
  for (const auto& [source, targets] : includes) {
    for (const auto& target : targets) {
      EXPECT_LE(Floor(target), Floor(source)) << source << " includes " << target;
    }
  }
}

TEST(IncludeGraph, HasNoCircleBetweenFiles) {
  std::map<std::string, std::set<std::string>> graph;
  for (const auto& [source, targets] : ReadIncludes()) {
    for (const auto& target : targets) {
      const bool sameUnit = Unit(source) == Unit(target);
      // The access frame and its sources may know each other.
      const bool allowed = InAccessMng(source) && InAccessMng(target);
      if (!sameUnit && !allowed) graph[Unit(source)].insert(Unit(target));
    }
  }
  std::vector<std::string> trail;
  std::set<std::string> done;
  for (const auto& [unit, targets] : graph) FindCircle(graph, unit, trail, done);
}

// What the virtual machine itself must get right: the tests of everything else stand on it.
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "StationTest.h"
#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

using namespace station;

namespace {

/// What a process finds mounted at `path`, oldest first, by the sources' names.
std::vector<std::string> SourcesAt(const std::string& path, pid_t process) {
  std::vector<std::string> sources;
  std::istringstream table(ReadText("/proc/" + std::to_string(process) + "/mounts"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string source, point;
    words >> source >> point;
    if (point == path) sources.push_back(source);
  }
  return sources;
}

}  // namespace

class Box : public StationTest {
 protected:
  /// The daemon and this process, whose root the daemon's commands have, see `source` last at "/".
  static void ExpectRoot(Station& station, const std::string& source) {
    for (const pid_t process : {station.daemon().Pid(), getpid()}) {
      const auto sources = SourcesAt("/", process);
      ASSERT_FALSE(sources.empty());
      EXPECT_EQ(sources.back(), source) << "process " << process;
    }
  }
};

TEST_F(Box, RootIsMountedFromThePartitionThatRuns) {
  Station station;
  ASSERT_TRUE(station.Start());
  ExpectRoot(station, "/dev/mmcblk2p2");
  std::filesystem::rename("/qv_config/parta.ini", "/qv_config/partb.ini");
  sync();
  ASSERT_TRUE(station.PowerCut());
  ExpectRoot(station, "/dev/mmcblk2p3");
  EXPECT_EQ(RunProgram({"sh", "-c", "test $(findmnt -n -o SOURCE /) = /dev/mmcblk2p3"}), 0);
  std::filesystem::rename("/qv_config/partb.ini", "/qv_config/parta.ini");
  ASSERT_TRUE(station.Reboot());
  ExpectRoot(station, "/dev/mmcblk2p2");
}

TEST_F(Box, RootCanBeLeftUntold) {
  StationOptions options;
  for (const bool tells : {false, true, false}) {
    options.rootTells = tells;
    Station station(options);
    ASSERT_TRUE(station.Start());
    ExpectRoot(station, tells ? "/dev/mmcblk2p2" : kUntoldRoot);
  }
}

// The change of the root changes nothing else: what is there stays, and no directory looks mounted that is
// not.
TEST_F(Box, FilesAndMountsOutliveTheChangeOfTheRoot) {
  const std::string files[] = {"/box-test/file", "/etc/box-test"};
  for (const std::string& file : files) WriteText(file, "kept");
  const std::string directory = std::filesystem::current_path();
  Station station;
  ASSERT_TRUE(station.Start());
  std::string marker = "/qv_config/parta.ini";
  for (const char* next : {"/qv_config/partb.ini", "/qv_config/parta.ini"}) {
    std::filesystem::rename(marker, next);
    marker = next;
    const Partition before = station.Running();
    ASSERT_TRUE(station.Reboot());
    ASSERT_EQ(station.Running(), Other(before));
    for (const std::string& file : files) EXPECT_EQ(ReadFile(file), "kept");
    EXPECT_EQ(std::filesystem::current_path(), directory);
    station.disks().App(before).Unmount();
    const pid_t daemon = station.daemon().Pid();
    EXPECT_EQ(SourcesAt(Disks::AppDir(before), daemon).size(), 0U);
    EXPECT_EQ(SourcesAt(Disks::AppDir(station.Running()), daemon).size(), 1U);
  }
}

// A command may have a process group of its own, as jobs have, and start others while it is killed.
TEST_F(Box, KillReachesEveryProcessOfTheSession) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  const char* script = "set -m; for i in 1 2 3; do (while true; do sleep 0.001; done) & done; echo; wait";
  const char* argv[] = {"bash", "-c", script, nullptr};
  pid_t session = -1;
  ASSERT_EQ(posix_spawnp(&session, argv[0], &actions, &attributes, const_cast<char**>(argv), environ), 0);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const auto groups = ProcessesOf(session);
  EXPECT_TRUE(std::any_of(groups.begin(), groups.end(), [&](pid_t pid) { return getpgid(pid) != session; }));
  KillSession(session);
  // The pipe has ended when nobody is left who could write into it.
  pollfd end = {ready[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 0), 1) << "some are alive";
  close(ready[0]);
  EXPECT_EQ(waitpid(session, nullptr, 0), session);
}

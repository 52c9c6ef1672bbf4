// Which partition the next boot takes: what each pair of marker files means, and that a switch leaves exactly
// one.
#include "UpgradeFrame/PartitionMarkers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Which of this thread's coming syncs of a directory fail; the lowest bit is the next one's.
static thread_local unsigned t_failingSyncs = 0;

// In place of the C library's, for the whole test program.
extern "C" int fsync(int fd) {
  struct stat info {};
  const bool counts = t_failingSyncs != 0 && fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
  const bool fails = counts && (t_failingSyncs & 1U) != 0;
  if (counts) t_failingSyncs >>= 1U;
  if (!fails) return static_cast<int>(syscall(SYS_fsync, fd));
  errno = EIO;
  return -1;
}

namespace {

namespace fs = std::filesystem;

class PartitionMarkersTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "markersXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  void TearDown() override { fs::remove_all(directory); }

  static PartitionMarkers Markers(const fs::path& where) {
    return PartitionMarkers((where / "parta.ini").string(), (where / "partb.ini").string());
  }
  // `markers` is a text of the letters of the markers that are there.
  void Put(const std::string& markers) const {
    for (const auto& entry : fs::directory_iterator(directory)) fs::remove(entry);
    for (const char letter : markers)
      std::ofstream(directory / (std::string("part") + letter + ".ini")) << "part=?";
  }
  // Every file with its content, in order of name.
  std::string Found() const {
    std::ostringstream found;
    for (const char* name : {"parta.ini", "partb.ini"}) {
      std::ifstream file(directory / name);
      if (file) found << name << ":" << file.rdbuf() << ";";
    }
    const auto files = std::distance(fs::directory_iterator(directory), fs::directory_iterator());
    found << files;
    return found.str();
  }

  fs::path directory;
};

TEST_F(PartitionMarkersTest, OnlyTheLoneMarkerOfBChoosesB) {
  const PartitionMarkers markers = Markers(directory);
  Put("a");
  EXPECT_EQ(markers.RunningPartition(), "/app_A");
  Put("ab");
  EXPECT_EQ(markers.RunningPartition(), "/app_A");
  Put("b");
  EXPECT_EQ(markers.RunningPartition(), "/app_B");
  Put("");
  EXPECT_EQ(markers.RunningPartition(), "/app_A");
  EXPECT_EQ(Found(), "parta.ini:part=0;1");
}

TEST_F(PartitionMarkersTest, SwitchLeavesTheOtherPartitionsMarkerAlone) {
  const PartitionMarkers markers = Markers(directory);
  const char* const chosenA = "parta.ini:part=0;1";
  const char* const chosenB = "partb.ini:part=1;1";
  const struct {
    const char* before;
    const char* current;
    const char* after;
  } cases[] = {
      {"a", "/app_A", chosenB}, {"ab", "/app_A", chosenB},   {"", "/app_A", chosenB},
      {"b", "/app_B", chosenA}, {"ab", "/nowhere", chosenA},
  };
  for (const auto& each : cases) {
    Put(each.before);
    EXPECT_FALSE(markers.SwitchFrom(each.current)) << "a failure";
    EXPECT_EQ(Found(), each.after) << each.before << " from " << each.current;
  }
}

TEST_F(PartitionMarkersTest, StepThatCannotBeSyncedPutsTheOldPartitionBack) {
  constexpr unsigned kAllSyncs = ~0U;
  const PartitionMarkers markers = Markers(directory);
  const struct {
    const char* before;
    const char* current;
    unsigned failing;
  } cases[] = {
      {"b", "/app_B", 1}, {"b", "/app_B", 2},  {"b", "/app_B", kAllSyncs}, {"a", "/app_A", 1},
      {"a", "/app_A", 2}, {"ab", "/app_A", 1}, {"a", "/app_A", kAllSyncs},
  };
  for (const auto& each : cases) {
    Put(each.before);
    t_failingSyncs = each.failing;
    const Failure failure = markers.SwitchFrom(each.current);
    t_failingSyncs = 0;
    EXPECT_NE(failure.Text().find("Input/output error"), std::string::npos) << failure.Text();
    EXPECT_EQ(markers.RunningPartition(), each.current) << each.before << " failing " << each.failing;
  }
}

TEST_F(PartitionMarkersTest, FailureIsToldAndChoosesTheOldPartition) {
  const PartitionMarkers markers = Markers(directory / "absent");
  EXPECT_EQ(markers.SwitchFrom("/app_A").Text(),
            "marker.write: " + (directory / "absent/parta.ini").string() +
                " cannot be deleted: No such file or directory");
  EXPECT_EQ(markers.RunningPartition(), "/app_A");
}

}  // namespace

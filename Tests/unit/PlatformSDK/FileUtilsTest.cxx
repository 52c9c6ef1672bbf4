// Copying and replacing files when something goes wrong half-way, and the names and places that must not be
// followed.
#include "BSW/BasicFun/FileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "TempDirectory.h"

namespace {

// More than two of the copy's chunks, and not a multiple of any buffer.
std::string LargeText() {
  std::string text;
  text.resize(20'000'003, 'x');
  for (size_t i = 0; i < text.size(); i += 4099) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
}

}  // namespace

TEST(WriteFileAtomic, ReplacesContentAndKeepsPermissions) {
  const TempDirectory directory;
  EXPECT_TRUE(WriteFileAtomic(directory / "new", "1"));
  EXPECT_EQ(ModeOf(directory / "new"), 0644U);
  chmod((directory / "new").c_str(), 0640);
  EXPECT_TRUE(WriteFileAtomic(directory / "new", "second"));
  EXPECT_EQ(ReadText(directory / "new"), "second");
  EXPECT_EQ(ModeOf(directory / "new"), 0640U);
  EXPECT_EQ(directory.EntryCount(), 1U);
}

TEST(WriteFileAtomic, LeavesNothingBehindWhenItFails) {
  const TempDirectory directory;
  ASSERT_TRUE(XCreateFullPathDir(directory / "taken/below", 0755));
  EXPECT_FALSE(WriteFileAtomic(directory / "taken", "text"));
  EXPECT_EQ(directory.EntryCount(), 1U);
  EXPECT_FALSE(WriteFileAtomic(directory / "missing/file", "text"));
}

TEST(CopyFile, CopiesContentAndModeWithinAndAcrossFileSystems) {
  const TempDirectory directory;
  const TempDirectory memory("/dev/shm");
  const std::string text = LargeText();
  WriteText(memory / "source", text);
  chmod((memory / "source").c_str(), 0751);
  WriteText(directory / "across", text + "the old file was longer");
  EXPECT_TRUE(CopyFile(memory / "source", directory / "across"));
  EXPECT_TRUE(CopyFile(directory / "across", directory / "within"));
  EXPECT_TRUE(ReadText(directory / "across") == text);
  EXPECT_TRUE(ReadText(directory / "within") == text);
  EXPECT_EQ(ModeOf(directory / "within"), 0751U);
}

TEST(CopyFile, RemovesTheTargetWhenStoppedOrWhenTheSourceShrinks) {
  const TempDirectory directory;
  WriteText(directory / "source", LargeText());
  int polls = 0;
  EXPECT_FALSE(CopyFile(directory / "source", directory / "target", [&polls] { return ++polls == 2; }));
  EXPECT_FALSE(XFilePathExists(directory / "target"));
  EXPECT_FALSE(CopyFile(directory / "source", directory / "target",
                        [&] { return truncate((directory / "source").c_str(), 1000) != 0; }));
  EXPECT_FALSE(XFilePathExists(directory / "target"));
}

TEST(CopyFile, TouchesNeitherTheSourceNorADirectory) {
  const TempDirectory directory;
  WriteText(directory / "source", "text");
  ASSERT_EQ(link((directory / "source").c_str(), (directory / "alias").c_str()), 0);
  EXPECT_FALSE(CopyFile(directory / "source", directory / "alias"));
  EXPECT_EQ(ReadText(directory / "source"), "text");
  EXPECT_FALSE(CopyFile(directory / "source", directory.Path()));
  EXPECT_FALSE(CopyFile(directory.Path(), directory / "target"));
  EXPECT_EQ(directory.EntryCount(), 2U);
}

TEST(ReadFileToString, RefusesWhatIsTooLargeAndDoesNotHangOnAFifo) {
  const TempDirectory directory;
  std::string text = "before";
  WriteText(directory / "file", "12345");
  EXPECT_FALSE(ReadFileToString(directory / "file", 4, text));
  EXPECT_EQ(text, "before");
  EXPECT_TRUE(ReadFileToString(directory / "file", 5, text));
  EXPECT_EQ(text, "12345");
  ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(ReadFileToString(directory / "fifo", 5, text));
}

TEST(Directories, AreMadeWithTheirModeAndRemovedWithoutFollowingLinks) {
  const TempDirectory directory;
  const mode_t oldMask = umask(077);
  EXPECT_TRUE(XCreateFullPathDir(directory / "a//b/c/", 0750));
  umask(oldMask);
  EXPECT_EQ(ModeOf(directory / "a"), 0750U);
  EXPECT_EQ(ModeOf(directory / "a/b/c"), 0750U);
  WriteText(directory / "kept", "text");
  EXPECT_FALSE(XCreateFullPathDir(directory / "kept/below", 0755));
  ASSERT_EQ(symlink(directory.Path().c_str(), (directory / "a/link").c_str()), 0);
  EXPECT_TRUE(XRemoveDirectory(directory / "a"));
  EXPECT_TRUE(XRemoveDirectory(directory / "a"));
  EXPECT_EQ(directory.EntryCount(), 1U);
}

TEST(MountTable, KnowsMountPointsFromDirectories) {
  EXPECT_TRUE(IsMountPoint("/proc"));
  EXPECT_TRUE(IsMountPoint("/proc/"));
  EXPECT_TRUE(IsMountPoint("/"));
  EXPECT_FALSE(IsMountPoint("/proc/self"));
}

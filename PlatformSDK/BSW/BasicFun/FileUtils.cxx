/// File-system helpers used throughout. Copying and replacing files is done here alone, because what they
/// promise (constant memory, old or new content after a power cut) is easily lost in a second version.
#include "BSW/BasicFun/FileUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "BSW/BasicFun/StringUtils.h"

namespace {

/// What is copied between two looks at the stop flag.
constexpr int64_t kCopyChunkBytes = 8 * 1024 * 1024;
/// Buffer of reads and writes through the process.
constexpr size_t kBufferBytes = 128U * 1024U;
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kNewFileMode = 0644;

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = RetryInterrupted([&] { return write(fd, data, length); });
    if (written < 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

/// Removes `path` and keeps the errno of what went wrong before.
void RemoveLeftover(const std::string& path) {
  const int savedErrno = errno;
  unlink(path.c_str());
  errno = savedErrno;
}

/// Moves content from one descriptor's position to another's: inside the kernel as long as the file systems
/// can do that, else through a buffer. Only the buffer's reads tell the end of the source and errors apart.
class ContentMover {
 public:
  ContentMover(int from, int to) : m_from(from), m_to(to) {}

  /// Moves at most `limit` bytes. The number moved, 0 at the end of the source, -1 on an error.
  int64_t Move(int64_t limit) {
    if (m_bInKernel) {
      const ssize_t moved = RetryInterrupted(
          [&] { return copy_file_range(m_from, nullptr, m_to, nullptr, static_cast<size_t>(limit), 0); });
      if (moved > 0) return moved;
      m_bInKernel = false;
      m_buffer.resize(kBufferBytes);
    }
    const size_t wanted = std::min(static_cast<size_t>(limit), m_buffer.size());
    const ssize_t got = RetryInterrupted([&] { return read(m_from, m_buffer.data(), wanted); });
    if (got > 0 && !WriteAll(m_to, m_buffer.data(), static_cast<size_t>(got))) return -1;
    return got;
  }

 private:
  const int m_from;
  const int m_to;
  bool m_bInKernel = true;
  std::vector<char> m_buffer;
};

/// Copies exactly `size` bytes and syncs them.
bool CopyContent(int from, int to, int64_t size, const StopPredicate& stop) {
  ContentMover mover(from, to);
  int64_t sinceStopPoll = kCopyChunkBytes;
  for (int64_t left = size; left > 0;) {
    if (sinceStopPoll >= kCopyChunkBytes) {
      sinceStopPoll = 0;
      if (stop && stop()) {
        errno = ECANCELED;
        return false;
      }
    }
    const int64_t moved = mover.Move(std::min(left, kCopyChunkBytes));
    if (moved < 0) return false;
    if (moved == 0) {
      errno = EIO;
      return false;
    }
    // Writing back starts now, so that a stop does not have to wait for all of it in fsync.
    sync_file_range(to, size - left, moved, SYNC_FILE_RANGE_WRITE);
    left -= moved;
    sinceStopPoll += moved;
  }
  struct stat written {};
  if (fsync(to) != 0 || fstat(to, &written) != 0) return false;
  if (written.st_size == size) return true;
  errno = EIO;
  return false;
}

/// Writes `content` with the owner and permissions of the file it will replace.
bool WriteReplacement(int fd, const std::string& replaced, std::string_view content) {
  struct stat old {};
  mode_t mode = kNewFileMode;
  if (stat(replaced.c_str(), &old) == 0) {
    mode = old.st_mode & kPermissionBits;
    if (fchown(fd, old.st_uid, old.st_gid) != 0) return false;
  }
  return WriteAll(fd, content.data(), content.size()) && fchmod(fd, mode) == 0 && fsync(fd) == 0;
}

/// A field of the mount table: blank, tab, newline and backslash stand there as three octal digits.
std::string UnescapeOctal(std::string_view field) {
  const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string text;
  for (size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
                        isOctal(field[i + 2]) && isOctal(field[i + 3]);
    if (!escape) {
      text += field[i];
      continue;
    }
    const int code = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
    text += static_cast<char>(code);
    i += 3;
  }
  return text;
}

}  // namespace

bool XFilePathExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

bool XIsRegularFile(const std::string& path) {
  return XGetFileSize(path) >= 0;
}

bool IsRegularFileItself(const std::string& path) {
  std::error_code error;
  return std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::regular;
}

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  return names;
}

bool HoldsOnlyFiles(const std::string& directory, std::string& other) {
  namespace fs = std::filesystem;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::file_type type = entry->symlink_status(error).type();
    if (type == fs::file_type::regular || type == fs::file_type::directory) continue;
    other = entry->path().string();
    return false;
  }
  return !error;
}

int64_t XGetFileSize(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return -1;
  if (S_ISREG(info.st_mode)) return info.st_size;
  errno = EINVAL;
  return -1;
}

bool XCreateFullPathDir(const std::string& path, mode_t mode) {
  std::vector<std::string> made;
  bool complete = !path.empty();
  for (size_t end = 0; complete && end < path.size();) {
    end = std::min(path.find('/', end + 1), path.size());
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), mode | S_IRWXU) == 0) {
      made.push_back(part);
    } else {
      complete = errno == EEXIST;
    }
  }
  // The deepest first: a mode without search permission must not lock us out of what is below.
  std::for_each(made.rbegin(), made.rend(), [mode](const std::string& part) { chmod(part.c_str(), mode); });
  struct stat info {};
  if (!complete || stat(path.c_str(), &info) != 0) return false;
  if (S_ISDIR(info.st_mode)) return true;
  errno = ENOTDIR;
  return false;
}

bool XRemoveDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (!error) return true;
  errno = error.value();
  return false;
}

bool XRenameFile(const std::string& from, const std::string& to) {
  return rename(from.c_str(), to.c_str()) == 0;
}

bool XDeleteFile(const std::string& path) {
  return unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool CopyFile(const std::string& from, const std::string& to, const StopPredicate& stop) {
  const UniqueFd source = OpenRegularFile(from);
  struct stat sourceInfo {};
  if (!source || fstat(source.Get(), &sourceInfo) != 0) return false;

  const mode_t mode = sourceInfo.st_mode & kPermissionBits;
  const UniqueFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, mode));
  struct stat targetInfo {};
  if (!target || fstat(target.Get(), &targetInfo) != 0) return false;
  const bool isSource = sourceInfo.st_dev == targetInfo.st_dev && sourceInfo.st_ino == targetInfo.st_ino;
  if (isSource || !S_ISREG(targetInfo.st_mode)) {
    errno = EINVAL;
    return false;
  }

  posix_fadvise(source.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  if (ftruncate(target.Get(), 0) == 0 && CopyContent(source.Get(), target.Get(), sourceInfo.st_size, stop) &&
      fchmod(target.Get(), mode) == 0 && SyncParentDirectory(to)) {
    return true;
  }
  RemoveLeftover(to);
  return false;
}

bool WriteFileAtomic(const std::string& path, std::string_view content) {
  // One name for all times: what a power cut leaves is used again instead of piling up.
  const std::string temporary = path + ".new";
  const UniqueFd file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kNewFileMode));
  if (!file) return false;
  if (!WriteReplacement(file.Get(), path, content) || !XRenameFile(temporary, path)) {
    RemoveLeftover(temporary);
    return false;
  }
  return SyncParentDirectory(path);
}

bool SyncFile(const std::string& path) {
  const UniqueFd file = OpenRegularFile(path);
  return file && fsync(file.Get()) == 0;
}

bool SyncParentDirectory(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const UniqueFd directory(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory && fsync(directory.Get()) == 0;
}

UniqueFd OpenRegularFile(const std::string& path) {
  UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.Get(), &info) != 0) return UniqueFd();
  if (S_ISREG(info.st_mode)) return file;
  errno = EINVAL;
  return UniqueFd();
}

bool ReadFileToString(const std::string& path, size_t maxBytes, std::string& content) {
  const UniqueFd file = OpenRegularFile(path);
  if (!file) return false;
  std::string text;
  std::vector<char> buffer(kBufferBytes);
  for (;;) {
    const ssize_t got = RetryInterrupted([&] { return read(file.Get(), buffer.data(), buffer.size()); });
    if (got < 0) return false;
    if (got == 0) break;
    if (static_cast<size_t>(got) > maxBytes - text.size()) {
      errno = EFBIG;
      return false;
    }
    text.append(buffer.data(), static_cast<size_t>(got));
  }
  content = std::move(text);
  return true;
}

std::vector<MountEntry> ReadMountTable() {
  constexpr size_t kMaxTableBytes = 1024U * 1024U;
  std::string table;
  if (!ReadFileToString("/proc/self/mounts", kMaxTableBytes, table)) return {};
  std::vector<MountEntry> entries;
  for (const std::string& line : Split(table, '\n')) {
    const std::vector<std::string> fields = Split(line, ' ');
    if (fields.size() >= 2) entries.push_back({UnescapeOctal(fields[0]), UnescapeOctal(fields[1])});
  }
  return entries;
}

bool IsMountPoint(const std::string& path) {
  const std::string wanted = path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
  const std::vector<MountEntry> table = ReadMountTable();
  return std::any_of(table.begin(), table.end(),
                     [&wanted](const MountEntry& entry) { return entry.mountPoint == wanted; });
}

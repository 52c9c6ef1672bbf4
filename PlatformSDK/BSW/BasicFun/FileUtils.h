/// File-system helpers used throughout. None of them logs: the caller knows what the file was for. Sizes are
/// 64 bit. All may be called from any thread; a failure leaves errno as the failed system call set it, unless
/// said otherwise.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "BSW/BasicFun/UniqueFd.h"

/// Polled by long operations; true ends them as failed.
using StopPredicate = std::function<bool()>;

bool XFilePathExists(const std::string& path);
bool XIsRegularFile(const std::string& path);
/// True for a regular file, not for a symbolic link to one.
bool IsRegularFileItself(const std::string& path);

/// Size in bytes, or -1 when `path` cannot be read or is no regular file.
int64_t XGetFileSize(const std::string& path);

/// Creates `path` with all missing parents. `mode` is given to each directory made, whatever the umask.
/// True when the directory is there afterwards.
bool XCreateFullPathDir(const std::string& path, mode_t mode);

/// Removes `path` and everything below it without following symbolic links. True when nothing is left, also
/// when there was nothing.
bool XRemoveDirectory(const std::string& path);

/// The names in `directory`, hidden ones too but not "." and "..", in no order; nothing when it cannot be
/// read.
std::vector<std::string> NamesIn(const std::string& directory);

/// True when there are only files and directories below `directory`: a link would lead out of it, and a
/// device or a pipe would be opened as a file. `other` gets the first thing that is neither.
bool HoldsOnlyFiles(const std::string& directory, std::string& other);

/// rename(2); both names must lie on one file system.
bool XRenameFile(const std::string& from, const std::string& to);

/// Deletes one file or symbolic link. True when it is gone, also when it was never there.
bool XDeleteFile(const std::string& path);

/// Copies a regular file's content and permissions with constant memory. The target is replaced and synced to
/// its disk. A source that ends before the size it had at the start, an I/O error or `stop` turning true
/// gives false and removes the target. Nothing is touched when the target is the source itself or no regular
/// file.
bool CopyFile(const std::string& from, const std::string& to, const StopPredicate& stop = {});

/// Replaces the content of `path` in one step that survives a power cut: written to a temporary name beside
/// it, synced, renamed, and the directory synced. Afterwards there is the old content or the new, never a
/// half. The parent directory must exist. On failure the old file is untouched and the temporary removed.
/// Writers of one path take turns: the temporary name is always the same.
bool WriteFileAtomic(const std::string& path, std::string_view content);

/// Opens a regular file for reading; empty for anything else. Never waits, not even on a FIFO.
UniqueFd OpenRegularFile(const std::string& path);

/// Makes the content of a regular file survive a power cut.
bool SyncFile(const std::string& path);

/// Makes the creation or removal of the directory entry `path` survive a power cut.
bool SyncParentDirectory(const std::string& path);

/// Reads a whole file of at most `maxBytes`; false when it is larger, no regular file, or unreadable.
bool ReadFileToString(const std::string& path, size_t maxBytes, std::string& content);

/// One line of /proc/self/mounts, its octal escapes resolved.
struct MountEntry {
  std::string device;
  std::string mountPoint;
};

/// What is mounted now, in the order of mounting; empty when the table cannot be read.
std::vector<MountEntry> ReadMountTable();

/// True when `path` itself is a mount point.
bool IsMountPoint(const std::string& path);

/// The files of one download. Names and format of the side file must stay: a new release of the program goes
/// on with what an older one left.
#include "Backend/PartFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"

namespace Quorvalen {
namespace {

constexpr std::string_view kPartSuffix = ".part";
constexpr std::string_view kMetaSuffix = ".meta";
/// What WriteFileAtomic appends while it writes the side file.
constexpr std::string_view kNewSuffix = ".new";
constexpr size_t kLongestName =
    kMaxFileNameBytes - kMetaSuffix.size() - kPartSuffix.size() - kNewSuffix.size();

/// Left free beside the download: the side file, directories, logs.
constexpr uint64_t kReserveBytes = 4U * 1024U * 1024U;
/// What is read, or brought to the disk, between two turns of the transfer thread: well below 100 ms on an
/// eMMC.
constexpr size_t kSliceBytes = 2U * 1024U * 1024U;
/// Writing back starts this often, so that little is left to wait for at the end.
constexpr uint64_t kWriteBackBytes = 8U * 1024U * 1024U;
constexpr mode_t kFileMode = 0644;
/// st_blocks counts in these.
constexpr uint64_t kStatBlockBytes = 512;

// Keys of the side file.
constexpr const char* kMd5Key = "md5";
constexpr const char* kSizeKey = "size";
constexpr const char* kEtagKey = "etag";
constexpr const char* kLastModifiedKey = "lastModified";

/// Visible ASCII and blanks, of a length that fits any header.
bool IsHeaderText(const std::string& text) {
  constexpr size_t kLongest = 256;
  return text.size() <= kLongest &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string PathOf(const DownloadRequest& request, std::string_view suffixes) {
  return request.directory + "/" + request.fileName + std::string(suffixes);
}

std::string RoomText(const std::string& path, uint64_t needed, uint64_t freeBytes) {
  return FormatText("no space for \"%s\": %llu bytes are needed, %llu are free", path.c_str(),
                    static_cast<unsigned long long>(needed), static_cast<unsigned long long>(freeBytes));
}

bool FreeBytes(const std::string& directory, uint64_t& bytes) {
  struct statvfs info {};
  if (statvfs(directory.c_str(), &info) != 0) return false;
  bytes = static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
  return true;
}

bool IsFull(int code) {
  return code == ENOSPC || code == EDQUOT;
}

}  // namespace

FileVersion FileVersion::Of(const std::string& etag, const std::string& lastModified) {
  return {IsHeaderText(etag) ? etag : "", IsHeaderText(lastModified) ? lastModified : ""};
}

std::string FileVersion::Condition() const {
  const bool strong = !etag.empty() && etag.front() == '"';
  return strong ? etag : lastModified;
}

bool FileVersion::DiffersFrom(const FileVersion& other) const {
  if (!etag.empty() && !other.etag.empty()) return etag != other.etag;
  return !lastModified.empty() && !other.lastModified.empty() && lastModified != other.lastModified;
}

PartFile::PartFile(const DownloadRequest& request)
    : m_request(request),
      m_strFinished(PathOf(request, "")),
      m_strPart(PathOf(request, kPartSuffix)),
      m_strMeta(PathOf(request, std::string(kMetaSuffix).append(kPartSuffix))) {}

bool PartFile::IsUsableName(std::string_view fileName) {
  return IsPlainFileName(fileName) && fileName.size() <= kLongestName && !EndsWith(fileName, kPartSuffix) &&
         !EndsWith(fileName, kMetaSuffix);
}

bool PartFile::MayBeFinished(const DownloadRequest& request) {
  return XGetFileSize(PathOf(request, "")) == static_cast<int64_t>(request.size);
}

uint64_t PartFile::BytesThere(const DownloadRequest& request) {
  if (MayBeFinished(request)) return request.size;
  PartFile file(request);
  const int64_t length = XGetFileSize(file.m_strPart);
  return file._BelongsHere(length) ? static_cast<uint64_t>(length) : 0;
}

bool PartFile::HasRoom(const DownloadRequest& request, std::string& error) {
  struct stat part {};
  uint64_t there = 0;
  if (lstat(PathOf(request, kPartSuffix).c_str(), &part) == 0 && S_ISREG(part.st_mode)) {
    there = static_cast<uint64_t>(part.st_blocks) * kStatBlockBytes;
  }
  uint64_t freeBytes = 0;
  if (!FreeBytes(request.directory, freeBytes)) {
    error = "the directory \"" + request.directory + "\": " + std::strerror(errno);
    return false;
  }
  const uint64_t missing = request.size - std::min(request.size, there);
  if (freeBytes >= kReserveBytes && missing <= freeBytes - kReserveBytes) return true;
  error = RoomText(PathOf(request, ""), missing + kReserveBytes, freeBytes);
  return false;
}

bool PartFile::OpenFinished() {
  m_file = OpenRegularFile(m_strFinished);
  struct stat info {};
  if (!m_file || fstat(m_file.Get(), &info) != 0 || static_cast<uint64_t>(info.st_size) != m_request.size) {
    m_file.Reset();
    return false;
  }
  m_bFinished = true;
  m_length = m_request.size;
  return true;
}

bool PartFile::OpenPart(std::string& error) {
  // A link or a FIFO in the file's place is neither followed nor waited for.
  UniqueFd file(open(m_strPart.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
  struct stat info {};
  if (!file || fstat(file.Get(), &info) != 0) return _Fail("open", error);
  if (!S_ISREG(info.st_mode)) {
    errno = EINVAL;
    return _Fail("open", error);
  }
  m_file = std::move(file);
  m_length = static_cast<uint64_t>(info.st_size);
  return _BelongsHere(info.st_size) || StartOver(error);
}

/// True when the part, of this length in bytes, is one of this download.
bool PartFile::_BelongsHere(int64_t length) {
  return length > 0 && static_cast<uint64_t>(length) <= m_request.size && _ReadMeta();
}

/// False when the bytes are not of this download.
bool PartFile::_ReadMeta() {
  Json::Value meta;
  if (!JsonUtils::ReadFileToJson(m_strMeta, meta)) return false;
  m_version = FileVersion::Of(JsonUtils::StringOr(meta, kEtagKey, ""),
                              JsonUtils::StringOr(meta, kLastModifiedKey, ""));
  return JsonUtils::StringOr(meta, kMd5Key, "") == m_request.md5 &&
         JsonUtils::StringOr(meta, kSizeKey, "") == std::to_string(m_request.size);
}

bool PartFile::SetVersion(const FileVersion& version, std::string& error) {
  Json::Value meta;
  meta[kMd5Key] = m_request.md5;
  meta[kSizeKey] = std::to_string(m_request.size);
  meta[kEtagKey] = version.etag;
  meta[kLastModifiedKey] = version.lastModified;
  m_version = version;
  return JsonUtils::WriteFileToJson(m_strMeta, meta, false) || _Fail("write the side file of", error);
}

bool PartFile::HashSlice(std::string& error) {
  m_buffer.resize(kSliceBytes);
  const size_t wanted = static_cast<size_t>(std::min<uint64_t>(m_length - m_hashed, kSliceBytes));
  const ssize_t got = RetryInterrupted(
      [&] { return pread(m_file.Get(), m_buffer.data(), wanted, static_cast<off_t>(m_hashed)); });
  if (got < 0) return _Fail("read", error);
  if (got == 0) {
    errno = EIO;  // shorter than it was
    return _Fail("read", error);
  }
  m_digest.Update(m_buffer.data(), static_cast<size_t>(got));
  m_hashed += static_cast<uint64_t>(got);
  return true;
}

bool PartFile::Holds(uint64_t offset, const char* data, size_t length) {
  m_buffer.resize(std::max(length, kSliceBytes));
  const ssize_t got = RetryInterrupted(
      [&] { return pread(m_file.Get(), m_buffer.data(), length, static_cast<off_t>(offset)); });
  return got == static_cast<ssize_t>(length) && std::memcmp(m_buffer.data(), data, length) == 0;
}

bool PartFile::Append(const char* data, size_t length, std::string& error) {
  while (length > 0) {
    const ssize_t written =
        RetryInterrupted([&] { return pwrite(m_file.Get(), data, length, static_cast<off_t>(m_length)); });
    if (written < 0) return _Fail("write", error);
    m_digest.Update(data, static_cast<size_t>(written));
    data += written;
    length -= static_cast<size_t>(written);
    m_length += static_cast<uint64_t>(written);
    m_hashed = m_length;
  }
  if (m_length - m_writtenBack >= kWriteBackBytes) {
    sync_file_range(m_file.Get(), static_cast<off_t>(m_writtenBack),
                    static_cast<off_t>(m_length - m_writtenBack), SYNC_FILE_RANGE_WRITE);
    m_writtenBack = m_length;
  }
  return true;
}

bool PartFile::StartOver(std::string& error) {
  m_length = m_hashed = m_writtenBack = m_synced = 0;
  m_bSound = true;
  m_version = {};
  m_strMd5.clear();
  m_digest.Reset();
  if (ftruncate(m_file.Get(), 0) != 0) return _Fail("empty", error);
  return XDeleteFile(m_strMeta) || _Fail("remove the side file of", error);
}

const std::string& PartFile::Md5() {
  if (m_strMd5.empty()) m_strMd5 = m_digest.Finish();
  return m_strMd5;
}

bool PartFile::SyncSlice(bool& done, std::string& error) {
  const uint64_t length = std::min<uint64_t>(m_length - m_synced, kSliceBytes);
  constexpr unsigned kWriteAndWait =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  // A file system that cannot sync ranges leaves it all to Commit.
  if (length > 0 &&
      sync_file_range(m_file.Get(), static_cast<off_t>(m_synced), static_cast<off_t>(length),
                      kWriteAndWait) != 0 &&
      (errno == EIO || IsFull(errno))) {
    return _FailSync(error);
  }
  m_synced += length;
  done = m_synced == m_length;
  return true;
}

bool PartFile::Commit(std::string& error) {
  if (fsync(m_file.Get()) != 0) return _FailSync(error);
  if (!XRenameFile(m_strPart, m_strFinished)) return _Fail("rename", error);
  if (!XDeleteFile(m_strMeta) || !SyncParentDirectory(m_strFinished))
    return _Fail("sync the directory of", error);
  return true;
}

void PartFile::Close() {
  m_file.Reset();
  m_bFinished = false;
  m_length = m_hashed = m_writtenBack = m_synced = 0;
  m_strMd5.clear();
  m_digest.Reset();
}

void PartFile::Discard() {
  Close();
  XDeleteFile(m_strPart);
  XDeleteFile(m_strMeta);
}

bool PartFile::_FailSync(std::string& error) {
  m_bSound = IsFull(errno);
  return _Fail("sync", error);
}

bool PartFile::_Fail(const char* what, std::string& error) const {
  const int code = errno;
  uint64_t freeBytes = 0;
  if (IsFull(code) && FreeBytes(m_request.directory, freeBytes)) {
    error = RoomText(m_strPart, m_request.size - m_length, freeBytes);
  } else {
    error = FormatText("cannot %s \"%s\": %s", what, (m_bFinished ? m_strFinished : m_strPart).c_str(),
                       std::strerror(code));
  }
  return false;
}

}  // namespace Quorvalen

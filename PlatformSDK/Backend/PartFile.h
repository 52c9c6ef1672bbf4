/// What has arrived of one download, on the disk: "<name>.part" with the bytes, "<name>.meta.part" with what
/// they are a part of, and the md5 of all of it. Both names end in ".part", so that a clean-up that spares
/// unfinished downloads needs one rule. Nothing here takes long: reading and syncing go slice by slice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "Backend/DownloadTask.h"

namespace Quorvalen {

/// What a server says to tell one version of a file from another; "" when it says nothing.
struct FileVersion {
  std::string etag;
  std::string lastModified;

  /// Of header texts from outside; one that is no plain header text counts as missing.
  static FileVersion Of(const std::string& etag, const std::string& lastModified);
  /// What an If-Range header may name: a strong ETag, else the date, else "".
  std::string Condition() const;
  /// True when both tell something and it is not the same.
  bool DiffersFrom(const FileVersion& other) const;
};

/// One thread at a time. The functions with `error` give false with the reason in it.
class PartFile {
 public:
  explicit PartFile(const DownloadRequest& request);

  /// True for a name with which both files stay in the directory and are never taken for another download's.
  static bool IsUsableName(std::string_view fileName);
  /// True when there is a finished file of the right size; only its md5 tells whether it is the one.
  static bool MayBeFinished(const DownloadRequest& request);
  /// How many bytes a download of this file would begin with.
  static uint64_t BytesThere(const DownloadRequest& request);
  /// Finds room for what is still missing, beside a reserve; the reason has the needed and the free size.
  static bool HasRoom(const DownloadRequest& request, std::string& error);

  /// Opens the finished file when there is one of the right size.
  bool OpenFinished();
  /// Opens or creates the part; its bytes count only when the side file says that they belong to this
  /// download.
  bool OpenPart(std::string& error);
  bool IsOpen() const { return static_cast<bool>(m_file); }
  /// True when it is the finished file that is open.
  bool IsFinished() const { return m_bFinished; }

  uint64_t Length() const { return m_length; }  ///< bytes on the disk
  /// False while bytes of an earlier run are not yet in the md5: then HashSlice is due before anything else.
  bool IsHashed() const { return m_hashed == m_length; }
  bool HashSlice(std::string& error);

  /// True when these bytes are what the disk holds from `offset` on.
  bool Holds(uint64_t offset, const char* data, size_t length);
  /// Appends. What was written before an error stays and counts.
  bool Append(const char* data, size_t length, std::string& error);
  /// Goes back to an empty file of no version.
  bool StartOver(std::string& error);

  const FileVersion& Version() const { return m_version; }
  /// Remembers, also across a restart of the program, which version the bytes are of.
  bool SetVersion(const FileVersion& version, std::string& error);

  /// 32 lower-case hex digits of everything; nothing is appended afterwards.
  const std::string& Md5();
  /// Brings the next slice to the disk; `done` when none is left.
  bool SyncSlice(bool& done, std::string& error);
  /// Gives the file its name; it survives a power cut from then on.
  bool Commit(std::string& error);
  /// False once the disk has refused bytes for another reason than that it is full. The kernel says so once:
  /// a second try would read the bytes from memory and find nothing wrong.
  bool IsSound() const { return m_bSound; }

  void Close();
  /// Removes part and side file.
  void Discard();

 private:
  bool _BelongsHere(int64_t length);
  bool _ReadMeta();
  bool _Fail(const char* what, std::string& error) const;
  bool _FailSync(std::string& error);

  const DownloadRequest m_request;
  const std::string m_strFinished;  ///< path of the file to be
  const std::string m_strPart;
  const std::string m_strMeta;
  UniqueFd m_file;
  bool m_bFinished = false;
  uint64_t m_length = 0;
  uint64_t m_hashed = 0;
  uint64_t m_writtenBack = 0;  ///< up to here the kernel was told to write
  uint64_t m_synced = 0;       ///< up to here it has
  bool m_bSound = true;
  FileVersion m_version;
  md5::Digest m_digest;
  std::string m_strMd5;  ///< once it is known
  std::vector<char> m_buffer;
};

}  // namespace Quorvalen

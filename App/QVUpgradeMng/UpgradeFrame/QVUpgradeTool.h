/// What every upgrade class uses: the logged shell-command runner, the strict JSON reader, package-file
/// search, the version-number parser, file MD5 and file-system usage. Static and stateless; any thread.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

/// Usage of one file system. Sizes in bytes.
struct partition_usage_t {
  uint64_t total_bytes = 0;
  uint64_t used_bytes = 0;
  uint64_t free_bytes = 0;
  uint64_t available_bytes = 0;  ///< to unprivileged users
  double usage_percent = 0.0;
  std::string path;  ///< as queried
};

class QVUpgradeTool {
 public:
  /// Runs `cmd` through a shell and waits for it. The exit code, 0 to 255 (127: no such command), or -1,
  /// logged, when it could not be run or was killed.
  static int ExecCommand(const char* cmd);
  static int ExecCommand(const std::string& cmd) { return ExecCommand(cmd.c_str()); }
  /// The same unless the calling thread was asked to stop: -1 then, and nothing is run or logged.
  static int ExecUnlessStopped(const std::string& cmd);

  /// Reads one JSON document of bounded size and depth. Every failure is logged.
  static bool readFileToJson(const char* path, Json::Value& out);

  /// The name of the first regular file of `dir` (not below it) whose name contains `part`; empty when none.
  static std::string ReadAllUpgradeFile(const char* dir, const char* part);
  /// As above, and the whole name must be that of a base-station package: side-car files are passed over.
  static std::string ReadAllUpgradeFileOTAPack(const char* dir, const char* part);

  /// The first four dot-separated decimal numbers of `fileName`.
  static bool ParseVerNum(const std::string& fileName, std::string& version);

  /// The name up to its last "."; no caller yet.
  static std::string RemoveExtension(const std::string& name);

  /// The file's MD5 as 32 lower-case hex digits; empty when it cannot be read or the calling thread is
  /// stopped.
  static std::string SumFileMd5(const char* path);

  /// Usage of the file system that holds `path`. Failures go to standard error.
  static bool getPartitionUserSize(const char* path, partition_usage_t* out);
};

/// What is asked of the cloud backend, and what it may answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Quorvalen {

/// Who asks, and what is installed.
struct QueryRequest {
  std::string productCode;  ///< "K9031"
  std::string deviceId;     ///< "RRU01"
  std::string hardVersion;  ///< "H200"
  std::string softVersion;  ///< "S4.0.9.10"
};

/// A package that the backend offers. Checked: a plain file name, an allowed address, a size above 0, 32
/// lower-case hex digits. All but the release note are free of control characters.
struct PackageInfo {
  std::string softVersion;
  std::string fileName;
  std::string url;
  uint64_t size = 0;  ///< bytes
  std::string md5;
  std::string releaseNote;  ///< may have line breaks, and anything else: not for the log
};

struct QueryResult {
  std::string error;                   ///< "" on success; else what was tried and what went wrong
  std::optional<PackageInfo> package;  ///< none: there is no newer one, or an error
  bool willRetry = false;              ///< after an error: the query is asked again by itself
};

}  // namespace Quorvalen

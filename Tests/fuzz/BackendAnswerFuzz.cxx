// The backend's answer, which is whatever a server on the net sends: never a crash, and never a package that
// could leave the download directory, has no size, or comes from an address that is not allowed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/StringUtils.h"
#include "Backend/AllowedAddress.h"
#include "Backend/QuorvalenBackendServer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Quorvalen::QueryResult result =
      Quorvalen::QuorvalenBackendServer::ParseAnswer({reinterpret_cast<const char*>(data), size});
  if (!result.package) return 0;
  const Quorvalen::PackageInfo& package = *result.package;
  std::string error;
  if (!result.error.empty() || !IsPlainFileName(package.fileName) || package.size == 0 ||
      !md5::IsDigest(package.md5) || !Quorvalen::IsAllowedAddress(package.url, error) ||
      !IsValidUtf8(package.softVersion) || !IsValidUtf8(package.releaseNote)) {
    std::abort();
  }
  return 0;
}

/// Answers of the backend are checked as far as they go by the client library; here stands what only this
/// device knows.
#include "UpgradeFrame/AccessMng/OtaOffer.h"

#include <algorithm>
#include <cinttypes>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradePackage/PackageName.h"

namespace OtaOffer {

namespace {

/// While a package is unpacked the disk holds the archive, its content, and the content's copy in the page
/// root.
constexpr uint64_t kCopiesOnDisk = 3;

constexpr int kMaxUnfinishedPercent = 99;

}  // namespace

Quorvalen::QueryResult Judge(Quorvalen::QueryResult answer, const std::string& installedVersion) {
  if (!answer.package) return answer;
  const Quorvalen::PackageInfo& package = *answer.package;
  if (package.softVersion == installedVersion) {
    LOGI("the backend offers the installed version %s", installedVersion.c_str());
    answer.package.reset();
  } else if (package.softVersion.empty() || package.softVersion.size() > kMaxFileNameBytes) {
    answer.error = "the backend offers a package without a usable version";
  } else if (!PackageName::IsDownloadName(package.fileName)) {
    answer.error = "the backend offers a package with an unusable file name";
  }
  if (!answer.error.empty()) {
    LOGE("%s: \"%s\", \"%s\"", answer.error.c_str(), package.softVersion.c_str(), package.fileName.c_str());
    answer.package.reset();
  }
  return answer;
}

Json::Value Report(const Quorvalen::QueryResult& judged) {
  const Quorvalen::PackageInfo package = judged.package.value_or(Quorvalen::PackageInfo());
  Json::Value report(Json::objectValue);
  report["softVersion"] = package.softVersion;
  report["size"] = static_cast<Json::UInt64>(package.size);
  report["releaseNote"] = package.releaseNote;
  report["ErrorMsg"] = judged.error;
  return report;
}

int Percent(uint64_t received, uint64_t total) {
  if (total == 0) return 0;
  const double percent = 100.0 * static_cast<double>(received) / static_cast<double>(total);
  return static_cast<int>(std::min<double>(percent, kMaxUnfinishedPercent));
}

Failure SpaceShortage(uint64_t size, uint64_t present, uint64_t available) {
  const uint64_t needed = size > UINT64_MAX / kCopiesOnDisk ? UINT64_MAX : size * kCopiesOnDisk;
  const uint64_t missing = needed - std::min(present, needed);
  if (missing <= available) return {};
  return Fail(Reason::Space,
              "no space to download and unpack it: %" PRIu64 " bytes are needed, %" PRIu64 " are free",
              missing, available);
}

}  // namespace OtaOffer

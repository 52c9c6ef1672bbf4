/// The name patterns are agreed with those who build packages.
#include "UpgradePackage/PackageName.h"

#include <cstddef>
#include <regex>
#include <string_view>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace PackageName {

namespace {

constexpr const char* kUdiskPattern = R"(QV_K9031_H\d{3}_S\d+\.\d+\.\d+\.\d+_RRU_UDISK_Common_\d+.*)";
constexpr const char* kOtaPattern = R"(QV_K90XX_H\d{3}_S\d+\.\d+\.\d+\.\d+_OTA_Common_\d+.*)";

/// The product field, with which a name from the web begins.
constexpr std::string_view kProduct = "QV_K9031";

constexpr std::string_view kZipExtension = ".zip";

/// Which of the fields between the "_" of a name is the software version.
constexpr size_t kSoftVersionField = 3;

/// True for a name that has more to it than `extension`.
bool EndsIn(const std::string& fileName, std::string_view extension) {
  return fileName.size() > extension.size() &&
         fileName.compare(fileName.size() - extension.size(), extension.size(), extension) == 0;
}

}  // namespace

const char* Pattern(UPGRADEACCESSTYPE source, const std::string& fileName) {
  switch (source) {
    case UP_UDISK:
      return kUdiskPattern;
    case UP_WEBS:
      // Web uploads come in both kinds: "QV_K9031…" is a stick's package, and "QV_K90XX…" and all others are
      // held against the name of a cloud package.
      return fileName.compare(0, kProduct.size(), kProduct) == 0 ? kUdiskPattern : kOtaPattern;
    default:
      return nullptr;
  }
}

bool Matches(const std::string& name, const char* pattern) {
  return name.size() <= kMaxFileNameBytes && !HasControlCharacter(name) &&
         std::regex_match(name, std::regex(pattern));
}

std::string SoftVersion(const std::string& fileName) {
  const std::vector<std::string> fields = Split(fileName, '_');
  return fields.size() > kSoftVersionField ? fields[kSoftVersionField] : std::string();
}

bool IsZip(const std::string& fileName) {
  return EndsIn(fileName, kZipExtension);
}

bool IsUnfinished(const std::string& path) {
  return EndsIn(path, UpgradePaths::kUnfinishedExtension);
}

bool IsDownloadName(const std::string& fileName) {
  return IsZip(fileName) && IsPlainFileName(fileName) && fileName.front() != '.' &&
         ShellQuote(fileName) == fileName;
}

}  // namespace PackageName

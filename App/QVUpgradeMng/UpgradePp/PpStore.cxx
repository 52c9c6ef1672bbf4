/// What lies where:
///
///   /firmware/pp/7308/  one archive; beside it, unpacked: K7308_PP_APP.bin and RTX/, the radio's firmware
///   /firmware/pp/7204/  one ".ota" file each of the two hardware variants
///   /config/pp_ver.json {"PpVer":[{"PpType":7308,"SwVersion":"","HwVersion":"","RtxVersion":""}]}
///
/// The software version of a package is in its name, the other two are in the version file alone. Packages
/// come from outside: an archive may hold anything under any name.
#include "UpgradePp/PpStore.h"

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <regex>
#include <utility>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/HexText.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePackage/PackageName.h"
#include "UpgradePackage/Parts.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace PpStore {

namespace {

using UpgPp::PpFw_t;
using UpgPp::PpFwMap;
using UpgPp::PpType;

/// A package that is imported between a listing and what follows from it would be lost.
CMutex storeMutex;

/// What is no matter of names stands in the part's row, whose texts are literals.
constexpr Family FamilyOf(UPGRADETYPE type, const char* namePattern) {
  const Parts::Part& part = *Parts::Find(type);
  return {part.page.data(), part.target[Parts::kSideA], namePattern};
}
constexpr Family k7204 = FamilyOf(UP_7204, R"(QVD_K7204_H100_S\d+\.\d+\.\d+\.\d+.*.ota)");
constexpr Family k7204Evt = FamilyOf(UP_7204_EVT, R"(QVD_K7204_H000_S\d+\.\d+\.\d+\.\d+.*.ota)");
constexpr Family k7308 = FamilyOf(UP_7308, R"(QVD_K7308_H\d{3}_S\d+\.\d+\.\d+\.\d+_OTA_Common_\d+\.zip)");
constexpr mode_t kDirectoryMode = 0755;

/// The types that the file of versions may name.
constexpr std::array<PpType, 4> kTypes = {UpgPp::EM_PP_7302_03, UpgPp::EM_PP_7308, UpgPp::EM_PP_7204,
                                          UpgPp::EM_PP_7204_EVT};
constexpr const char* k7308Image = "K7308_PP_APP.bin";
constexpr const char* k7204DvtHardware = "H100";

constexpr const char* m_strPpVerFile = "/config/pp_ver.json";
/// Of hardware and radio; an absent software version is kNoVersion.
constexpr const char* kDefaultVersion = "V0.0.0.0";

std::vector<std::string> PackageNames(const Family& family, const std::string& directory)
    REQUIRES(storeMutex);
void Load7308(const std::string& directory, PpFwMap& held) REQUIRES(storeMutex);
void _Load7204FwInfo(const std::string& directory, PpFwMap& held) REQUIRES(storeMutex);
void LoadVersionFile(const std::string& path, PpFwMap& held);

void SetIfEmpty(std::string& version, const char* fallback) {
  if (version.empty()) version = fallback;
}

}  // namespace

const Family* Find(const std::string& pageType) {
  for (const Family* family : {&k7204, &k7204Evt, &k7308}) {
    if (pageType == family->pageType) return family;
  }
  return nullptr;
}

bool IsPackage(const Family& family, const std::string& path) {
  return PackageName::Matches(std::string(BaseName(path)), family.namePattern) && IsRegularFileItself(path);
}

Failure Replace(const Family& family, const std::string& source) {
  if (!XCreateFullPathDir(family.directory, kDirectoryMode)) {
    return Fail(Reason::PortableStore, "cannot create %s: %s", family.directory, std::strerror(errno));
  }
  const CLock lock(storeMutex);
  for (const std::string& oldName : PackageNames(family, family.directory)) {
    const std::string old = family.directory + oldName;
    LOGI("Delete old package:%s", old.c_str());
    if (!XDeleteFile(old)) LOGE("cannot delete %s: %s", old.c_str(), std::strerror(errno));
  }
  const std::string destination = family.directory + std::string(BaseName(source));
  LOGI("Move SrcPath:%s -> DestPath:%s", source.c_str(), destination.c_str());
  if (!XRenameFile(source, destination)) {
    return Fail(Reason::PortableStore, "cannot move %s to %s: %s", source.c_str(), destination.c_str(),
                std::strerror(errno));
  }
  // The version record is written next, on another file system: it must not outlive the package.
  if (!SyncFile(destination) || !SyncParentDirectory(destination)) {
    return Fail(Reason::PortableStore, "cannot sync %s: %s", destination.c_str(), std::strerror(errno));
  }
  return {};
}

PpFwMap Load(const std::string& root) {
  PpFwMap held;
  {
    const CLock lock(storeMutex);
    Load7308(root + k7308.directory, held);
    _Load7204FwInfo(root + k7204.directory, held);
  }
  LoadVersionFile(root + m_strPpVerFile, held);
  for (auto& [type, firmware] : held) {
    SetIfEmpty(firmware.m_strVerison, kNoVersion);
    SetIfEmpty(firmware.m_strHwVerison, kDefaultVersion);
    SetIfEmpty(firmware.m_strRtxVerison, kDefaultVersion);
  }
  LOGI("Load version inf done!");
  return held;
}

namespace {

std::vector<std::string> PackageNames(const Family& family, const std::string& directory) {
  std::vector<std::string> names = NamesIn(directory);
  const auto isOther = [&](const std::string& name) { return !IsPackage(family, directory + name); };
  names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
  return names;
}

/// The version in a package's name, as the name writes it; empty when there is none.
std::string VersionIn(const std::string& name) {
  static const std::regex pattern(R"(S(\d+\.\d+\.\d+\.\d+))");
  std::smatch match;
  return std::regex_search(name, match, pattern) ? match.str(1) : std::string();
}

/// The package of `family` with the highest version; of equal ones the last by name. Empty when there is
/// none. A name without a usable version counts as the lowest, so that it is told of when it is the only one.
std::string FindPackage(const Family& family, const char* extension, const std::string& directory)
    REQUIRES(storeMutex) {
  std::pair<std::optional<VersionNumbers>, std::string> best;
  size_t count = 0;
  for (std::string& name : PackageNames(family, directory)) {
    if (std::filesystem::path(name).extension() != extension) continue;
    ++count;
    best = std::max(best, {PpVersion::Parse(VersionIn(name)), std::move(name)});
  }
  if (count > 1)
    LOGW("%zu packages of %s, the highest counts:%s", count, family.pageType, best.second.c_str());
  return best.second;
}

/// Sets version text and numbers; false, logged, when `version` is none.
bool _ParseVerNum(const std::string& version, PpFw_t& firmware) {
  const std::optional<VersionNumbers> numbers = PpVersion::Parse(version);
  if (!numbers) {
    LOGE("Error version string:%s", version.c_str());
    return false;
  }
  firmware.m_strVerison = PpVersion::Text(*numbers);
  firmware.m_vecVerNum.assign(numbers->begin(), numbers->end());
  LOGI("VerNum(hex):%s, Ver:%s", HexText(numbers->data(), numbers->size()).c_str(),
       firmware.m_strVerison.c_str());
  return true;
}

bool PrepareDirectory(const std::string& directory) {
  if (XFilePathExists(directory)) return true;
  LOGW("%s not exist, create", directory.c_str());
  if (XCreateFullPathDir(directory, kDirectoryMode)) return true;
  LOGE("Cannot create %s: %s", directory.c_str(), std::strerror(errno));
  return false;
}

/// Removes what was unpacked before from the directory of the archives: `unzip` replaces nothing unasked, and
/// an image that the next archive lacks would stay.
bool RemoveUnpacked(const std::string& directory, const std::vector<std::string>& archives) {
  bool removed = true;
  for (const std::string& name : NamesIn(directory)) {
    if (std::find(archives.begin(), archives.end(), name) == archives.end())
      removed = XRemoveDirectory(directory + name) && removed;
  }
  if (!removed) LOGE("Cannot remove what was unpacked in %s", directory.c_str());
  return removed;
}

/// True when below `directory` are only files and directories.
bool HoldsNothingElse(const std::string& directory) {
  std::string other;
  if (HoldsOnlyFiles(directory, other)) return true;
  if (!other.empty()) LOGE("Neither file nor directory:%s", other.c_str());
  return false;
}

/// Unpacks the 7308's archive `name` so that afterwards there is its image, or none at all.
bool Unpack(const std::string& directory, const std::string& name) REQUIRES(storeMutex) {
  const std::string archive = directory + name;
  const std::vector<std::string> archives = PackageNames(k7308, directory);
  if (!RemoveUnpacked(directory, archives)) return false;
  // What `unzip` asks about nobody answers: it fails then.
  const int code =
      QVUpgradeTool::ExecUnlessStopped("unzip " + ShellQuote(archive) + " -d " + ShellQuote(directory));
  // An archive in the archive would pass for a package at the next load.
  if (code == 0 && HoldsNothingElse(directory) && IsRegularFileItself(directory + k7308Image) &&
      PackageNames(k7308, directory).size() == archives.size()) {
    return true;
  }
  // A stop ends the command, or keeps it from being run.
  if (!CThread::StopRequested()) {
    LOGE("Unzip failed!Info, strSrcPath:%s, strDesPath:%s", archive.c_str(), directory.c_str());
  }
  RemoveUnpacked(directory, archives);
  return false;
}

void Load7308(const std::string& directory, PpFwMap& held) {
  if (!PrepareDirectory(directory)) return;
  const std::string archive = FindPackage(k7308, ".zip", directory);
  if (archive.empty()) {
    LOGE("Error zip package of 7308!ErrVal:%s", directory.c_str());
    return;
  }
  LOGI("7308 FwPackage:%s", archive.c_str());
  PpFw_t firmware;
  if (!_ParseVerNum(VersionIn(archive), firmware)) {
    LOGE("Error version name of 7308");
    return;
  }
  if (!Unpack(directory, archive)) return;
  firmware.m_strFwPath = directory;
  firmware.m_strFileName = k7308Image;
  held[UpgPp::EM_PP_7308] = std::move(firmware);
}

/// One of both hardwares; false when there is no usable package for it.
bool Add7204(PpType type, const std::string& directory, PpFwMap& held) REQUIRES(storeMutex) {
  const bool isEvt = type == UpgPp::EM_PP_7204_EVT;
  const std::string package = FindPackage(isEvt ? k7204Evt : k7204, ".ota", directory);
  if (package.empty()) return false;
  LOGI(isEvt ? "EVT FW!!! Name:%s" : "Dvt FW!!! Name:%s", package.c_str());
  PpFw_t& firmware = held[type];
  if (!_ParseVerNum(VersionIn(package), firmware)) return false;
  firmware.m_strFwPath = directory;
  firmware.m_strFileName = package;
  return true;
}

void _Load7204FwInfo(const std::string& directory, PpFwMap& held) {
  // Without firmware one is paired all the same.
  held[UpgPp::EM_PP_7204].m_strHwVerison = k7204DvtHardware;
  held[UpgPp::EM_PP_7204_EVT].m_strHwVerison = UpgPp::k7204EvtHardware;
  if (!PrepareDirectory(directory)) return;
  const bool hasDvt = Add7204(UpgPp::EM_PP_7204, directory, held);
  const bool hasEvt = Add7204(UpgPp::EM_PP_7204_EVT, directory, held);
  if (hasDvt && hasEvt) {
    LOGI("Find all type fw.");
  } else if (hasDvt) {
    LOGW("Only find DVT package.");
  } else if (hasEvt) {
    LOGW("Only find EVT package.");
  } else {
    LOGE("Not find all type fw.");
  }
}

/// Sets `version` to the text under `key`, if there is a usable one.
void TakeVersion(const Json::Value& entry, const char* key, std::string& version) {
  std::string text;
  if (JsonUtils::GetString(entry, key, text) && !text.empty() && IsVersionText(text))
    version = std::move(text);
}

/// Of a type with a package the entry gives the hardware and RTX versions alone.
void LoadVersionFile(const std::string& path, PpFwMap& held) {
  Json::Value document;
  std::string error;
  if (!JsonUtils::ReadFileToJson(path, document, &error)) {
    LOGE("Occurred err while ReadFileToJson.%s: %s", path.c_str(), error.c_str());
    return;
  }
  const Json::Value entries = document.isObject() ? document["PpVer"] : Json::Value();
  if (!entries.isArray() && !entries.isObject()) {
    LOGE("Error member 'PpVer' in file:%s", path.c_str());
    return;
  }
  for (const Json::Value& entry : entries) {
    int type = 0;
    if (!JsonUtils::GetInt(entry, "PpType", type) ||
        std::find(kTypes.begin(), kTypes.end(), type) == kTypes.end()) {
      LOGW("Entry of no known PP type in %s: %d", path.c_str(), type);
      continue;
    }
    PpFw_t& record = held[static_cast<PpType>(type)];
    if (record.m_strFileName.empty()) {
      TakeVersion(entry, "SwVersion", record.m_strVerison);
      record.m_strVerison = PpVersion::Normal(record.m_strVerison);
    }
    TakeVersion(entry, "HwVersion", record.m_strHwVerison);
    TakeVersion(entry, "RtxVersion", record.m_strRtxVerison);
    LOGI("SwVersion:%s, HwVersion:%s, RtxVersion:%s,PpType:%d ", record.m_strVerison.c_str(),
         record.m_strHwVerison.c_str(), record.m_strRtxVerison.c_str(), type);
  }
}

}  // namespace

}  // namespace PpStore

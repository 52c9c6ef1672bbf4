/// What lies where:
///
///   /firmware/pp/7308/  one archive; beside it, unpacked: K7308_PP_APP.bin and RTX/, the radio's firmware
///   /firmware/pp/7204/  one ".ota" file each of the two hardware variants
///   /config/pp_ver.json {"PpVer":[{"PpType":7308,"SwVersion":"","HwVersion":"","RtxVersion":""}]}
///
/// The software version of a package is in its name, the other two are in the version file alone. Packages
/// come from outside: an archive may hold anything under any name.
#include "UpgradePp/PpFirmwareStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>
#include <system_error>
#include <utility>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/HexText.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/PackageManifest.h"
#include "UpgradePp/PpStore.h"
#include "UpgradePp/PpVersion.h"

namespace {

namespace fs = std::filesystem;
using UpgPp::PpFw_t;
using UpgPp::PpFwMap;
using UpgPp::PpType;

constexpr mode_t kDirectoryMode = 0755;
constexpr const char* k7308 = "7308";
constexpr const char* k7308Image = "K7308_PP_APP.bin";
constexpr const char* k7204Extension = ".ota";
constexpr const char* k7204DvtHardware = "H100";
constexpr const char* k7204EvtHardware = "H000";

constexpr const char* kDefaultSwVersion = "V0.0.0.00";
constexpr const char* kDefaultVersion = "V0.0.0.0";

/// The version in a package's name, as the name writes it; empty when there is none.
std::string VersionIn(const std::string& name) {
  static const std::regex pattern(R"(S(\d+\.\d+\.\d+\.\d+))");
  std::smatch match;
  return std::regex_search(name, match, pattern) ? match.str(1) : std::string();
}

/// The package of `family` with the highest version; of equal ones the last by name. Empty when there is
/// none. A name without a usable version counts as the lowest, so that it is told of when it is the only one.
std::string FindPackage(const std::string& directory, const char* family, const char* extension) {
  std::pair<std::vector<uint8_t>, std::string> best;
  size_t count = 0;
  for (std::string& name : PpStore::PackageNames(directory, *PpStore::Find(family))) {
    if (fs::path(name).extension() != extension) continue;
    ++count;
    best = std::max(best, {PpVersion::Numbers(VersionIn(name)), std::move(name)});
  }
  if (count > 1) LOGW("%zu packages of %s, the highest counts:%s", count, family, best.second.c_str());
  return best.second;
}

/// Removes what was unpacked before from the directory of the archives: `unzip` replaces nothing unasked, and
/// an image that the next archive lacks would stay.
bool RemoveUnpacked(const std::string& directory, const std::vector<std::string>& archives) {
  std::vector<fs::path> unpacked;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (std::find(archives.begin(), archives.end(), name) == archives.end())
      unpacked.push_back(entry->path());
  }
  bool removed = !error;
  for (const fs::path& path : unpacked) removed = XRemoveDirectory(path.string()) && removed;
  if (!removed) LOGE("Cannot remove what was unpacked in %s", directory.c_str());
  return removed;
}

/// True when there are only files and directories below `directory`: a link would lead out of it.
bool HoldsOnlyFiles(const std::string& directory) {
  std::error_code error;
  fs::recursive_directory_iterator entry(directory, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const fs::file_type type = entry->symlink_status(error).type();
    if (type == fs::file_type::regular || type == fs::file_type::directory) continue;
    LOGE("Neither file nor directory:%s", entry->path().c_str());
    return false;
  }
  return !error;
}

/// Unpacks `archive` so that afterwards there is its image, or none at all.
bool Unpack(const std::string& archive, const std::string& directory) {
  const std::vector<std::string> archives = PpStore::PackageNames(directory, *PpStore::Find(k7308));
  if (!RemoveUnpacked(directory, archives)) return false;
  // What `unzip` asks about nobody answers: it fails then.
  const int code =
      QVUpgradeTool::ExecUnlessStopped("unzip " + ShellQuote(archive) + " -d " + ShellQuote(directory));
  // An archive in the archive would pass for a package at the next load.
  const bool unpacked = code == 0 && HoldsOnlyFiles(directory) &&
                        IsRegularFileItself(directory + k7308Image) &&
                        PpStore::PackageNames(directory, *PpStore::Find(k7308)).size() == archives.size();
  if (unpacked) return true;
  // A stop ends the command, or keeps it from being run.
  if (!CThread::StopRequested()) {
    LOGE("Unzip failed!Info, strSrcPath:%s, strDesPath:%s", archive.c_str(), directory.c_str());
  }
  RemoveUnpacked(directory, archives);
  return false;
}

bool PrepareDirectory(const std::string& directory) {
  if (XFilePathExists(directory)) return true;
  LOGW("%s not exist, create", directory.c_str());
  if (XCreateFullPathDir(directory, kDirectoryMode)) return true;
  LOGE("Cannot create %s: %s", directory.c_str(), std::strerror(errno));
  return false;
}

/// Sets `version` to the text under `key`, if there is a usable one.
void TakeVersion(const Json::Value& entry, const char* key, std::string& version) {
  std::string text;
  if (PackageManifest::GetVersion(entry, key, text)) version = std::move(text);
}

void SetIfEmpty(std::string& version, const char* fallback) {
  if (version.empty()) version = fallback;
}

bool IsKnown(int type) {
  return type == UpgPp::EM_PP_7302_03 || type == UpgPp::EM_PP_7308 || type == UpgPp::EM_PP_7204 ||
         type == UpgPp::EM_PP_7204_EVT;
}

}  // namespace

bool PpFirmwareStore::Load(Found& found, const std::string& directory, const std::string& versionFile) {
  found = Found();
  {
    // A package that is imported between a listing and what follows from it would be lost.
    const auto held = PpStore::Hold();
    _Load7308FwInfo(directory + "/" + k7308 + "/", found);
    _Load7204FwInfo(directory + "/7204/", found);
  }
  _LoadVersionFile(versionFile, found.firmware);
  for (auto& [type, firmware] : found.firmware) {
    SetIfEmpty(firmware.m_strVerison, kDefaultSwVersion);
    SetIfEmpty(firmware.m_strHwVerison, kDefaultVersion);
    SetIfEmpty(firmware.m_strRtxVerison, kDefaultVersion);
  }
  LOGI("Load version inf done!");
  return found.has7308 || found.has7204Dvt || found.has7204Evt;
}

void PpFirmwareStore::_Load7308FwInfo(const std::string& directory, Found& found) {
  if (!PrepareDirectory(directory)) return;
  const std::string archive = FindPackage(directory, k7308, ".zip");
  if (archive.empty()) {
    LOGE("Error zip package of 7308!ErrVal:%s", directory.c_str());
    return;
  }
  LOGI("7308 FwPackage:%s", archive.c_str());
  PpFw_t firmware;
  firmware.m_strFwPath = directory;
  firmware.m_strFileName = k7308Image;
  if (!_ParseVerNum(VersionIn(archive), firmware)) {
    LOGE("Error version name of 7308");
    return;
  }
  if (!Unpack(directory + archive, directory)) return;
  found.firmware[UpgPp::EM_PP_7308] = std::move(firmware);
  found.has7308 = true;
}

void PpFirmwareStore::_Load7204FwInfo(const std::string& directory, Found& found) {
  // Without firmware one is paired all the same.
  PpFw_t& dvtFirmware = found.firmware[UpgPp::EM_PP_7204];
  PpFw_t& evtFirmware = found.firmware[UpgPp::EM_PP_7204_EVT];
  dvtFirmware.m_strHwVerison = k7204DvtHardware;
  evtFirmware.m_strHwVerison = k7204EvtHardware;
  if (!PrepareDirectory(directory)) return;
  const std::string dvt = FindPackage(directory, "7204", k7204Extension);
  if (!dvt.empty()) {
    LOGI("Dvt FW!!! Name:%s", dvt.c_str());
    found.has7204Dvt = _Add7204(directory, dvt, dvtFirmware);
  }
  const std::string evt = FindPackage(directory, "7204_EVT", k7204Extension);
  if (!evt.empty()) {
    LOGI("EVT FW!!! Name:%s", evt.c_str());
    found.has7204Evt = _Add7204(directory, evt, evtFirmware);
  }
  if (found.has7204Dvt && found.has7204Evt) {
    LOGI("Find all type fw.");
  } else if (found.has7204Dvt) {
    LOGW("Only find DVT package.");
  } else if (found.has7204Evt) {
    LOGW("Only find EVT package.");
  } else {
    LOGE("Not find all type fw.");
  }
}

bool PpFirmwareStore::_Add7204(const std::string& directory, const std::string& fileName, PpFw_t& firmware) {
  if (!_ParseVerNum(VersionIn(fileName), firmware)) return false;
  firmware.m_strFwPath = directory;
  firmware.m_strFileName = fileName;
  return true;
}

bool PpFirmwareStore::_ParseVerNum(const std::string& version, PpFw_t& firmware) {
  firmware.m_strVerison = PpVersion::Normal(version);
  firmware.m_vecVerNum = PpVersion::Numbers(version);
  if (firmware.m_vecVerNum.empty()) {
    LOGE("Error version string:%s", version.c_str());
    return false;
  }
  LOGI("VerNum(hex):%s, Ver:%s", HexText(firmware.m_vecVerNum.data(), firmware.m_vecVerNum.size()).c_str(),
       firmware.m_strVerison.c_str());
  return true;
}

/// Of a type with a package the entry gives the hardware and RTX versions alone.
void PpFirmwareStore::_LoadVersionFile(const std::string& path, PpFwMap& firmware) {
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
    if (!JsonUtils::GetInt(entry, "PpType", type) || !IsKnown(type)) {
      LOGW("Entry of no known PP type in %s: %d", path.c_str(), type);
      continue;
    }
    PpFw_t& record = firmware[static_cast<PpType>(type)];
    if (record.m_strFileName.empty()) {
      TakeVersion(entry, "SwVersion", record.m_strVerison);
      const std::string normal = PpVersion::Normal(record.m_strVerison);
      if (!normal.empty()) record.m_strVerison = normal;
    }
    TakeVersion(entry, "HwVersion", record.m_strHwVerison);
    TakeVersion(entry, "RtxVersion", record.m_strRtxVerison);
    LOGI("SwVersion:%s, HwVersion:%s, RtxVersion:%s,PpType:%d ", record.m_strVerison.c_str(),
         record.m_strHwVerison.c_str(), record.m_strRtxVerison.c_str(), type);
  }
}

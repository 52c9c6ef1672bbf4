/// What lies where:
///
///   /firmware/pp/7308/  one archive; beside it, unpacked: K7308_PP_APP.bin and RTX/, the radio's firmware
///   /firmware/pp/7204/  one ".ota" file each of the two hardware variants
///   /config/pp_ver.json {"PpVer":[{"PpType":7308,"SwVersion":"","HwVersion":"","RtxVersion":""}]}
///
/// The software version of a package is in its name, the other two are in the version file alone. Packages
/// come from outside: an archive may hold anything under any name.
#include "UpgradePp/PpFirmware.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/HexText.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradePp/PpVersion.h"

namespace {

using UpgPp::PpFw_t;
using UpgPp::PpFwMap;
using UpgPp::PpType;

constexpr const char* k7308 = "7308";
constexpr const char* k7308Image = "K7308_PP_APP.bin";
constexpr const char* k7204 = "7204";
constexpr const char* k7204Evt = "7204_EVT";
constexpr const char* k7204DvtHardware = "H100";

/// Of hardware and radio; an absent software version is kNoVersion.
constexpr const char* kDefaultVersion = "V0.0.0.0";

/// The version in a package's name, as the name writes it; empty when there is none.
std::string VersionIn(const std::string& name) {
  static const std::regex pattern(R"(S(\d+\.\d+\.\d+\.\d+))");
  std::smatch match;
  return std::regex_search(name, match, pattern) ? match.str(1) : std::string();
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

bool PrepareDirectory(const std::string& directory) {
  if (XFilePathExists(directory)) return true;
  LOGW("%s not exist, create", directory.c_str());
  if (XCreateFullPathDir(directory, PpStore::kDirectoryMode)) return true;
  LOGE("Cannot create %s: %s", directory.c_str(), std::strerror(errno));
  return false;
}

/// Sets `version` to the text under `key`, if there is a usable one.
void TakeVersion(const Json::Value& entry, const char* key, std::string& version) {
  std::string text;
  if (JsonUtils::GetString(entry, key, text) && !text.empty() && IsVersionText(text))
    version = std::move(text);
}

void SetIfEmpty(std::string& version, const char* fallback) {
  if (version.empty()) version = fallback;
}

bool IsKnown(int type) {
  return type == UpgPp::EM_PP_7302_03 || type == UpgPp::EM_PP_7308 || type == UpgPp::EM_PP_7204 ||
         type == UpgPp::EM_PP_7204_EVT;
}

}  // namespace

PpFwMap PpFirmware::Load(const std::string& root) {
  PpFwMap held;
  {
    // A package that is imported between a listing and what follows from it would be lost.
    const CLock lock(PpStore::Mutex());
    _Load7308FwInfo(root, held);
    _Load7204FwInfo(root, held);
  }
  _LoadVersionFile(root + m_strPpVerFile, held);
  for (auto& [type, firmware] : held) {
    SetIfEmpty(firmware.m_strVerison, kNoVersion);
    SetIfEmpty(firmware.m_strHwVerison, kDefaultVersion);
    SetIfEmpty(firmware.m_strRtxVerison, kDefaultVersion);
  }
  LOGI("Load version inf done!");
  return held;
}

void PpFirmware::_Load7308FwInfo(const std::string& root, PpFwMap& held) {
  const PpStore::Family& family = *PpStore::Find(k7308);
  const std::string directory = root + family.directory;
  if (!PrepareDirectory(directory)) return;
  const std::string archive = _FindPackage(family, ".zip", root);
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
  if (!_Unpack(family, archive, root)) return;
  firmware.m_strFwPath = directory;
  firmware.m_strFileName = k7308Image;
  held[UpgPp::EM_PP_7308] = std::move(firmware);
}

bool PpFirmware::_Unpack(const PpStore::Family& family, const std::string& name, const std::string& root) {
  const std::string directory = root + family.directory;
  const std::string archive = directory + name;
  const std::vector<std::string> archives = PpStore::PackageNames(family, root);
  if (!RemoveUnpacked(directory, archives)) return false;
  // What `unzip` asks about nobody answers: it fails then.
  const int code =
      QVUpgradeTool::ExecUnlessStopped("unzip " + ShellQuote(archive) + " -d " + ShellQuote(directory));
  // An archive in the archive would pass for a package at the next load.
  if (code == 0 && HoldsNothingElse(directory) && IsRegularFileItself(directory + k7308Image) &&
      PpStore::PackageNames(family, root).size() == archives.size()) {
    return true;
  }
  // A stop ends the command, or keeps it from being run.
  if (!CThread::StopRequested()) {
    LOGE("Unzip failed!Info, strSrcPath:%s, strDesPath:%s", archive.c_str(), directory.c_str());
  }
  RemoveUnpacked(directory, archives);
  return false;
}

void PpFirmware::_Load7204FwInfo(const std::string& root, PpFwMap& held) {
  // Without firmware one is paired all the same.
  held[UpgPp::EM_PP_7204].m_strHwVerison = k7204DvtHardware;
  held[UpgPp::EM_PP_7204_EVT].m_strHwVerison = UpgPp::k7204EvtHardware;
  if (!PrepareDirectory(root + PpStore::Find(k7204)->directory)) return;
  const bool hasDvt = _Add7204(UpgPp::EM_PP_7204, root, held);
  const bool hasEvt = _Add7204(UpgPp::EM_PP_7204_EVT, root, held);
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

bool PpFirmware::_Add7204(PpType type, const std::string& root, PpFwMap& held) {
  const bool isEvt = type == UpgPp::EM_PP_7204_EVT;
  const PpStore::Family& family = *PpStore::Find(isEvt ? k7204Evt : k7204);
  const std::string package = _FindPackage(family, ".ota", root);
  if (package.empty()) return false;
  LOGI(isEvt ? "EVT FW!!! Name:%s" : "Dvt FW!!! Name:%s", package.c_str());
  PpFw_t& firmware = held[type];
  if (!_ParseVerNum(VersionIn(package), firmware)) return false;
  firmware.m_strFwPath = root + family.directory;
  firmware.m_strFileName = package;
  return true;
}

std::string PpFirmware::_FindPackage(const PpStore::Family& family, const char* extension,
                                     const std::string& root) {
  std::pair<std::vector<uint8_t>, std::string> best;
  size_t count = 0;
  for (std::string& name : PpStore::PackageNames(family, root)) {
    if (std::filesystem::path(name).extension() != extension) continue;
    ++count;
    best = std::max(best, {PpVersion::Numbers(VersionIn(name)), std::move(name)});
  }
  if (count > 1)
    LOGW("%zu packages of %s, the highest counts:%s", count, family.pageType, best.second.c_str());
  return best.second;
}

bool PpFirmware::_ParseVerNum(const std::string& version, PpFw_t& firmware) {
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
void PpFirmware::_LoadVersionFile(const std::string& path, PpFwMap& held) {
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
    PpFw_t& record = held[static_cast<PpType>(type)];
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

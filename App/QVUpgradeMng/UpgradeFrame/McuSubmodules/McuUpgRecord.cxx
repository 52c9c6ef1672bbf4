/// The record of the MCU's upgrade on disk. Installed units hold one, so keys and states stay.
#include "UpgradeFrame/McuSubmodules/McuUpgRecord.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/McuSubmodules/McuMessages.h"

namespace {

constexpr const char* kRecordName = "/McuUpgInfo.json";
constexpr const char* kFileNameKey = "FileName";
constexpr const char* kFwPathKey = "FwPath";
constexpr const char* kVersionKey = "Version";
constexpr const char* kStateKey = "UpgState";

}  // namespace

McuUpgRecord::McuUpgRecord(const std::string& directory) : m_path(directory + kRecordName) {}

bool McuUpgRecord::Save(const FwInfo_t& firmware) const {
  Json::Value record(Json::objectValue);
  record[kFileNameKey] = firmware.m_strFileName;
  record[kFwPathKey] = firmware.m_strFwPath;
  record[kVersionKey] = firmware.m_strVersion;
  record[kStateKey] = kStateIdle;
  return JsonUtils::WriteFileToJson(m_path, record, true);
}

bool McuUpgRecord::Load(FwInfo_t& firmware) const {
  Json::Value record;
  FwInfo_t read;
  if (!JsonUtils::ReadFileToJson(m_path, record) ||
      !JsonUtils::GetString(record, kFileNameKey, read.m_strFileName) ||
      !JsonUtils::GetString(record, kFwPathKey, read.m_strFwPath) ||
      !JsonUtils::GetString(record, kVersionKey, read.m_strVersion)) {
    return false;
  }
  if (!IsPlainFileName(read.m_strFileName) || !McuVersion::Parse(read.m_strVersion)) return false;
  firmware = read;
  return true;
}

bool McuUpgRecord::SaveState(const std::string& state) const {
  if (state == kStateIdle && !XFilePathExists(m_path)) return true;
  Json::Value record;
  std::string error;
  if (!JsonUtils::ReadFileToJson(m_path, record, &error) || !record.isObject()) {
    LOGE("%s cannot be read, state %s is not recorded: %s", m_path.c_str(), state.c_str(), error.c_str());
    return false;
  }
  record[kStateKey] = state;
  if (JsonUtils::WriteFileToJson(m_path, record, true)) return true;
  LOGE("%s cannot be written, state %s is not recorded", m_path.c_str(), state.c_str());
  return false;
}

bool McuUpgRecord::IsInterrupted() const {
  Json::Value record;
  return JsonUtils::ReadFileToJson(m_path, record) &&
         JsonUtils::StringOr(record, kStateKey, kStateIdle) == kStateUpgMcu;
}

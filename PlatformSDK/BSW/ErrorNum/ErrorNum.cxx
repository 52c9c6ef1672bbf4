/// The table of error numbers and its file. The file is for service: its keys stay as they are.
#include "BSW/ErrorNum/ErrorNum.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr size_t kMaxRecords = 256;
constexpr mode_t kDirectoryMode = 0755;
constexpr const char* kErrorNumKey = "ErrorNum";
constexpr const char* kTimeKey = "TimeMs";  ///< since 1970, UTC

using std::chrono::milliseconds;
using std::chrono::system_clock;

/// What an earlier run left; an unreadable file or entry is left out.
std::vector<ErrorNumRecord> LoadRecords(const std::string& file) {
  std::vector<ErrorNumRecord> records;
  Json::Value list;
  std::string error;
  if (!XFilePathExists(file)) return records;
  if (!JsonUtils::ReadFileToJson(file, list, &error) || !list.isArray()) {
    LOGW("error numbers of %s are lost: %s", file.c_str(), error.c_str());
    return records;
  }
  for (const Json::Value& entry : list) {
    std::string errorNum;
    if (!JsonUtils::GetString(entry, kErrorNumKey, errorNum) || !entry[kTimeKey].isInt64()) continue;
    records.push_back({errorNum, system_clock::time_point(milliseconds(entry[kTimeKey].asInt64()))});
  }
  return records;
}

void DropOldest(std::vector<ErrorNumRecord>& records) {
  if (records.size() <= kMaxRecords) return;
  records.erase(records.begin(), records.end() - static_cast<std::ptrdiff_t>(kMaxRecords));
}

}  // namespace

bool ErrorNum::Init(const std::string& productCode, const std::string& directory) {
  const CLock lock(m_Mutex);
  if (!XCreateFullPathDir(directory, kDirectoryMode)) {
    LOGE("error numbers are not kept, cannot make %s: %s", directory.c_str(), std::strerror(errno));
    return false;
  }
  std::vector<ErrorNumRecord> unsaved(m_vecRecord.end() - static_cast<std::ptrdiff_t>(m_unsavedCount),
                                      m_vecRecord.end());
  for (ErrorNumRecord& record : unsaved) {
    if (m_strProductCode.empty()) record.errorNum.insert(0, productCode);
  }
  m_strProductCode = productCode;
  m_strRecordFile = directory + "/ErrorNum_" + productCode + ".json";
  m_vecRecord = LoadRecords(m_strRecordFile);
  m_vecRecord.insert(m_vecRecord.end(), unsaved.begin(), unsaved.end());
  DropOldest(m_vecRecord);
  if (!unsaved.empty()) _Save();
  return true;
}

bool ErrorNum::CleanUp() {
  const CLock lock(m_Mutex);
  m_strRecordFile.clear();
  return true;
}

bool ErrorNum::Record(SubModType submodule, int code) {
  const CLock lock(m_Mutex);
  m_vecRecord.push_back({FormatText("%s-%d-%04X", m_strProductCode.c_str(), static_cast<int>(submodule),
                                    static_cast<unsigned>(code)),
                         system_clock::now()});
  DropOldest(m_vecRecord);
  m_unsavedCount = std::min(m_unsavedCount + 1, m_vecRecord.size());
  return m_strRecordFile.empty() || _Save();
}

std::vector<ErrorNumRecord> ErrorNum::Records() {
  const CLock lock(m_Mutex);
  return m_vecRecord;
}

bool ErrorNum::_Save() {
  Json::Value list(Json::arrayValue);
  for (const ErrorNumRecord& record : m_vecRecord) {
    Json::Value entry;
    entry[kErrorNumKey] = record.errorNum;
    entry[kTimeKey] = static_cast<Json::Int64>(
        std::chrono::duration_cast<milliseconds>(record.time.time_since_epoch()).count());
    list.append(entry);
  }
  if (!JsonUtils::WriteFileToJson(m_strRecordFile, list, true)) {
    LOGE("cannot write %s: %s", m_strRecordFile.c_str(), std::strerror(errno));
    return false;
  }
  m_unsavedCount = 0;
  return true;
}

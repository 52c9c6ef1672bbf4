/// Recorder of error numbers: what failed on this device and when, for service. Upgraders record their
/// failures.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "BSW/MultiTask/CSingleton.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// The device's parts as error numbers name them.
enum SubModType {
  SubMod_MainBoard = 1,
  SubMod_FPGA = 2,
  SubMod_DSP = 3,
  SubMod_ExtBoard = 4,
  SubMod_RTX = 5,
  SubMod_Codec = 6,
  SubMod_Bluetooth_Wifi = 7,
};

struct ErrorNumRecord {
  std::string errorNum;  ///< for example "K9031-1-0450"
  std::chrono::system_clock::time_point time;
};

/// Any thread may call any member.
class ErrorNum : public CSingleton<ErrorNum> {
 public:
  /// Records go to "ErrorNum_" + productCode + ".json" in `directory`; earlier ones are read back. False when
  /// the directory cannot be made.
  bool Init(const std::string& productCode, const std::string& directory);
  bool CleanUp();

  /// Adds a record and replaces the file in one step; false when that fails. The oldest record goes when the
  /// table is full (256). Before Init and after CleanUp the record is kept in memory, until a file is there.
  bool Record(SubModType submodule, int code);

  /// A copy of the table, oldest first.
  std::vector<ErrorNumRecord> Records();

 private:
  friend class CSingleton<ErrorNum>;
  ErrorNum() = default;
  ~ErrorNum() = default;
  bool _Save() REQUIRES(m_Mutex);

  CMutex m_Mutex;
  std::string m_strProductCode GUARDED_BY(m_Mutex);
  std::string m_strRecordFile GUARDED_BY(m_Mutex);  ///< empty before Init
  std::vector<ErrorNumRecord> m_vecRecord GUARDED_BY(m_Mutex);
  size_t m_unsavedCount GUARDED_BY(m_Mutex) =
      0;  ///< the newest records of the table, which are in no file yet
};

/// The daemon's logger and its log statement. Every line of the program goes through LOGE, LOGW, LOGI or
/// LOGD: they give the level letter, file, line and colour, and a printf format with its arguments, each
/// evaluated once.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <string>

#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace log4cpp {
class Appender;
class Category;
}  // namespace log4cpp

enum tagLOG_E_LEVEL {
  LOG_LEVEL_INIT = 0,
  LOG_LEVEL_ERR = 1,
  LOG_LEVEL_WRN = 2,
  LOG_LEVEL_INF = 3,
  LOG_LEVEL_DBG = 4,
  LOG_LEVEL_BUTT = 5,
};
using LOG_E_LEVEL = tagLOG_E_LEVEL;

/// The 24 module logs, "Module0.log" to "Module23.log".
// clang-format off
enum MODULE_LOG {
  MODULE_LOG_0 = 0, MODULE_LOG_1, MODULE_LOG_2, MODULE_LOG_3, MODULE_LOG_4, MODULE_LOG_5, MODULE_LOG_6,
  MODULE_LOG_7, MODULE_LOG_8, MODULE_LOG_9, MODULE_LOG_10, MODULE_LOG_11, MODULE_LOG_12, MODULE_LOG_13,
  MODULE_LOG_14, MODULE_LOG_15, MODULE_LOG_16, MODULE_LOG_17, MODULE_LOG_18, MODULE_LOG_19, MODULE_LOG_20,
  MODULE_LOG_21, MODULE_LOG_22, MODULE_LOG_23,
  MODULE_LOG_SIZE = 24,
};
// clang-format on

/// Any thread may log, from Init to CleanUp; before and after, the file functions give -1 and write nothing.
class CLog : public CThread, public CSingleton<CLog> {
 public:
  ~CLog() override;

  /// Creates the directory `path` (63 characters at most) and opens every log file in it; `coutOn` also
  /// prints the log statements to standard output. Once only: a later call changes nothing and gives true.
  bool Init(const char* path, bool coutOn);
  /// Stops the logger's thread and closes all files.
  bool CleanUp();

  /// Threshold of all categories: 1 ERROR, 2 WARN, 3 INFO, anything else DEBUG. File lines have INFO
  /// priority, so 1 and 2 silence the files. No caller yet.
  void SetDebugLevel(int level);

  /// Prints to standard output when Init was told to; takes no lock. Always 0.
  int Debug(LOG_E_LEVEL level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  /// Append one line to system.log, access.log, alarm.log or a module's log. They give the length of the
  /// formatted text (a text of 81,920 bytes or more is cut and reported on standard error), 1 when the files
  /// are switched off, -1 when not initialised.
  int System(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  int Access(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  int Alarm(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  /// -1 also for a module index of 24 or more.
  int Module(MODULE_LOG m, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  /// What LOGE to LOGD expand to: the level's letter and colour, `file` and `line` around the caller's
  /// format, given to Debug and then to System.
  void Statement(LOG_E_LEVEL level, const char* file, int line, const char* fmt, ...)
      __attribute__((format(printf, 5, 6)));

  // No caller yet for these four.

  /// Switches all four file functions; always true.
  bool OpenOrCloseModuleLog(bool on);
  const char* GetLogPath() const { return m_strLogPath; }
  /// Archives "/data/log" as `dir`/Log.tar.bz2. False when `dir` is null.
  static bool CopyLogToUdisk(const char* dir);
  /// Removes the files of the log directory and goes on with new ones.
  void DeleteLog();

 protected:
  /// The logger's thread has no work: log lines are written by the threads that log.
  void ThreadProc() override {}

 private:
  friend class CSingleton<CLog>;
  CLog();
  /// Formats into the 81,920-byte buffer and hands it to the category at `category`, which is read once the
  /// log is known to be open; null stands for a module that does not exist.
  int _Write(log4cpp::Category* const* category, int priority, const char* fmt, va_list args);
  int _Debug(LOG_E_LEVEL level, const char* fmt, va_list args);
  /// Makes all categories and appenders. Throws what log4cpp throws.
  void _OpenAppenders() REQUIRES(m_Mutex);
  /// Sets the threshold of the categories that exist.
  void _ApplyPriority(int level) REQUIRES(m_Mutex);

  std::atomic<bool> m_bInited{false};
  std::atomic<bool> m_bCoutOn{false};
  int m_loglevel = LOG_LEVEL_DBG;
  std::atomic<bool> m_bOpenModule{true};
  char m_strLogPath[64] = {};
  log4cpp::Category* m_SystemCategory GUARDED_BY(m_Mutex) = nullptr;
  log4cpp::Category* m_AccessCategory GUARDED_BY(m_Mutex) = nullptr;
  log4cpp::Category* m_AlarmCategory GUARDED_BY(m_Mutex) = nullptr;
  log4cpp::Category* m_DebugCategory = nullptr;  ///< made before m_bCoutOn is set, then only read
  log4cpp::Category* m_ModuleCategory[MODULE_LOG_SIZE] GUARDED_BY(m_Mutex) = {};
  log4cpp::Appender* m_strQAppender GUARDED_BY(m_Mutex) = nullptr;
  CMutex m_Mutex;  ///< also serialises Init, CleanUp and the file functions
};

/// Logs on the named category when it exists and has the priority enabled. No caller yet.
void UniLog(int priority, const std::string& category, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
/// vprintf into a string of any length.
std::string vform(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));
/// Sets the priority of every category that exists now. No caller yet.
void SetAllPriority(int priority);

/// The file name within a source path, at compile time.
constexpr const char* LogFileName(const char* path) {
  const char* name = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (*at == '/') name = at + 1;
  }
  return name;
}

#define LOG_STATEMENT(level, ...) \
  CLog::instance()->Statement((level), LogFileName(__FILE__), __LINE__, __VA_ARGS__)
#define LOGE(...) LOG_STATEMENT(LOG_LEVEL_ERR, __VA_ARGS__)
#define LOGW(...) LOG_STATEMENT(LOG_LEVEL_WRN, __VA_ARGS__)
#define LOGI(...) LOG_STATEMENT(LOG_LEVEL_INF, __VA_ARGS__)
#define LOGD(...) LOG_STATEMENT(LOG_LEVEL_DBG, __VA_ARGS__)

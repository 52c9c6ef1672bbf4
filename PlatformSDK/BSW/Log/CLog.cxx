/// The daemon's log on top of log4cpp. The line format, the file names and their sizes are read by service
/// tools: they stay as they are. Everybody above the platform logs here; the log itself only knows the shell
/// runner.
#include "BSW/Log/CLog.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/RollingFileAppender.hh>
#include <memory>
#include <utility>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/StringUtils.h"

namespace {

using log4cpp::Priority;

constexpr size_t kLineBufferBytes = 81920;
constexpr size_t kMaxPathBytes = 63;
constexpr mode_t kDirectoryMode = 0666;
constexpr mode_t kFileMode = 0644;
constexpr size_t kFileBytes = 10'240'000;
constexpr size_t kModuleFileBytes = 51'200'000;
constexpr unsigned kBackups = 10;
constexpr unsigned kAlarmBackups = 1;
constexpr unsigned kModuleBackups = 1;
constexpr size_t kLongKeptModule = 2;
constexpr unsigned kLongKeptModuleBackups = 3;

constexpr const char* kEndColour = "\x1b[0m";

struct LevelMark {
  char letter;
  const char* colour;
};

LevelMark MarkOf(LOG_E_LEVEL level) {
  switch (level) {
    case LOG_LEVEL_ERR:
      return {'E', "\x1b[1;31m"};
    case LOG_LEVEL_WRN:
      return {'W', "\x1b[1;33m"};
    case LOG_LEVEL_INF:
      return {'I', "\x1b[1;36m"};
    default:
      return {'D', "\x1b[0;32m"};
  }
}

Priority::Value PriorityOf(int level) {
  switch (level) {
    case LOG_LEVEL_ERR:
      return Priority::ERROR;
    case LOG_LEVEL_WRN:
      return Priority::WARN;
    case LOG_LEVEL_INF:
      return Priority::INFO;
    default:
      return Priority::DEBUG;
  }
}

/// `text` as it must stand in a printf format.
std::string AsFormat(const char* text) {
  std::string format;
  for (; *text != '\0'; ++text) {
    format.append(*text == '%' ? 2 : 1, *text);
  }
  return format;
}

log4cpp::Category* AddAppender(const std::string& category, Priority::Value priority,
                               std::unique_ptr<log4cpp::Appender> appender) {
  auto layout = std::make_unique<log4cpp::PatternLayout>();
  layout->setConversionPattern("[%d{%H:%M:%S,%l}] %m%n");
  appender->setLayout(layout.release());
  log4cpp::Category& target = log4cpp::Category::getInstance(category);
  target.setPriority(priority);
  target.addAppender(appender.release());
  return &target;
}

std::unique_ptr<log4cpp::RollingFileAppender> RollingFile(const std::string& appender, const char* directory,
                                                          const std::string& file, size_t maxBytes,
                                                          unsigned backups) {
  const std::string path = FormatText("%s/%s", directory, file.c_str()).substr(0, kMaxPathBytes);
  return std::make_unique<log4cpp::RollingFileAppender>(appender, path, maxBytes, backups, true, kFileMode);
}

}  // namespace

CLog::CLog() : CThread("CQVLog") {
  const char* const level = std::getenv("DEBUG_LOG_LEVEL");
  if (level != nullptr) m_loglevel = static_cast<int>(std::strtol(level, nullptr, 10));
}

CLog::~CLog() {
  DestroyThread(true, true);
}

bool CLog::Init(const char* path, bool coutOn) {
  if (path == nullptr) return false;
  {
    const CLock lock(m_Mutex);
    if (m_bInited) return true;
    if (!XFilePathExists(path)) XCreateFullPathDir(path, kDirectoryMode);
    std::snprintf(m_strLogPath, sizeof(m_strLogPath), "%s", path);
    try {
      _OpenAppenders();
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "CLog: cannot open the log in %s: %s\n", m_strLogPath, exception.what());
      return false;
    }
    _ApplyPriority(m_loglevel);
    m_bCoutOn = coutOn;
    m_bInited = true;
  }
  return CreateThread(0);
}

bool CLog::CleanUp() {
  m_bInited = false;
  DestroyThread(true, true);
  const CLock lock(m_Mutex);
  m_strQAppender = nullptr;
  log4cpp::Category::shutdown();
  return true;
}

void CLog::SetDebugLevel(int level) {
  const CLock lock(m_Mutex);
  _ApplyPriority(level);
}

int CLog::Debug(LOG_E_LEVEL level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = _Debug(level, fmt, args);
  va_end(args);
  return result;
}

int CLog::System(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = _Write(&m_SystemCategory, Priority::INFO, fmt, args);
  va_end(args);
  return result;
}

int CLog::Access(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = _Write(&m_AccessCategory, Priority::INFO, fmt, args);
  va_end(args);
  return result;
}

int CLog::Alarm(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = _Write(&m_AlarmCategory, Priority::INFO, fmt, args);
  va_end(args);
  return result;
}

int CLog::Module(MODULE_LOG m, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int result = _Write(m < MODULE_LOG_SIZE ? &m_ModuleCategory[m] : nullptr, Priority::DEBUG, fmt, args);
  va_end(args);
  return result;
}

void CLog::Statement(LOG_E_LEVEL level, const char* file, int line, const char* fmt, ...) {
  const int callersErrno = errno;  // "%m" of the caller's format means this one, both times
  const LevelMark mark = MarkOf(level);
  const std::string format =
      FormatText("[%c][%s:%4d] %s", mark.letter, AsFormat(file).c_str(), line, mark.colour) + fmt +
      kEndColour;
  va_list args;
  va_start(args, fmt);
  va_list argsForSystem;
  va_copy(argsForSystem, args);
  errno = callersErrno;
  _Debug(level, format.c_str(), args);
  errno = callersErrno;
  _Write(&m_SystemCategory, Priority::INFO, format.c_str(), argsForSystem);
  va_end(argsForSystem);
  va_end(args);
  errno = callersErrno;
}

bool CLog::OpenOrCloseModuleLog(bool on) {
  m_bOpenModule = on;
  return true;
}

bool CLog::CopyLogToUdisk(const char* dir) {
  if (dir == nullptr) return false;
  const std::string archive = std::string(dir) + "/Log.tar.bz2";
  RunShell(FormatText("tar jcf %s %s", ShellQuote(archive).c_str(), "/data/log").c_str());
  return true;
}

void CLog::DeleteLog() {
  if (m_strLogPath[0] == '\0') return;
  RunShell(FormatText("rm %s/*", ShellQuote(m_strLogPath).c_str()).c_str());
  const CLock lock(m_Mutex);
  log4cpp::Appender::reopenAll();  // else later lines would go into files that no longer have a name
}

void CLog::_OpenAppenders() {
  auto console = std::make_unique<log4cpp::OstreamAppender>("strQAppender", &std::cout);
  m_strQAppender = console.get();
  m_DebugCategory = AddAppender("Debug ", Priority::DEBUG, std::move(console));
  m_SystemCategory =
      AddAppender("System", Priority::INFO,
                  RollingFile("rollfileAppender", m_strLogPath, "system.log", kFileBytes, kBackups));
  m_AccessCategory = AddAppender("Access", Priority::INFO,
                                 RollingFile("Access", m_strLogPath, "access.log", kFileBytes, kBackups));
  m_AlarmCategory = AddAppender("Alarm ", Priority::INFO,
                                RollingFile("Alarm", m_strLogPath, "alarm.log", kFileBytes, kAlarmBackups));
  for (size_t i = 0; i < MODULE_LOG_SIZE; ++i) {
    const std::string name = FormatText("%s%zu", "Module", i);
    auto file = RollingFile(name, m_strLogPath, name + ".log", kModuleFileBytes, kModuleBackups);
    if (i == kLongKeptModule) file->setMaxBackupIndex(kLongKeptModuleBackups);
    m_ModuleCategory[i] = AddAppender(name, Priority::DEBUG, std::move(file));
  }
}

void CLog::_ApplyPriority(int level) {
  std::vector<log4cpp::Category*> categories(std::begin(m_ModuleCategory), std::end(m_ModuleCategory));
  categories.insert(categories.end(), {m_DebugCategory, m_SystemCategory, m_AccessCategory, m_AlarmCategory});
  for (log4cpp::Category* const category : categories) {
    if (category != nullptr) category->setPriority(PriorityOf(level));
  }
}

int CLog::_Debug(LOG_E_LEVEL level, const char* fmt, va_list args) {
  if (!m_bCoutOn) return 0;
  va_list measuring;
  va_copy(measuring, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, measuring);
  va_end(measuring);
  if (length < 1) return 0;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), fmt, args);
  text.pop_back();
  m_DebugCategory->log(PriorityOf(level), text);
  return 0;
}

int CLog::_Write(log4cpp::Category* const* category, int priority, const char* fmt, va_list args) {
  if (!m_bOpenModule) return 1;
  std::array<char, kLineBufferBytes> buffer{};
  if (!m_bInited) return -1;
  const CLock lock(m_Mutex);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), fmt, args);
  if (length < 0 || static_cast<size_t>(length) >= buffer.size()) {
    std::fprintf(stderr, "vsnprintf len warn! len = %d\n", length);
  }
  if (category == nullptr) {
    std::fputs("MODULE_LOG error!\n", stderr);
    return -1;
  }
  (*category)->log(priority, std::string(buffer.data()));
  return length;
}

void UniLog(int priority, const std::string& category, const char* fmt, ...) {
  log4cpp::Category* const target = log4cpp::Category::exists(category);
  if (target == nullptr || !target->isPriorityEnabled(priority)) return;
  va_list args;
  va_start(args, fmt);
  target->log(priority, vform(fmt, args));
  va_end(args);
}

std::string vform(const char* fmt, va_list args) {
  return FormatTextV(fmt, args);
}

void SetAllPriority(int priority) {
  const std::unique_ptr<std::vector<log4cpp::Category*>> categories(
      log4cpp::Category::getCurrentCategories());
  for (log4cpp::Category* const category : *categories) {
    category->setPriority(priority);
  }
}

/// Drives a line through its sysfs files, each change one write.
#include "BSW/GPIO/GPIO.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"

namespace {

// Beside the line's files their access rights may come late, when a device manager sets them.
constexpr int kFilesTries = 100;
constexpr uint32_t kFilesPauseMs = 10;

/// Hands `text` to the kernel in one write. On false errno tells why.
bool WriteAttribute(const std::string& path, std::string_view text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  close(fd);
  errno = error;
  return written;
}

}  // namespace

GPIO::GPIO(std::string directory) : m_strDirectory(std::move(directory)) {}

GPIO::~GPIO() {
  Release();
}

bool GPIO::Init(int number) {
  Release();
  m_iNumber = number;
  m_strLine = m_strDirectory + "/gpio" + std::to_string(number);
  if (!XFilePathExists(m_strLine)) {
    m_bExported = WriteAttribute(m_strDirectory + "/export", std::to_string(number));
    // Busy: somebody else exported it just now.
    if (!m_bExported && errno != EBUSY) {
      LOGE("Cannot export GPIO %d: %s", number, std::strerror(errno));
      m_strLine.clear();
      return false;
    }
  }
  if (_WaitForFiles() && WriteAttribute(m_strLine + "/direction", "out")) return true;
  LOGE("Cannot make GPIO %d an output: %s", number, std::strerror(errno));
  Release();
  return false;
}

bool GPIO::_WaitForFiles() const {
  for (int attempt = 0; attempt < kFilesTries; ++attempt) {
    const bool usable = access((m_strLine + "/direction").c_str(), W_OK) == 0 &&
                        access((m_strLine + "/value").c_str(), W_OK) == 0;
    if (usable) return true;
    const int error = errno;
    const bool goOn = CThread::Pause(kFilesPauseMs);
    errno = error;
    if (!goOn) return false;
  }
  return false;
}

bool GPIO::SetLevel(bool high) {
  errno = ENODEV;
  if (!m_strLine.empty() && WriteAttribute(m_strLine + "/value", high ? "1" : "0")) return true;
  LOGE("Cannot set GPIO %d %s: %s", m_iNumber, high ? "high" : "low", std::strerror(errno));
  return false;
}

void GPIO::Release() {
  if (m_bExported && !WriteAttribute(m_strDirectory + "/unexport", std::to_string(m_iNumber))) {
    LOGE("Cannot release GPIO %d: %s", m_iNumber, std::strerror(errno));
  }
  m_bExported = false;
  m_strLine.clear();
}

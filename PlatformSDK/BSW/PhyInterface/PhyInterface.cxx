/// Hot-plug monitor: one thread that waits for nodes to come and go in "/dev/" and tells whoever registered.
/// The log texts are read by service; the file systems are synced before a new node is announced and after a
/// lost one was.
#include "BSW/PhyInterface/PhyInterface.h"

#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <regex>

#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr size_t kReadBytes = 256;
/// One event with the longest name there can be: the kernel refuses to read it into less.
constexpr size_t kLargestEventBytes = sizeof(inotify_event) + NAME_MAX + 1;

void SyncDisks() {
  const ShellResult result = RunShell("sync");
  if (result.exitCode != 0) LOGE("sync failed, status:%d error:%d", result.rawStatus, result.error);
}

bool Matches(const std::string& path, const std::string& pattern) {
  try {
    return std::regex_match(path, std::regex(pattern));
  } catch (const std::regex_error& error) {
    LOGE("bad device pattern %s: %s", pattern.c_str(), error.what());
    return false;
  }
}

}  // namespace

const std::string PhyInterface::m_strDevDir = "/dev/";

PhyInterface::PhyInterface() : CThread("PhyInterface") {}

PhyInterface::~PhyInterface() {
  CleanUp();
}

bool PhyInterface::Init() {
  if (m_PhyFd >= 0) return true;
  m_PhyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (m_PhyFd < 0) {
    LOGE("UsbDetect inotify_init1 failed. %s", std::strerror(errno));
    return false;
  }
  m_iWatchFd = inotify_add_watch(m_PhyFd, m_strDevDir.c_str(), IN_CREATE | IN_DELETE);
  if (m_iWatchFd < 0) {
    LOGE("inotify_add_watch /dev/ failed.");
    close(m_PhyFd);
    m_PhyFd = -1;
    return false;
  }
  if (CreateThread(0)) return true;
  LOGE("cannot start the hot-plug thread");
  CleanUp();
  return false;
}

bool PhyInterface::CleanUp() {
  if (!DestroyThread(true, true) || HasCrashed()) return false;
  if (m_PhyFd >= 0) close(m_PhyFd);
  m_PhyFd = -1;
  return true;
}

bool PhyInterface::RegisterInterface(const std::string& pattern, const InterfaceCallback& callback) {
  const CLock lock(m_Mutex);
  m_MapOnChange.emplace(pattern, callback);
  return true;
}

bool PhyInterface::UnRegisterInterface(const std::string& pattern) {
  const CLock lock(m_Mutex);
  if (m_MapOnChange.erase(pattern) > 0) return true;
  LOGE("%s not find", pattern.c_str());
  return false;
}

void PhyInterface::ThreadProc() {
  LOGI("Enter PhyInterface Thread, thread PID = %d, PPID = %d.", gettid(), getppid());
  while (IsRunning()) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(m_PhyFd, &readable);
    const int ready = select(m_PhyFd + 1, &readable, nullptr, nullptr, nullptr);
    if (ready < 0) {
      LOGE("select error! %s continue", std::strerror(errno));
    } else if (ready == 0) {
      LOGD("select timeout, continue");
    } else {
      _ReadEvents();
    }
  }
}

void PhyInterface::OnStopRequested() {
  // The kernel answers with an event, which wakes the select.
  const int watch = m_iWatchFd.exchange(-1);
  if (watch >= 0) inotify_rm_watch(m_PhyFd, watch);
}

void PhyInterface::_ReadEvents() {
  alignas(inotify_event) std::array<char, kLargestEventBytes> buffer{};
  ssize_t length = read(m_PhyFd, buffer.data(), kReadBytes);
  if (length < 0 && errno == EINVAL) length = read(m_PhyFd, buffer.data(), buffer.size());
  if (length > 0) _HandleEvents(buffer.data(), static_cast<size_t>(length));
}

void PhyInterface::_HandleEvents(const char* events, size_t length) {
  inotify_event event{};
  for (size_t at = 0; at + sizeof(event) <= length; at += sizeof(event) + event.len) {
    std::memcpy(&event, events + at, sizeof(event));
    if (event.len == 0) continue;
    const std::string name = events + at + sizeof(event);  // padded with NULs by the kernel
    if ((event.mask & IN_CREATE) != 0) {
      LOGD("HotPlug : %s plugin", name.c_str());
      SyncDisks();
      _HotProcess(name, true);
    } else if ((event.mask & IN_DELETE) != 0) {
      LOGD("HotPlug : %s plugout", name.c_str());
      _HotProcess(name, false);
      SyncDisks();
    }
  }
}

bool PhyInterface::_HotProcess(const std::string& name, bool plugged) {
  const std::string path = m_strDevDir + name;
  const CLock lock(m_Mutex);
  if (m_MapOnChange.empty()) {
    LOGW("m_MapOnChange is empty");
    return false;
  }
  for (const auto& [pattern, callback] : m_MapOnChange) {
    if (Matches(path, pattern)) callback(path, plugged);
  }
  return true;
}

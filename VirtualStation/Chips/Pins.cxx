/// Serves the pins as files. The attributes that take commands are FIFOs, so that no write is lost however
/// quickly the next one follows; a line's files are plain ones, watched. On the device a second export of a
/// line fails; here nobody can tell the writer, and it changes nothing.
#include "VirtualStation/Chips/Pins.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <sstream>
#include <utility>

#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

const std::string kCommand = "/sys/devices/platform/qv_platform/setup_ctrl_pin";
const std::string kGpio = "/sys/class/gpio";

int MakeFifo(const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  fs::remove(path);
  constexpr mode_t kOwner = 0600;
  if (mkfifo(path.c_str(), kOwner) != 0) {
    Halt("cannot make " + path, errno);
  }
  // Open for writing too: so it never ends, whoever comes and goes.
  return open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
}

void RemoveFifo(const std::string& path, int fd) {
  close(fd);
  fs::remove(path);
  WriteText(path, "");
}

std::string ReadAll(int fd) {
  std::array<char, PIPE_BUF> text{};
  const ssize_t size = read(fd, text.data(), text.size());
  return {text.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

std::string LineDirectory(int pin) {
  return kGpio + "/gpio" + std::to_string(pin);
}

}  // namespace

Pins::Pins(std::function<void(const PinChange&)> changed)
    : m_changed(std::move(changed)),
      m_command(MakeFifo(kCommand)),
      m_export(MakeFifo(kGpio + "/export")),
      m_unexport(MakeFifo(kGpio + "/unexport")),
      m_inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (m_inotify < 0) {
    Halt("cannot watch the pins", errno);
  }
  m_thread = std::thread(&Pins::_Serve, this);
}

Pins::~Pins() {
  m_stop.Ring();
  m_thread.join();
  PowerCycle();
  RemoveFifo(kCommand, m_command);
  RemoveFifo(kGpio + "/export", m_export);
  RemoveFifo(kGpio + "/unexport", m_unexport);
  close(m_inotify);
}

std::vector<PinChange> Pins::Changes() const {
  const CLock lock(m_mutex);
  return m_changes;
}

std::set<int> Pins::Exported() const {
  const CLock lock(m_mutex);
  std::set<int> pins;
  for (const auto& line : m_exported) {
    pins.insert(line.first);
  }
  return pins;
}

void Pins::PowerCycle() {
  const CLock lock(m_mutex);
  m_changes.clear();
  while (!m_exported.empty()) {
    _Remove(m_exported.begin()->first);
  }
}

void Pins::_Serve() {
  while (true) {
    std::array<pollfd, 5> fds = {{m_stop.Watch(),
                                  {m_inotify, POLLIN, 0},
                                  {m_export, POLLIN, 0},
                                  {m_unexport, POLLIN, 0},
                                  {m_command, POLLIN, 0}}};
    poll(fds.data(), fds.size(), -1);
    if (fds[0].revents != 0) {
      return;
    }
    // Lines before commands: the daemon sets a line itself, and has a shell write the command afterwards.
    if (fds[1].revents != 0) {
      _ReadLines();
    }
    _Export(ReadAll(m_export));
    _Unexport(ReadAll(m_unexport));
    _Command(ReadAll(m_command));
  }
}

void Pins::_Export(const std::string& text) {
  std::istringstream numbers(text);
  const CLock lock(m_mutex);
  for (int pin = 0; numbers >> pin;) {
    if (m_exported.count(pin) == 0) {
      const std::string value = LineDirectory(pin) + "/value";
      WriteText(value, "0\n");
      m_exported[pin] = inotify_add_watch(m_inotify, value.c_str(), IN_MODIFY);
      WriteText(LineDirectory(pin) + "/direction", "in\n");
    }
  }
}

/// Numbers that were written one right after the other may stand without anything between them.
void Pins::_Unexport(std::string text) {
  const CLock lock(m_mutex);
  while (!text.empty()) {
    const auto line = std::find_if(m_exported.begin(), m_exported.end(), [&](const auto& item) {
      return text.rfind(std::to_string(item.first), 0) == 0;
    });
    text.erase(0, line == m_exported.end() ? 1 : std::to_string(line->first).size());
    if (line != m_exported.end()) {
      _Remove(line->first);
    }
  }
}

void Pins::_Command(const std::string& text) {
  std::istringstream lines(text);
  for (int pin = 0, level = 0; lines >> pin >> level;) {
    _Note(pin, level);
  }
}

void Pins::_ReadLines() {
  alignas(inotify_event) std::array<char, 4096> events{};
  const ssize_t size = read(m_inotify, events.data(), events.size());
  for (ssize_t offset = 0; offset < size;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(events.data() + offset);
    offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    int pin = -1;
    {
      const CLock lock(m_mutex);
      for (const auto& [line, watch] : m_exported) {
        pin = watch == event->wd ? line : pin;
      }
    }
    const std::string value = pin < 0 ? "" : ReadText(LineDirectory(pin) + "/value");
    if (!value.empty()) {  // empty for a moment when the writer truncates
      _Note(pin, value[0] == '0' ? 0 : 1);
    }
  }
}

void Pins::_Note(int pin, int level) {
  const PinChange change = {pin, level, std::chrono::steady_clock::now()};
  {
    const CLock lock(m_mutex);
    m_changes.push_back(change);
  }
  m_changed(change);
}

void Pins::_Remove(int pin) {
  inotify_rm_watch(m_inotify, m_exported.at(pin));
  m_exported.erase(pin);
  fs::remove_all(LineDirectory(pin));
}

}  // namespace station

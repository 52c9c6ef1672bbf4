/// A part that is upgraded through its storage. Of the requests it knows the version's alone. Its storage is
/// watched through the mount table: when the host has let go of it, the part looks for a file
/// "*_S<a>.<b>.<c>.<d>*.ota" that it does not run yet.
#include "VirtualStation/Pps/Pp7204.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr PpFamily kFamily = {0x72, 0x04};
constexpr std::uint64_t kStorageBytes = 16ULL << 20;
/// Off the bus during a restart: long enough for a host to see it.
constexpr std::chrono::milliseconds kRestartTime(100);

std::optional<PpVersions::Software> VersionIn(const std::string& fileName) {
  const std::size_t at = fileName.find("_S");
  std::array<unsigned, 4> numbers{};
  if (at == std::string::npos || std::sscanf(fileName.c_str() + at, "_S%u.%u.%u.%u", &numbers[0], &numbers[1],
                                             &numbers[2], &numbers[3]) != 4) {
    return std::nullopt;
  }
  PpVersions::Software version{};
  for (std::size_t i = 0; i < version.size(); ++i) {
    version[i] = static_cast<std::uint8_t>(numbers[i]);
  }
  return version;
}

/// Whoever has it mounted keeps a dead mount point no longer.
void LetGo(const Disk& disk) {
  for (const std::string& point : disk.MountPoints()) {
    umount2(point.c_str(), MNT_DETACH);
  }
}

}  // namespace

Pp7204::Pp7204(PpVersions versions, const std::vector<Fault>& faults, PpNodes nodes)
    : m_nodes(std::move(nodes)),
      m_conduct(faults),
      m_voice(kFamily, m_conduct, m_line),
      m_versions(std::move(versions)),
      m_line(m_nodes.serial, Line::kUsb, [this](const Bytes& bytes) { _Receive(bytes); }) {
  const CLock lock(m_mutex);
  _Appear();
  m_watch = std::thread(&Pp7204::_Watch, this);
}

Pp7204::~Pp7204() {
  m_stop.Ring();
  m_watch.join();
  Unplug();
}

void Pp7204::Plug() {
  const CLock lock(m_mutex);
  m_inSocket = true;
  _Appear();
}

void Pp7204::Unplug() {
  const CLock lock(m_mutex);
  m_inSocket = false;
  _Vanish();
}

/// The serial device first: it tells the host whose storage this is.
void Pp7204::_Appear() {
  m_input.clear();
  m_line.Plug();
  if (!m_disk) {
    m_disk = std::make_unique<Disk>(fs::path(m_nodes.storage).filename(), kStorageBytes);
    m_disk->Format("PP7204");
    m_disk->MakeNode(m_nodes.storage);
  }
}

void Pp7204::_Vanish() {
  if (m_disk) {
    m_disk->FailAllAccess();
    m_disk->RemoveNode(m_nodes.storage);
    LetGo(*m_disk);
    m_disk.reset();
  }
  m_line.Unplug();
}

void Pp7204::ReportReady() {
  const CLock lock(m_mutex);
  m_voice.ReportReady();
}

PpVersions Pp7204::Versions() const {
  const CLock lock(m_mutex);
  return m_versions;
}

std::string Pp7204::Firmware() const {
  const CLock lock(m_mutex);
  return m_firmware;
}

bool Pp7204::WaitForRestart(std::chrono::milliseconds timeout, int count) const {
  const CLock lock(m_mutex);
  return m_restarted.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) { return m_restarts >= count; });
}

void Pp7204::_Receive(const Bytes& bytes) {
  const CLock lock(m_mutex);
  const auto heard = static_cast<std::ptrdiff_t>(m_conduct.Hear(bytes.size()));
  m_input.insert(m_input.end(), bytes.begin(), bytes.begin() + heard);
  while (const std::optional<SerialFrame> request = TakeRequest(m_input)) {
    if (request->command == kPpVersion) {
      m_voice.AnswerVersion(*request, m_versions);
    }
  }
}

void Pp7204::_Watch() {
  const int mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  pollfd fds[] = {m_stop.Watch(), {mounts, POLLPRI, 0}};
  bool mounted = false;
  while (fds[0].revents == 0) {
    {
      const CLock lock(m_mutex);
      const bool before = std::exchange(mounted, m_disk && !m_disk->MountPoints().empty());
      if (before && !mounted && m_disk) {
        _LookForFirmware();
      }
    }
    while (poll(fds, 2, -1) < 0 && errno == EINTR) {
    }
  }
  close(mounts);
}

void Pp7204::_LookForFirmware() {
  const std::string hidden = std::string(kStationDir) + "/pp7204";
  m_disk->MakeNode(hidden + ".node");
  if (!m_disk->Mount(hidden + ".node", hidden)) {
    Halt("a part cannot read its storage", errno);
  }
  std::string name;
  std::string content;
  for (const auto& entry : fs::directory_iterator(hidden)) {
    if (entry.path().extension() == ".ota") {
      name = entry.path().filename();
      content = ReadText(entry.path());
    }
  }
  m_disk->Unmount();
  m_disk->RemoveNode(hidden + ".node");
  if (content == m_firmware || !VersionIn(name)) {
    return;
  }
  if (const auto faults = m_conduct.Reach(Phase::PpFile)) {
    if (faults->count(FaultKind::Unplug) != 0) {
      m_inSocket = false;
      _Vanish();
    } else {
      _Restart(name, content, faults->count(FaultKind::Refuse) == 0);
    }
  }
}

void Pp7204::_Restart(const std::string& name, const std::string& content, bool takesIt) {
  _Vanish();
  if (takesIt) {
    m_versions.software = *VersionIn(name);
    m_firmware = content;
  }
  pollfd stop = m_stop.Watch();
  m_mutex.Unlock();
  const bool stopped = poll(&stop, 1, static_cast<int>(kRestartTime.count())) != 0;
  m_mutex.Lock();
  if (!stopped && m_inSocket) {
    _Appear();
    ++m_restarts;
    m_restarted.NotifyAll();
  }
}

}  // namespace station

/// An image, its loop device and its mounts; a cut in the power drops what was not synced.
#include "VirtualStation/Disk.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

constexpr unsigned kLoopMajor = 7;

void MakeBlockNode(const std::string& path, unsigned minor) {
  std::error_code ignored;  // mknod tells
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  if (mknod(path.c_str(), S_IFBLK | 0660, makedev(kLoopMajor, minor)) != 0 && errno != EEXIST) {
    Halt("cannot make " + path, errno);
  }
}

}  // namespace

Disk::Disk(const std::string& name, std::uint64_t size)
    : m_image(std::string(kStationDir) + "/disks/" + name) {
  WriteText(m_image, "");
  const int image = open(m_image.c_str(), O_RDWR | O_CLOEXEC);
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (image < 0 || ftruncate(image, static_cast<off_t>(size)) != 0 || control < 0) {
    Halt("cannot make the disk " + name, errno);
  }
  loop_config config{};
  config.fd = static_cast<unsigned>(image);
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  constexpr int kTries = 200;  // other boxes may take the free one first
  for (int i = 0; i < kTries && m_loopFd < 0; ++i) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    if (number < 0) {
      break;
    }
    m_device = static_cast<unsigned>(number);
    m_loopNode = "/dev/loop" + std::to_string(number);
    MakeBlockNode(m_loopNode, m_device);
    const int fd = open(m_loopNode.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &config) == 0) {
      m_loopFd = fd;
      break;
    }
    const int error = errno;
    if (fd >= 0) {
      close(fd);
    }
    if (error != EBUSY) {
      errno = error;
      break;
    }
  }
  if (m_loopFd < 0) {
    Halt("no loop device for the disk " + name, errno);
  }
  close(control);
  close(image);
}

Disk::~Disk() {
  Unmount();
  for (const std::string& node : m_nodes) {
    unlink(node.c_str());
  }
  close(m_loopFd);  // detaches the image
  unlink(m_image.c_str());
}

void Disk::Format(const std::string& label) {
  MustRun({"mkfs.ext4", "-q", "-F", "-L", label, "-E", "lazy_itable_init=1,nodiscard", m_loopNode});
}

void Disk::MakeNode(const std::string& path) {
  MakeBlockNode(path, m_device);
  m_nodes.push_back(path);
}

void Disk::RemoveNode(const std::string& path) {
  unlink(path.c_str());
  m_nodes.erase(std::remove(m_nodes.begin(), m_nodes.end(), path), m_nodes.end());
}

bool Disk::Mount(const std::string& node, const std::string& directory) {
  std::error_code ignored;  // the mount tells
  std::filesystem::create_directories(directory, ignored);
  return mount(node.c_str(), directory.c_str(), "ext4", 0, nullptr) == 0;
}

void Disk::Unmount() const {
  std::vector<std::string> points = MountPoints();
  std::reverse(points.begin(), points.end());
  for (const std::string& point : points) {
    if (umount2(point.c_str(), 0) != 0) {
      Halt("cannot unmount " + point, errno);
    }
  }
}

void Disk::DropAndUnmount() const {
  FailAllAccess();
  Unmount();
}

void Disk::FailAllAccess() const {
  const std::vector<std::string> points = MountPoints();
  if (points.empty()) {
    return;
  }
  // ext4's emergency stop; one call serves all mounts of the device.
  constexpr std::uint32_t kWithoutFlush = 2;
  const auto kShutdown = _IOR('X', 125, std::uint32_t);
  const int fd = open(points.front().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || ioctl(fd, kShutdown, &kWithoutFlush) != 0) {
    Halt("cannot cut off " + points.front(), errno);
  }
  close(fd);
}

std::vector<std::string> Disk::MountPoints() const {
  const std::string device = std::to_string(kLoopMajor) + ":" + std::to_string(m_device);
  std::vector<std::string> points;
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream words(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (fields.size() > 4 && fields[2] == device) {
      points.push_back(fields[4]);
    }
  }
  return points;
}

std::string Disk::Read(std::uint64_t offset, std::size_t length) const {
  std::string data(length, '\0');
  const ssize_t count = pread(m_loopFd, data.data(), length, static_cast<off_t>(offset));
  data.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return data;
}

}  // namespace station

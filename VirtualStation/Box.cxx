/// How the box is made of namespaces and an overlay, and how its root gets another source. Three processes
/// take part: the caller, which only waits outside; the first process of the box, which makes it and reaps
/// orphans; and the body.
#include "VirtualStation/Box.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>

#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

/// Covered by a tmpfs that holds the overlay's layers while the box is made. Nobody builds software there.
const std::string kScratch = "/run";
const std::string kNewRoot = kScratch + "/root";
/// In the root, while the next one is put together on it.
const std::string kNextRoot = "/.next-root";

int FirstProcess(const std::function<int()>& body);

int ExitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Mount(const char* source, const std::string& target, const char* type, unsigned long flags,
           const std::string& options = "") {
  std::error_code ignored;  // the mount tells
  fs::create_directories(target, ignored);
  if (mount(source, target.c_str(), type, flags, options.empty() ? nullptr : options.c_str()) != 0) {
    Halt("the box cannot mount " + target, errno);
  }
}

}  // namespace

int RunInBox(const std::function<int()>& body) {
  if (geteuid() != 0) {
    std::cerr
        << "The virtual base station needs root, for mounts, loop devices and a process space of its own: "
           "start it with sudo.\n";
    return EXIT_FAILURE;
  }
  // The caller's children are born in the box's process space for a moment; all else is made private by the
  // first.
  const int ownProcesses = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
  if (unshare(CLONE_NEWPID) != 0) {
    std::cerr << "The virtual base station cannot have a box of its own (" << std::strerror(errno)
              << "). In a container it needs the right to mount (CAP_SYS_ADMIN).\n";
    return EXIT_FAILURE;
  }
  sigset_t signals;
  sigset_t previous;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, signal);
  }
  sigprocmask(SIG_BLOCK, &signals, &previous);
  std::cout.flush();
  const pid_t first = fork();
  if (first < 0) {
    Halt("cannot fork", errno);
  }
  if (first == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    _exit(FirstProcess(body));
  }
  int status = 0;
  int result = -1;
  while (result < 0) {
    const int signal = sigwaitinfo(&signals, nullptr);
    if (signal == SIGCHLD) {
      if (waitpid(first, &status, WNOHANG) == first) {
        result = ExitCode(status);
      }
    } else if (signal > 0) {
      kill(first, SIGKILL);  // with the first process the whole box goes
      waitpid(first, &status, 0);
      result = 128 + signal;
    }
  }
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  // Its children are born outside again (a leak checker starts one at exit).
  setns(ownProcesses, CLONE_NEWPID);
  close(ownProcesses);
  return result;
}

namespace {

std::uint64_t MountId(const std::string& path) {
  struct statx info {};
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &info) != 0) {
    return 0;
  }
  return info.stx_mnt_id;
}

/// What is mounted at `root` becomes the root of every process of the box; the old one goes.
void ChangeRoot(const std::string& root) {
  std::error_code gone;  // the last chdir tells
  const std::string directory = fs::current_path(gone);
  if (chdir(root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0 ||
      chdir("/") != 0) {
    Halt("the box cannot change its root", errno);
  }
  if (chdir(directory.c_str()) != 0) {
    std::cerr << "virtual station: " << directory << " is not in the box, using /\n";
  }
}

void MakeRoot() {
  Mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE);
  Mount("box", kScratch, "tmpfs", 0, "size=75%,mode=755");
  for (const char* layer : {"upper", "work", "root"}) {
    fs::create_directory(kScratch + "/" + layer);
  }
  Mount(kUntoldRoot, kNewRoot, "overlay", 0,
        "lowerdir=/,upperdir=" + kScratch + "/upper,workdir=" + kScratch + "/work");

  // The overlay ends at the file system of "/": what the station needs from others is bound in.
  const std::string self = fs::read_symlink("/proc/self/exe").parent_path();
  for (const std::string& needed :
       {std::string("/usr"), self, fs::path(STATION_DAEMON).parent_path().string(),
        fs::path(STATION_SHIM).parent_path().string(), fs::path(STATION_BUS_POLICY).parent_path().string()}) {
    if (fs::exists(needed) && MountId(needed) != MountId("/")) {
      Mount(needed.c_str(), kNewRoot + needed, nullptr, MS_BIND);
    }
  }
  Mount("proc", kNewRoot + "/proc", "proc", 0);
  Mount("tmpfs", kNewRoot + "/proc/irq", "tmpfs", 0, "mode=755");
  Mount("tmpfs", kNewRoot + "/dev", "tmpfs", 0, "mode=755");
  Mount("devpts", kNewRoot + "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=620");
  Mount("tmpfs", kNewRoot + "/dev/shm", "tmpfs", 0, "mode=1777");
  Mount("tmpfs", kNewRoot + "/sys", "tmpfs", 0, "mode=755");
  Mount("tmpfs", kNewRoot + "/run", "tmpfs", 0, "size=75%,mode=755");
  ChangeRoot(kNewRoot);
}

void MakeDevices() {
  struct Node {
    const char* path;
    unsigned major, minor;
  };
  constexpr Node kNodes[] = {{"/dev/null", 1, 3},           {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
                             {"/dev/random", 1, 8},         {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0},
                             {"/dev/loop-control", 10, 237}};
  for (const Node& node : kNodes) {
    if (mknod(node.path, S_IFCHR | 0666, makedev(node.major, node.minor)) != 0 ||
        chmod(node.path, 0666) != 0) {
      Halt(std::string("the box cannot make ") + node.path, errno);
    }
  }
  fs::create_symlink("pts/ptmx", "/dev/ptmx");
  fs::create_symlink("/proc/self/fd", "/dev/fd");
  fs::create_symlink("/proc/self/fd/0", "/dev/stdin");
  fs::create_symlink("/proc/self/fd/1", "/dev/stdout");
  fs::create_symlink("/proc/self/fd/2", "/dev/stderr");
}

/// The attributes that the daemon writes.
void MakeAttributes() {
  for (const char* path : {"/sys/devices/platform/qv_platform/setup_ctrl_pin", "/sys/class/gpio/export",
                           "/sys/class/gpio/unexport"}) {
    WriteText(path, "");
  }
  WriteText("/sys/block/mmcblk2boot0/force_ro", "1\n");
  for (const int interrupt : {46, 66, 67, 70, 71, 79, 80}) {
    WriteText("/proc/irq/" + std::to_string(interrupt) + "/smp_affinity", "f\n");
  }
}

void RaiseLoopback() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::memcpy(request.ifr_name, "lo", sizeof "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
    Halt("the box cannot raise its loopback interface", errno);
  }
  close(fd);
}

int FirstProcess(const std::function<int()>& body) {
  umask(022);
  // Behind the kernel's workers, which carry the bytes of the serial lines: what the host flushes 10 ms after
  // it sent it must have arrived by then, also on a busy machine.
  constexpr int kBehindWorkers = 5;
  setpriority(PRIO_PROCESS, 0, kBehindWorkers);
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0) {
    Halt("the box cannot be made private", errno);
  }
  MakeRoot();
  MakeDevices();
  MakeAttributes();
  RaiseLoopback();
  sethostname("base-station", std::strlen("base-station"));
  fs::create_directories(kStationDir);

  const pid_t pid = fork();
  if (pid < 0) {
    Halt("cannot fork", errno);
  }
  if (pid == 0) {
    std::exit(body());
  }
  while (true) {
    int status = 0;
    const pid_t ended = wait(&status);
    if (ended == pid) {
      return ExitCode(status);
    }
    if (ended < 0 && errno != EINTR) {
      Halt("cannot wait for the box", errno);
    }
  }
}

}  // namespace

void SetRootSource(const std::string& source) {
  // The kernel keeps a source for each mount, for good. So the next root is an empty file system of that
  // source on which the directories of this one are mounted.
  static std::string current = kUntoldRoot;
  if (source == current) {
    return;
  }
  Mount(source.c_str(), kNextRoot, "tmpfs", 0, "mode=755");
  for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
    const std::string path = entry.path();
    if (path == kNextRoot) {
      continue;
    }
    const std::string next = kNextRoot + path;
    if (entry.is_symlink()) {
      fs::copy_symlink(path, next);
      continue;
    }
    if (entry.is_directory()) {
      fs::create_directory(next);
      fs::permissions(next, entry.status().permissions());
      if (fs::is_empty(path)) {
        continue;  // where nothing is mounted, nothing may look mounted
      }
    } else {
      WriteText(next, "");
    }
    Mount(path.c_str(), next, nullptr, MS_BIND | MS_REC);
  }
  ChangeRoot(kNextRoot);
  current = source;
}

}  // namespace station

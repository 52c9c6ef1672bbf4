// The shipped unit takes rights and system calls away from the daemon and from the commands that it runs:
// what is left is enough for a whole upgrade, and no more.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ostream>

#include "StationTest.h"
#include "VirtualStation/Box.h"
#include "VirtualStation/Process.h"

using namespace station;

namespace {

constexpr uid_t kOwner = 60001;

int RunConfined(std::vector<std::string> command) {
  Daemon::CommandLine whole = Daemon::Confinement();
  whole.insert(whole.end(), command.begin(), command.end());
  return RunProgram(whole);
}

}  // namespace

class ConfinementTest : public StationTest {};

// The sanitizers' own calls are not the daemon's.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace {

constexpr gid_t kGroup = 60002;
const std::string kTool = "/quorvalen/special/tool";
const std::string kNode = "/quorvalen/special/null";

// What takes rights to unpack: a file of somebody else's with set-user and set-group ID, and a device node.
void MakeSpecialFiles(const std::string& root) {
  WriteText(root + kTool, "tool\n");
  ASSERT_EQ(chown((root + kTool).c_str(), kOwner, kGroup), 0);
  ASSERT_EQ(chmod((root + kTool).c_str(), 06755), 0);
  ASSERT_EQ(mknod((root + kNode).c_str(), S_IFCHR | 0640, makedev(1, 3)), 0);
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

}  // namespace

TEST_F(ConfinementTest, WholeUpgradePasses) {
  StationOptions options;
  options.launcher = Daemon::Confinement();
  Station station(options);
  ASSERT_TRUE(station.Start());
  const std::string confined = ReadFile("/proc/" + std::to_string(station.daemon().Pid()) + "/status");
  EXPECT_NE(confined.find("Seccomp:\t2"), std::string::npos) << confined;

  PackageBuilder builder("S4.1.0.1");
  builder.AllSocParts("V2.0.0.01").Mcu("V2.0.0.01", 4097).Uac("V2.0.0.01", 4097).Fpga("V2.0.0.01", 12289);
  builder.EditPage("app", [](const std::string& file) {
    const std::string root = std::string(kStationDir) + "/special";
    MakeSpecialFiles(root);
    MustRun({"tar", "rf", file, "-C", root, "quorvalen/special"});
  });
  const Package package = builder.Build();
  MakeSpecialFiles(package.tree + "/app");
  ExpectUpgrade(station, package);
  ExpectNoDifferences(station.chips().DifferencesFrom(package));
  const std::string app = Disks::AppDir(station.Running());
  EXPECT_EQ(StatusOf(app + kTool).st_uid, kOwner);
  EXPECT_EQ(StatusOf(app + kTool).st_gid, kGroup);
  EXPECT_EQ(StatusOf(app + kNode).st_rdev, makedev(1, 3));
}
#endif

TEST_F(ConfinementTest, EndsServicesOfOtherUsers) {
  const pid_t service = fork();
  if (service == 0) {
    _exit(setresuid(kOwner, kOwner, kOwner) == 0 ? raise(SIGSTOP) : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(service, &status, WUNTRACED), service);
  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(RunConfined({"kill", "-9", std::to_string(service)}), 0);
  kill(service, SIGKILL);
  waitpid(service, &status, 0);
}

// A system call with arguments as perl writes them ($path is "/"), and the error with which it is refused: 0
// when it is not, and fails as root for its arguments alone.
struct Call {
  const char* name;
  long number;
  const char* arguments;
  int refusal;
};

void PrintTo(const Call& call, std::ostream* out) {
  *out << call.name;
}

const Call kCalls[] = {
    // Not among the unit's calls.
    {"Swapon", SYS_swapon, "$path, 0", EPERM},
    {"KexecLoad", SYS_kexec_load, "0, 0, 0, -1", EPERM},
    {"Ptrace", SYS_ptrace, "16, -1, 0, 0", EPERM},
    // A right that it has not.
    {"Chroot", SYS_chroot, "$path", EPERM},
    {"PacketSocket", SYS_socket, "17, 2, 0", EAFNOSUPPORT},
    {"WritableCode", SYS_mmap, "0, 4096, 7, 0x22, -1, 0", EPERM},
    // What the station keeps from the daemon, and the device must not.
    {"Reboot", SYS_reboot, "0, 0, 0, 0", 0},
    {"LoadDriver", SYS_finit_module, "-1, $path, 0", 0},
};

class ConfinedCall : public ConfinementTest, public ::testing::WithParamInterface<Call> {};

TEST_P(ConfinedCall, FailsOrNotAsTheUnitSays) {
  const Call& call = GetParam();
  const std::string script =
      "$path = '/'; syscall(" + std::to_string(call.number) + ", " + call.arguments + ") < 0 and exit $! + 0";
  const int asRoot = RunProgram({"perl", "-e", script});
  EXPECT_NE(asRoot, EPERM);
  EXPECT_NE(asRoot, EAFNOSUPPORT);
  EXPECT_EQ(RunConfined({"perl", "-e", script}), call.refusal == 0 ? asRoot : call.refusal);
}

INSTANTIATE_TEST_SUITE_P(Calls, ConfinedCall, ::testing::ValuesIn(kCalls),
                         [](const auto& call) { return std::string(call.param.name); });

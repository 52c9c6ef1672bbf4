// The system controller's reports and what they lead to, the queue at its limit, the debug commands, and whom
// the bus lets near all this.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "StationTest.h"
#include "VirtualStation/BusConnection.h"

using namespace station;

namespace {

constexpr int kPanelBatteryLow = 101;
constexpr int kPanelVersions = 200;
constexpr int kPanelFault = 300;

Json::Value Data(const char* key, const Json::Value& value) {
  Json::Value data;
  data[key] = value;
  return data;
}

/// While it lives, whoever writes to the file system waits.
class FrozenDisk {
 public:
  explicit FrozenDisk(const std::string& directory)
      : m_fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    EXPECT_EQ(ioctl(m_fd, FIFREEZE, 0), 0) << directory;
  }
  ~FrozenDisk() {
    ioctl(m_fd, FITHAW, 0);
    close(m_fd);
  }
  FrozenDisk(const FrozenDisk&) = delete;
  FrozenDisk& operator=(const FrozenDisk&) = delete;

 private:
  int m_fd;
};

/// Runs `body` as a process of the user and group of this number would run.
template <class Body>
void RunAs(id_t id, const Body& body) {
  std::thread([&] {
    // This thread alone: the C library's calls would change the whole process. The bus asks the kernel.
    ASSERT_EQ(syscall(SYS_setgroups, 1, &id), 0);
    ASSERT_EQ(syscall(SYS_setresgid, id, id, id), 0);
    ASSERT_EQ(syscall(SYS_setresuid, id, id, id), 0);
    body();
  }).join();
}

/// True when the bus answers a call of its own that names no interface, which the standard allows.
bool BusAnswersWithoutInterface(const BusConnection& connection) {
  DBusMessage* call = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, nullptr, "GetId");
  constexpr int kLimitMs = 10000;
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(connection.Get(), call, kLimitMs, nullptr);
  dbus_message_unref(call);
  if (reply != nullptr) dbus_message_unref(reply);
  return reply != nullptr;
}

class ControllerTest : public StationTest {
 protected:
  /// The daemon runs and serves the controller.
  static void Start(Station& station) {
    ASSERT_TRUE(station.Start());
    ExpectLog("Enter SysCtrlIpc Thread");
  }
  static void ExpectTaken(Station& station, int cmd, const Json::Value& data) {
    EXPECT_EQ(station.controller().Report(cmd, data).value_or("no reply"), "ProcUpgMsg ACK");
  }
  static std::string Debug(Station& station, const std::string& line) {
    return station.bus()
        .Call("/org/Upgread/object", "org.Upgread.interface", "upgrade_dbus_method_UpgreadDebug", line, 10s)
        .value_or("no reply");
  }
  static std::string FpgaVersion() {
    return Station::Versions(Partition::A)["subModulesVersion"]["fpgaVersion"].asString();
  }
  /// A version report with this text in it, now or soon.
  static void ExpectVersionReport(Station& station, const char* key, const char* version) {
    const auto reported = station.panel().WaitFor(
        [=](const Report& report) {
          return report.cmd == kPanelVersions && report.property["subModulesVersion"][key] == version;
        },
        kPatience);
    EXPECT_TRUE(reported.has_value()) << key << " " << version;
  }
};

}  // namespace

TEST_F(ControllerTest, LowBatteryRefusesAPackageUntilServiceLiftsTheLimit) {
  Station station;
  Start(station);
  EXPECT_EQ(Debug(station, "sl"), "Low battery limited ON");
  ExpectTaken(station, Controller::kBattery, Data("Battery", 5));
  EXPECT_TRUE(station.controller().WaitForAck(1, kPatience));
  ExpectLog("Get new battery:5");
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Build();
  station.InsertStick(package);
  EXPECT_TRUE(station.panel().WaitForCmd(kPanelBatteryLow, kPatience).has_value());
  EXPECT_EQ(station.commands().Count("7za *"), 0U);

  EXPECT_EQ(Debug(station, "sl off"), "Low battery limited OFF");
  ExpectUpgrade(station, package);
}

TEST_F(ControllerTest, ReportedVersionThatDiffersIsAFaultAndStored) {
  Station station;
  Start(station);
  const struct {
    int cmd;
    int rtxIndex;
    const char* key;
    const char* versionKey;
    const char* read;
    const char* fault;
  } rows[] = {
      {Controller::kFpgaVersion, 0, "FpgaVer", "fpgaVersion", "V2",
       "Different FPGA version!Strored:V1.0.0.01, read:V2"},
      {Controller::kRtxVersion, 1, "RtxVer", "rtxVersion", "V3",
       "Different RTX1 version!Strored:V1.0.0.01, read:V3"},
      {Controller::kRtxVersion, 2, "RtxVer", "rtxVersion", "V4",
       "Different RTX2 version!Strored:V3, read:V4"},
      {Controller::kUacVersion, 0, "UacVer", "uacVersion", "V5",
       "Different UAC version!Strored:V1.0.0.01, read:V5"},
  };
  for (const auto& row : rows) {
    station.panel().Clear();
    Json::Value data = Data(row.key, row.read);
    data["RtxIndex"] = row.rtxIndex;
    ExpectTaken(station, row.cmd, data);
    const auto fault = station.panel().WaitForCmd(kPanelFault, kPatience);
    ASSERT_TRUE(fault.has_value()) << row.fault;
    EXPECT_EQ(fault->property, Data("FaultMsg", row.fault));
    ExpectVersionReport(station, row.versionKey, row.read);
    EXPECT_EQ(Station::Versions(Partition::A)["subModulesVersion"][row.versionKey], row.read);
  }
  // The same again is no news, and what is no report harms nobody. The last one also drops what follows it in
  // its batch.
  station.panel().Clear();
  for (const char* text : {"no json", R"({"Cmd":100,"Data":[]})", R"({"Cmd":102,"Data":{"Battery":"5"}})",
                           R"({"Cmd":9,"Data":{}})", "[]"}) {
    station.controller().Signal(text);
  }
  ExpectLog("Error content of msg! ErrVal:");
  ExpectTaken(station, Controller::kFpgaVersion, Data("FpgaVer", "V2"));
  ExpectLog("Same version, no need update.");
  EXPECT_FALSE(station.panel().WaitForCmd(kPanelFault, 0s).has_value());
}

TEST_F(ControllerTest, AskedForTheVersionsTheDaemonReportsThemOnceMore) {
  Station station;
  Start(station);
  ASSERT_TRUE(station.panel().WaitForCmd(kPanelVersions, kPatience, 5).has_value());
  station.panel().Clear();
  ExpectTaken(station, Controller::kVersionRequest, Json::Value());
  EXPECT_TRUE(station.panel().WaitForCmd(kPanelVersions, kPatience).has_value());
}

TEST_F(ControllerTest, FullQueueRefusesButAcknowledgesAndAStopHandlesNoneOfIt) {
  constexpr int kLimit = 1024;
  StationOptions options;
  options.chips = false;  // nobody else has a version to store
  Station station(options);
  Start(station);
  Controller& controller = station.controller();
  {
    // The first report is being stored while the others come in.
    const FrozenDisk frozen(Disks::AppDir(Partition::A));
    controller.Signal(Controller::Message(Controller::kFpgaVersion, Data("FpgaVer", "V2"), "first"));
    ASSERT_TRUE(station.panel().WaitForCmd(kPanelFault, kPatience).has_value());
    for (int i = 1; i <= kLimit; ++i) {
      controller.Signal(Controller::Message(Controller::kBattery, Data("Battery", 50), i));
    }
    ASSERT_TRUE(controller.WaitForAck(kLimit, kPatience));
    const std::string oneTooMany = Controller::Message(Controller::kBattery, Data("Battery", 51), "last");
    EXPECT_EQ(controller.Call(oneTooMany).value_or("no reply"), "Out of max cache msg");
    EXPECT_TRUE(controller.WaitForAck("last", kPatience));
    ASSERT_EQ(kill(station.daemon().Pid(), SIGTERM), 0);
    ExpectLog("Quit SysCtrlIpc Thread");
  }
  const auto status = station.daemon().WaitExit(5s * kSlowness);
  ASSERT_TRUE(status.has_value()) << "still running";
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(FpgaVersion(), "V2") << "the report under way was finished";
  EXPECT_EQ(Daemon::Log().find("Get new battery"), std::string::npos);
}

TEST_F(ControllerTest, DebugCommandsAnswerAndAnythingElseListsThem) {
  Station station;
  Start(station);
  const std::string list = Debug(station, "help");
  for (const char* command : {"help", "DebugUpgPp", "sl", "rpp"}) {
    EXPECT_NE(list.find(std::string(command) + ": "), std::string::npos) << list;
  }
  EXPECT_EQ(Debug(station, "sl maybe"), list);
  EXPECT_EQ(Debug(station, "reboot"), list);
  EXPECT_EQ(Debug(station, "DebugUpgPp"), "no portable part to ask");
  EXPECT_EQ(Debug(station, "rpp"), "the PP firmware information is loaded anew");
}

TEST_F(ControllerTest, BusLetsTheStationsServicesAloneNearTheDaemonAndRootAloneDebugIt) {
  constexpr id_t kService = 60001;
  constexpr id_t kStranger = 60002;
  // Each has a group of its number. The bus looks a policy's group up when it starts, a user's when it comes.
  std::ofstream("/etc/group", std::ios::app) << "quorvalen:x:" << kService << ":\n";
  for (const id_t id : {kService, kStranger}) {
    std::ofstream("/etc/passwd", std::ios::app)
        << "u" << id << ":x:" << id << ":" << id << "::/:/bin/false\n";
  }
  Station station;
  Start(station);
  const auto battery = [](int level) {
    return Controller::Message(Controller::kBattery, Data("Battery", level), 0);
  };
  for (const id_t id : {kStranger, kService}) {
    const bool isService = id == kService;
    RunAs(id, [&] {
      EXPECT_EQ(station.controller().Call(battery(isService ? 21 : 11)).has_value(), isService);
      EXPECT_EQ(station.web().Request(std::string("?")).has_value(), isService);
      EXPECT_EQ(station.panel().Request(std::string("?")).has_value(), isService);
      EXPECT_EQ(Debug(station, "sl"), "no reply");
      const BusConnection peer(station.bus().Address());
      peer.SendSignal("/any", "org.Upgread.interface", "upgrade_dbus_method_comm_sys",
                      battery(isService ? 22 : 12));
      EXPECT_TRUE(BusAnswersWithoutInterface(peer)) << id;
    });
  }
  EXPECT_EQ(Debug(station, "sl"), "Low battery limited ON");
  ExpectTaken(station, Controller::kBattery, Data("Battery", 50));
  ExpectLog("Get new battery:50");  // all earlier ones were handled before
  for (const char* taken : {"21", "22"}) ExpectLog(std::string("Get new battery:") + taken);
  EXPECT_EQ(Daemon::Log().find("Get new battery:1"), std::string::npos);
}

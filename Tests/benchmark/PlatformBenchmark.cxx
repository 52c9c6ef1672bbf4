// Costs of the platform, each against the bare thing in the same run: the counter "ratio" is bare time over
// ours, so 1 is as fast and 0.5 half as fast. Run by hand; see Docs/performance.md.
#include <benchmark/benchmark.h>
#include <dbus/dbus.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/Log/CLog.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string MakeDirectory() {
  std::string name = "/tmp/qv-benchmark-XXXXXX";
  return mkdtemp(name.data()) != nullptr ? name : std::string();
}

void Md5AgainstOpenssl(benchmark::State& state) {
  const std::string directory = MakeDirectory();
  const std::string file = directory + "/data";
  {
    std::vector<char> block(1U << 20U, 'q');
    std::ofstream out(file, std::ios::binary);
    for (int64_t i = 0; i < state.range(0); ++i)
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  const std::string bareCommand = "openssl md5 " + file + " >/dev/null";
  double ours = 0;
  double bare = 0;
  while (state.KeepRunning()) {
    const auto start = Clock::now();
    if (md5::MD5(file).empty()) state.SkipWithError("cannot read the file");
    ours += SecondsSince(start);
    const auto bareStart = Clock::now();
    if (RunShell(bareCommand.c_str()).exitCode != 0) state.SkipWithError("openssl failed");
    bare += SecondsSince(bareStart);
  }
  state.counters["ratio"] = bare / ours;
  RunShell(("rm -rf " + directory).c_str());
}
BENCHMARK(Md5AgainstOpenssl)->Arg(1024)->Iterations(3)->Unit(benchmark::kMillisecond);

void LogStatement(benchmark::State& state) {
  const std::string directory = MakeDirectory();
  CLog::instance()->Init(directory.c_str(), false);
  int count = 0;
  while (state.KeepRunning()) LOGI("statement %d of %s", ++count, "the benchmark");
  CLog::instance()->CleanUp();
  RunShell(("rm -rf " + directory).c_str());
}
BENCHMARK(LogStatement);

constexpr const char* kPath = "/org/Upgread/object";
constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMember = "upgrade_dbus_method_UpgreadDebug";

std::string Echo(const std::string& text) {
  return text;
}

void ServeWithHandler(const char* name) {
  CDbusHandler::instance()->Init(name);
  CDbusHandler::instance()->RegisteredServices(kPath, kInterface, kMember, Echo, false);
  for (;;) XSleep(1000);
}

void ServeBare(const char* name) {
  DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
  dbus_bus_request_name(bus, name, 0, nullptr);
  while (dbus_connection_read_write(bus, -1) != 0) {
    while (DBusMessage* call = dbus_connection_pop_message(bus)) {
      if (dbus_message_is_method_call(call, kInterface, kMember) != 0) {
        const char* text = "";
        dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        DBusMessage* reply = dbus_message_new_method_return(call);
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        dbus_connection_send(bus, reply, nullptr);
        dbus_connection_flush(bus);
        dbus_message_unref(reply);
      }
      dbus_message_unref(call);
    }
  }
}

pid_t StartServer(void (*serve)(const char*), const char* name) {
  const pid_t child = fork();
  if (child == 0) {
    serve(name);
    _exit(1);
  }
  return child;
}

double SecondsForCalls(DBusConnection* bus, const char* destination, int calls) {
  const std::string text(200, 'x');
  const auto start = Clock::now();
  for (int i = 0; i < calls; ++i) {
    DBusMessage* call = dbus_message_new_method_call(destination, kPath, kInterface, kMember);
    const char* value = text.c_str();
    dbus_message_append_args(call, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(bus, call, 5000, nullptr);
    dbus_message_unref(call);
    if (reply == nullptr) return 0;
    dbus_message_unref(reply);
  }
  return SecondsSince(start);
}

void BusRoundTripAgainstBareServer(benchmark::State& state) {
  const std::string directory = MakeDirectory();
  const std::string address = "unix:path=" + directory + "/bus";
  {
    std::ofstream config(directory + "/bus.conf");
    config << "<busconfig><type>system</type><auth>EXTERNAL</auth><listen>" << address
           << "</listen><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
              "<allow send_destination=\"*\"/><allow send_requested_reply=\"true\"/>"
              "<allow receive_type=\"method_call\"/><allow receive_type=\"method_return\"/>"
              "<allow receive_type=\"signal\"/></policy></busconfig>";
  }
  // Forks into the background once it listens.
  RunShell(("dbus-daemon --fork --print-pid --config-file=" + directory + "/bus.conf > " + directory + "/pid")
               .c_str());
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  const pid_t handler = StartServer(ServeWithHandler, "test.Handler");
  const pid_t bareServer = StartServer(ServeBare, "test.Bare");
  DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
  for (const char* name : {"test.Handler", "test.Bare"}) {
    while (dbus_bus_name_has_owner(bus, name, nullptr) == 0) XSleep(10);
  }
  constexpr int kCalls = 5000;
  while (SecondsForCalls(bus, "test.Handler", 1) == 0) XSleep(10);
  double ours = 0;
  double bare = 0;
  while (state.KeepRunning()) {
    ours += SecondsForCalls(bus, "test.Handler", kCalls);
    bare += SecondsForCalls(bus, "test.Bare", kCalls);
  }
  state.counters["ratio"] = bare / ours;
  state.counters["calls_per_second"] = kCalls * static_cast<double>(state.iterations()) / ours;
  dbus_connection_close(bus);
  dbus_connection_unref(bus);
  for (const pid_t child : {handler, bareServer}) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  RunShell(("kill $(cat " + directory + "/pid); rm -rf " + directory).c_str());
}
BENCHMARK(BusRoundTripAgainstBareServer)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

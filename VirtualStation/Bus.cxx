/// Starts and stops the machine's own dbus-daemon, and calls methods over it.
#include "VirtualStation/Bus.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include "VirtualStation/Box.h"
#include "VirtualStation/BusConnection.h"
#include "VirtualStation/Process.h"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;

/// A system bus as distributions configure it, then the shipped policy.
std::string Configuration() {
  return R"(<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <include>)" STATION_BUS_POLICY R"(</include>
</busconfig>
)";
}

}  // namespace

Bus::Bus() {
  const std::string file = std::string(kStationDir) + "/bus.conf";
  WriteText(file, Configuration());
  const std::string output = std::string(kStationDir) + "/bus.out";
  std::filesystem::create_directories("/run/dbus");
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    Halt("cannot start the bus", errno);
  }
  const std::string option = "--config-file=" + file;
  constexpr int kAddressFd = 3;
  const char* argv[] = {"dbus-daemon", option.c_str(),      "--nofork",
                        "--nopidfile", "--print-address=3", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ready[1], kAddressFd);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  const int error = posix_spawnp(&m_pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ready[1]);
  if (error != 0) {
    Halt("cannot run dbus-daemon", error);
  }
  constexpr int kStartLimitMs = 10000;
  pollfd wait = {ready[0], POLLIN, 0};
  char address[256] = {};
  if (poll(&wait, 1, kStartLimitMs) != 1 || read(ready[0], address, sizeof address - 1) <= 0) {
    Halt("the bus did not start: " + ReadText(output));
  }
  close(ready[0]);
  m_address = address;
  m_address.erase(m_address.find_last_not_of('\n') + 1);
}

Bus::~Bus() {
  kill(m_pid, SIGTERM);
  waitpid(m_pid, nullptr, 0);
}

std::optional<std::string> Bus::Call(const std::string& path, const std::string& interface,
                                     const std::string& member, const std::string& text,
                                     Milliseconds timeout) const {
  const BusConnection connection(m_address);
  DBusMessage* call =
      dbus_message_new_method_call(kDaemonBusName, path.c_str(), interface.c_str(), member.c_str());
  const char* argument = text.c_str();
  dbus_message_append_args(call, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
  DBusError error = DBUS_ERROR_INIT;
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(connection.Get(), call,
                                                                 static_cast<int>(timeout.count()), &error);
  dbus_message_unref(call);
  dbus_error_free(&error);
  std::optional<std::string> result;
  if (reply != nullptr) {
    result = BusConnection::Text(reply);
    dbus_message_unref(reply);
  }
  return result;
}

bool Bus::WaitForOwner(const std::string& name, Milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  const BusConnection connection(m_address);
  connection.Match("type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name +
                   "'");
  while (true) {
    while (DBusMessage* message = dbus_connection_pop_message(connection.Get())) {
      dbus_message_unref(message);
    }
    // Asked again after every change: the signals only wake.
    const bool owned = dbus_bus_name_has_owner(connection.Get(), name.c_str(), nullptr) != 0;
    const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
    if (owned || left <= 0) {
      return owned;
    }
    // A change that came while it was asked is in the queue already.
    if (dbus_connection_get_dispatch_status(connection.Get()) != DBUS_DISPATCH_DATA_REMAINS) {
      dbus_connection_read_write(connection.Get(), static_cast<int>(left));
    }
  }
}

}  // namespace station

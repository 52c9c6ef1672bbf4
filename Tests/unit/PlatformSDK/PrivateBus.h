// A real message bus of the tests' own, and another process's view of it.
#pragma once

#include <dbus/dbus.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "BSW/BasicFun/TimeUtils.h"
#include "TempDirectory.h"

// A dbus-daemon that is the system bus of this process. Its address stays the same, also after a Stop:
// libdbus looks it up once.
class PrivateBus {
 public:
  // The one bus, running.
  static PrivateBus& Running() {
    static PrivateBus bus;
    if (bus.m_pid <= 0) bus.Start();
    return bus;
  }
  ~PrivateBus() { Stop(); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  void Stop() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

 private:
  PrivateBus() = default;

  void Start() {
    unlink((m_directory / "socket").c_str());
    WriteText(m_directory / "bus.conf",
              "<busconfig><type>session</type><listen>unix:path=" + m_directory / "socket" +
                  "</listen><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                  "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
    const std::string config = "--config-file=" + m_directory / "bus.conf";
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0) std::abort();
    m_pid = fork();
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(ready[1], STDOUT_FILENO);
      execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--print-address=1", nullptr);
      _exit(127);
    }
    close(ready[1]);
    char first = '\0';
    const bool listens = read(ready[0], &first, 1) == 1;
    close(ready[0]);
    if (!listens) std::abort();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + m_directory / "socket").c_str(), 1);
  }

  const TempDirectory m_directory;
  pid_t m_pid = -1;
};

// Another process's view of the bus. One thread.
class BusPeer {
 public:
  BusPeer() : m_bus(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)) {}
  ~BusPeer() {
    dbus_connection_close(m_bus);
    dbus_connection_unref(m_bus);
  }
  BusPeer(const BusPeer&) = delete;
  BusPeer& operator=(const BusPeer&) = delete;

  // Until the daemon owns its name; false when time is up.
  bool WaitForDaemon(int waitMs) {
    const uint32_t start = GetCurTimeMilliSec();
    while (dbus_bus_name_has_owner(m_bus, "org.Upgread.server", nullptr) == 0) {
      if (GetCurTimeMilliSec() - start >= static_cast<uint32_t>(waitMs)) return false;
      XSleep(10);
    }
    return true;
  }
  void Signal(const char* interface, const char* member, const std::string& text) {
    Send(Message(dbus_message_new_signal("/any", interface, member)), text);
  }
  // Calls the daemon.
  dbus_uint32_t Call(const char* path, const char* interface, const char* member, const std::string& text) {
    return Send(Message(dbus_message_new_method_call("org.Upgread.server", path, interface, member)), text);
  }
  // The texts of the first `wanted` replies to the call `serial`.
  std::vector<std::string> Replies(dbus_uint32_t serial, size_t wanted, int waitMs) {
    return Take(wanted, waitMs,
                [=](DBusMessage* message) { return dbus_message_get_reply_serial(message) == serial; });
  }
  // From now on signals of this interface come here.
  void Listen(const char* interface) {
    DBusError error = DBUS_ERROR_INIT;  // given, so that the call waits until the rule holds
    dbus_bus_add_match(m_bus, (std::string("type='signal',interface='") + interface + "'").c_str(), &error);
    if (dbus_error_is_set(&error) != 0) std::abort();
  }
  // The texts of the next `wanted` signals of this interface.
  std::vector<std::string> Signals(const char* interface, size_t wanted, int waitMs) {
    return Take(wanted, waitMs,
                [=](DBusMessage* message) { return dbus_message_has_interface(message, interface) != 0; });
  }

 private:
  struct Unref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
  };
  using Message = std::unique_ptr<DBusMessage, Unref>;

  // The texts of the next `wanted` messages that pass; whatever else comes is lost.
  template <class Test>
  std::vector<std::string> Take(size_t wanted, int waitMs, const Test& test) {
    std::vector<std::string> texts;
    const uint32_t start = GetCurTimeMilliSec();
    while (texts.size() < wanted && GetCurTimeMilliSec() - start < static_cast<uint32_t>(waitMs)) {
      dbus_connection_read_write(m_bus, 20);
      while (texts.size() < wanted) {
        const Message message(dbus_connection_pop_message(m_bus));
        if (!message) break;
        if (!test(message.get())) continue;
        const char* text = "";
        dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        texts.emplace_back(dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR ? "error" : text);
      }
    }
    return texts;
  }

  dbus_uint32_t Send(const Message& message, const std::string& text) {
    const char* value = text.c_str();
    dbus_uint32_t serial = 0;
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    dbus_connection_send(m_bus, message.get(), &serial);
    dbus_connection_flush(m_bus);
    return serial;
  }

  DBusConnection* m_bus;
};

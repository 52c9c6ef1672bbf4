// The bus handler against a real bus daemon of the test's own: nothing lost, nothing answered that is not
// served.
#include "BSW/Dbus/CDbusHandler.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BSW/BasicFun/TimeUtils.h"
#include "TempDirectory.h"

namespace {

constexpr const char* kName = "org.Upgread.server";
constexpr const char* kPath = "/org/Upgread/object";
constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMember = "upgrade_dbus_method_comm_sys";
constexpr const char* kBus = "org.freedesktop.DBus";
constexpr int kAnswerMs = 10'000;
constexpr int kNoAnswerMs = 300;

// A dbus-daemon that listens in a directory of its own and is the system bus of this process.
class PrivateBus {
 public:
  PrivateBus() {
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
  const TempDirectory m_directory;
  pid_t m_pid = -1;
};

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

// Another process's view of the bus.
class Peer {
 public:
  Peer() : m_bus(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)) {}
  ~Peer() {
    dbus_connection_close(m_bus);
    dbus_connection_unref(m_bus);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void Signal(const std::string& text) {
    Send(Message(dbus_message_new_signal("/any", kInterface, kMember)), text);
  }
  dbus_uint32_t Call(const char* path, const char* interface, const char* member, const std::string& text) {
    return Send(Message(dbus_message_new_method_call(kName, path, interface, member)), text);
  }
  // The texts of the first `wanted` replies to the call `serial`.
  std::vector<std::string> Replies(dbus_uint32_t serial, size_t wanted, int waitMs) {
    std::vector<std::string> texts;
    const uint32_t start = GetCurTimeMilliSec();
    while (texts.size() < wanted && GetCurTimeMilliSec() - start < static_cast<uint32_t>(waitMs)) {
      dbus_connection_read_write(m_bus, 20);
      while (const Message message{dbus_connection_pop_message(m_bus)}) {
        if (dbus_message_get_reply_serial(message.get()) != serial) continue;
        const char* text = "";
        dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        texts.emplace_back(dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR ? "error" : text);
      }
    }
    return texts;
  }

 private:
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

// A blocking call that every bus answers.
bool AskBus() {
  std::string owner;
  return CDbusHandler::instance()->MethodSendGetReply(kBus, "/", kBus, "GetNameOwner", kBus, owner,
                                                      kAnswerMs) &&
         owner == kBus;
}

std::mutex g_receivedMutex;
std::vector<std::string> g_received;  // guarded by g_receivedMutex

std::string Collect(const std::string& text) {
  const std::lock_guard<std::mutex> lock(g_receivedMutex);
  g_received.push_back(text);
  return "one";
}
std::string AskBusAndCollect(const std::string& text) {
  EXPECT_TRUE(AskBus());  // a callback may call out itself
  return Collect(text);
}
std::string AnswerTwo(const std::string& /*text*/) {
  return "two";
}
std::string AnswerNoText(const std::string& /*text*/) {
  return "\xFF";
}

size_t ReceivedCount() {
  const std::lock_guard<std::mutex> lock(g_receivedMutex);
  return g_received.size();
}

class CDbusHandlerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { s_bus = std::make_unique<PrivateBus>(); }
  static void TearDownTestSuite() { s_bus.reset(); }
  void SetUp() override { ASSERT_TRUE(m_handler->Init(kName)); }
  void TearDown() override {
    for (const char* member : {kMember, "bad"}) m_handler->UnRegisteredServices(kPath, kInterface, member);
    m_handler->CleanUp();
    g_received.clear();
  }
  bool Serve(DBUS_CALLBACK callback, const char* member = kMember, bool listenSignals = false) {
    return m_handler->RegisteredServices(kPath, kInterface, member, callback, listenSignals);
  }

  static std::unique_ptr<PrivateBus> s_bus;
  CDbusHandler* const m_handler = CDbusHandler::instance();
};

std::unique_ptr<PrivateBus> CDbusHandlerTest::s_bus;

}  // namespace

TEST_F(CDbusHandlerTest, LosesNoSignalOfABurstWhileThreadsMakeBlockingCalls) {
  constexpr size_t kSignals = 2000;
  ASSERT_TRUE(Serve(AskBusAndCollect, kMember, true));
  std::atomic<bool> stop{false};
  std::atomic<int> failedCalls{0};
  std::vector<std::thread> callers;
  callers.reserve(4);
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      while (!stop) failedCalls += AskBus() ? 0 : 1;
    });
  }
  Peer peer;
  for (size_t i = 0; i < kSignals; ++i) peer.Signal(std::to_string(i));
  for (int waits = 0; ReceivedCount() < kSignals && waits < 6000; ++waits) XSleep(10);
  stop = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(failedCalls, 0);
  ASSERT_EQ(ReceivedCount(), kSignals);
  for (size_t i = 0; i < kSignals; ++i) ASSERT_EQ(g_received[i], std::to_string(i));
}

TEST_F(CDbusHandlerTest, EveryServiceOfAMemberAnswersInOrderAndOthersNotAtAll) {
  ASSERT_TRUE(Serve(Collect) && Serve(AnswerTwo) && Serve(AnswerNoText, "bad"));
  Peer peer;
  EXPECT_EQ(peer.Replies(peer.Call(kPath, kInterface, kMember, "{}"), 2, kAnswerMs),
            (std::vector<std::string>{"one", "two"}));
  const std::vector<std::string> none;
  EXPECT_EQ(peer.Replies(peer.Call("/other", kInterface, kMember, ""), 1, kNoAnswerMs), none);
  EXPECT_EQ(peer.Replies(peer.Call(kPath, kInterface, "other", ""), 1, kNoAnswerMs), none);
  EXPECT_EQ(peer.Replies(peer.Call(kPath, "org.freedesktop.DBus.Peer", "Ping", ""), 1, kNoAnswerMs), none);
  EXPECT_EQ(peer.Replies(peer.Call(kPath, nullptr, "other", ""), 1, kNoAnswerMs), none);
  EXPECT_EQ(peer.Replies(peer.Call(kPath, kInterface, "bad", ""), 1, kNoAnswerMs), none);
  EXPECT_EQ(ReceivedCount(), 1U);
  EXPECT_TRUE(m_handler->UnRegisteredServices(kPath, kInterface, kMember));
  EXPECT_FALSE(m_handler->UnRegisteredServices(kPath, kInterface, kMember));
  EXPECT_EQ(peer.Replies(peer.Call(kPath, kInterface, kMember, "{}"), 1, kNoAnswerMs), none);
}

TEST_F(CDbusHandlerTest, RefusesBadArgumentsAndReportsBusErrors) {
  std::string reply = "unchanged";
  EXPECT_FALSE(m_handler->SignalSend(kPath, kInterface, kMember, "\xC3"));
  EXPECT_FALSE(m_handler->SignalSend(kPath, kInterface, kMember, nullptr));
  EXPECT_FALSE(m_handler->SignalSend(kPath, nullptr, kMember, "text"));
  EXPECT_TRUE(m_handler->SignalSend(kPath, kInterface, kMember, "text"));
  EXPECT_FALSE(m_handler->MethodSend(kBus, kPath, kInterface, kMember, std::string("a\0b", 3)));
  EXPECT_FALSE(m_handler->MethodSend(nullptr, kPath, kInterface, kMember, "text"));
  EXPECT_FALSE(m_handler->RegisteredServices(kPath, kInterface, kMember, nullptr, true));
  EXPECT_FALSE(
      m_handler->MethodSendGetReply(kBus, "/", kBus, "GetNameOwner", "no.such.name", reply, kAnswerMs));
  // Nobody answers a member that we do not serve: the time-out ends the call.
  EXPECT_FALSE(m_handler->MethodSendGetReply(kName, kPath, kInterface, "none", "", reply, kNoAnswerMs));
  EXPECT_EQ(reply, "unchanged");
}

TEST_F(CDbusHandlerTest, OutlivesItsBusAndEndsTheCallsUnderWay) {
  ASSERT_TRUE(Serve(Collect));
  std::atomic<int> calling{0};
  std::vector<std::thread> callers;
  callers.reserve(4);
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&calling] {
      ++calling;
      while (AskBus()) {
      }
    });
  }
  while (calling < 4) XSleep(1);
  s_bus->Stop();
  for (std::thread& caller : callers) caller.join();
  EXPECT_FALSE(AskBus());
  m_handler->SignalSend(kPath, kInterface, kMember, "text");
}

// The bus handler against a real bus daemon of the test's own: nothing lost, nothing answered that is not
// served.
#include "BSW/Dbus/CDbusHandler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BSW/BasicFun/TimeUtils.h"
#include "PrivateBus.h"

namespace {

constexpr const char* kName = "org.Upgread.server";
constexpr const char* kPath = "/org/Upgread/object";
constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMember = "upgrade_dbus_method_comm_sys";
constexpr const char* kBus = "org.freedesktop.DBus";
constexpr int kAnswerMs = 10'000;
constexpr int kNoAnswerMs = 300;

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
  void SetUp() override {
    PrivateBus::Running();
    ASSERT_TRUE(m_handler->Init(kName));
  }
  void TearDown() override {
    for (const char* member : {kMember, "bad", "late"})
      m_handler->UnRegisteredServices(kPath, kInterface, member);
    m_handler->CleanUp();
    g_received.clear();
  }
  bool Serve(DBUS_CALLBACK callback, const char* member = kMember, bool listenSignals = false) {
    return m_handler->RegisteredServices(kPath, kInterface, member, callback, listenSignals);
  }

  bool Send() { return m_handler->SignalSend(kPath, kInterface, kMember, "text"); }
  // The daemon is on the bus: it answers calls of `member`, and its signals from others reach it.
  static void ExpectServed(const char* member) {
    BusPeer peer;
    ASSERT_TRUE(peer.WaitForDaemon(kAnswerMs));
    EXPECT_EQ(peer.Replies(peer.Call(kPath, kInterface, member, "call"), 1, kAnswerMs),
              std::vector<std::string>{"one"});
    const size_t before = ReceivedCount();
    peer.Signal(kInterface, member, "signal");
    for (int waits = 0; ReceivedCount() == before && waits < kAnswerMs / 10; ++waits) XSleep(10);
    EXPECT_EQ(ReceivedCount(), before + 1);
  }

  CDbusHandler* const m_handler = CDbusHandler::instance();
};

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
  BusPeer peer;
  for (size_t i = 0; i < kSignals; ++i) peer.Signal(kInterface, kMember, std::to_string(i));
  for (int waits = 0; ReceivedCount() < kSignals && waits < 6000; ++waits) XSleep(10);
  stop = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(failedCalls, 0);
  ASSERT_EQ(ReceivedCount(), kSignals);
  for (size_t i = 0; i < kSignals; ++i) ASSERT_EQ(g_received[i], std::to_string(i));
}

TEST_F(CDbusHandlerTest, EveryServiceOfAMemberAnswersInOrderAndOthersNotAtAll) {
  ASSERT_TRUE(Serve(Collect) && Serve(AnswerTwo) && Serve(AnswerNoText, "bad"));
  BusPeer peer;
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

TEST_F(CDbusHandlerTest, ComesBackWithItsBusAndEndsTheCallsUnderWay) {
  ASSERT_TRUE(Serve(Collect, kMember, true));
  for (int outage = 0; outage < 3; ++outage) {
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
    PrivateBus::Running().Stop();
    for (std::thread& caller : callers) caller.join();
    EXPECT_FALSE(AskBus());
    EXPECT_FALSE(Send());
    EXPECT_TRUE(outage > 0 || Serve(Collect, "late", true));
    PrivateBus::Running();
    for (const char* member : {kMember, "late"}) ExpectServed(member);
    EXPECT_TRUE(AskBus() && Send());
  }
}

TEST_F(CDbusHandlerTest, ComesUpWithoutABusAndFindsItLater) {
  m_handler->CleanUp();
  PrivateBus::Running().Stop();
  ASSERT_TRUE(m_handler->Init(kName));
  ASSERT_TRUE(Serve(Collect, kMember, true));
  EXPECT_FALSE(Send());
  PrivateBus::Running();
  ExpectServed(kMember);
}

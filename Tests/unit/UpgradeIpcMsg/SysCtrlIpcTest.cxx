// The controller's link on a real bus: acknowledgements, both queues at their limits, stops with full queues.
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlIpc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "../PlatformSDK/PrivateBus.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "RecordedReports.h"

namespace {

constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMember = "upgrade_dbus_method_comm_sys";
constexpr const char* kControllerInterface = "org.SysctrlMng.interface";
constexpr size_t kLimit = SysCtrlIpc::EM_CFG_MAX_MSG_SIZE;
constexpr int kAnswerMs = 60'000;

std::string Battery(int level) {
  return R"({"Cmd":102,"Data":{"Battery":)" + std::to_string(level) + R"(},"Snr":)" + std::to_string(level) +
         "}";
}

std::string Ack(const std::string& snr) {
  return R"({"Snr":)" + snr + R"(,"Type":"ACK"})" + "\n";
}

SysCtrlIpc::Msg_t Request(size_t number) {
  SysCtrlIpc::Msg_t message;
  message.m_jsMsg["Number"] = static_cast<Json::UInt64>(number);
  message.m_emCmd = SysCtrlIpc::EM_CODE_REQ_PAIR;
  return message;
}

class SysCtrlIpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PrivateBus::Running();
    ASSERT_TRUE(CDbusHandler::instance()->Init("org.Upgread.server"));
    m_controller = std::make_unique<BusPeer>();
    m_controller->Listen(kControllerInterface);
    m_ipc->SetReports(&m_reports);
  }
  void TearDown() override {
    m_reports.Hold(false);
    m_ipc->CleanUp();
    m_ipc->SetReports(nullptr);
    CDbusHandler::instance()->CleanUp();
  }
  // A receiver that is busy with battery report 0, and an empty queue.
  void BusyReceiver() {
    ASSERT_TRUE(m_ipc->Init());
    m_reports.Hold(true);
    ASSERT_EQ(m_ipc->ProcRecvMsg(Battery(0)), "ProcUpgMsg ACK");
    ASSERT_TRUE(m_reports.WaitFor(1));
    ASSERT_EQ(Heard(1), (std::vector<std::string>{Ack("0")}));
  }
  void FillReceiveQueue() {
    for (size_t i = 1; i <= kLimit; ++i) {
      m_controller->Signal(kInterface, kMember, Battery(static_cast<int>(i)));
    }
    ASSERT_EQ(Heard(kLimit).size(), kLimit);
  }
  std::vector<std::string> Heard(size_t wanted) {
    return m_controller->Signals(kControllerInterface, wanted, kAnswerMs);
  }

  SysCtrlIpc* const m_ipc = SysCtrlIpc::instance();
  RecordedReports m_reports;
  std::unique_ptr<BusPeer> m_controller;
};

}  // namespace

TEST_F(SysCtrlIpcTest, ServesCallsAndSignalsAndEchoesAnySerialNumber) {
  ASSERT_TRUE(m_ipc->Init());
  EXPECT_FALSE(m_ipc->Init()) << "every message would come twice";
  const auto call = m_controller->Call("/org/Upgread/object", kInterface, kMember, Battery(50));
  EXPECT_EQ(m_controller->Replies(call, 1, kAnswerMs), (std::vector<std::string>{"ProcUpgMsg ACK"}));
  m_controller->Signal(kInterface, kMember, Battery(51));
  ASSERT_TRUE(m_reports.WaitFor(2));
  EXPECT_EQ(m_reports.Effects(), (std::vector<std::string>{"battery 50", "battery 51"}));
  EXPECT_EQ(Heard(1), (std::vector<std::string>{Ack("51")})) << "the first one went by with the reply";

  for (const char* snr : {R"("a")", "null", "[1,{}]", "18446744073709551615", "1.5", R"("\ud83d\ude00")"}) {
    EXPECT_EQ(m_ipc->ProcRecvMsg(std::string(R"({"Snr":)") + snr + "}"), "ProcUpgMsg ACK");
    EXPECT_EQ(Heard(1), (std::vector<std::string>{Ack(snr)}));
  }
  for (const char* noObject : {"5", "[]", "null", "{}"}) {
    EXPECT_EQ(m_ipc->ProcRecvMsg(noObject), "ProcUpgMsg ACK");
    EXPECT_EQ(Heard(1), (std::vector<std::string>{Ack("null")}));
  }
  for (const std::string& noJson :
       {std::string(), std::string("{"), std::string(100, '['), '"' + std::string(8192, 'x') + '"'}) {
    EXPECT_EQ(m_ipc->ProcRecvMsg(noJson), "Error json format");
  }
  EXPECT_EQ(m_ipc->ProcRecvMsg(Battery(52)), "ProcUpgMsg ACK");
  EXPECT_EQ(Heard(1), (std::vector<std::string>{Ack("52")})) << "nothing else was acknowledged";
}

TEST_F(SysCtrlIpcTest, MessageBeyondTheLimitIsRefusedButAcknowledged) {
  BusyReceiver();
  FillReceiveQueue();
  // By a call, which the bus thread serves once it has queued what was acknowledged before.
  BusPeer caller;
  const auto call = caller.Call("/org/Upgread/object", kInterface, kMember, Battery(2000));
  EXPECT_EQ(caller.Replies(call, 1, kAnswerMs), (std::vector<std::string>{"Out of max cache msg"}));
  EXPECT_EQ(Heard(1), (std::vector<std::string>{Ack("2000")}));
  m_reports.Hold(false);
  ASSERT_TRUE(m_reports.WaitFor(kLimit + 1));
  EXPECT_EQ(m_reports.Effects().back(), "battery 1024");
}

TEST_F(SysCtrlIpcTest, BadMessageDropsTheRestOfItsBatchOnly) {
  BusyReceiver();
  m_ipc->ProcRecvMsg(Battery(1));
  m_ipc->ProcRecvMsg(R"({"Cmd":102,"Snr":2})");
  m_ipc->ProcRecvMsg(Battery(3));
  m_reports.Hold(false);
  ASSERT_TRUE(m_reports.WaitFor(2));
  // The bad batch was taken as a whole before: this is the next one.
  m_ipc->ProcRecvMsg(Battery(4));
  ASSERT_TRUE(m_reports.WaitFor(3));
  EXPECT_EQ(m_reports.Effects()[1], "battery 1");
  EXPECT_EQ(m_reports.Effects()[2], "battery 4");
}

TEST_F(SysCtrlIpcTest, SendQueueTakesItsLimitExactlyAndSendsInOrder) {
  // Without a sender nothing leaves the queue.
  std::atomic<size_t> taken{0};
  std::vector<std::thread> callers(8);
  for (std::thread& caller : callers) {
    caller = std::thread([&] {
      for (size_t i = 0; i < kLimit / 4; ++i) taken += m_ipc->AddMsg(Request(i)) ? 1 : 0;
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(taken, kLimit);
  m_ipc->CleanUp();

  for (size_t i = 0; i < kLimit; ++i) ASSERT_TRUE(m_ipc->AddMsg(Request(i))) << i;
  ASSERT_FALSE(m_ipc->AddMsg(Request(kLimit)));
  ASSERT_TRUE(m_ipc->Init());
  const std::vector<std::string> sent = Heard(kLimit);
  ASSERT_EQ(sent.size(), kLimit);
  for (size_t i = 0; i < kLimit; ++i) {
    ASSERT_EQ(sent[i], R"({"Cmd":0,"Data":{"Number":)" + std::to_string(i) + "}}\n");
  }
}

TEST_F(SysCtrlIpcTest, StopHandlesNothingThatIsStillQueued) {
  BusyReceiver();
  FillReceiveQueue();
  std::thread stop([this] { m_ipc->CleanUp(); });
  // The sender is asked to stop after the receiver was; then the report under way may end.
  while (m_ipc->IsRunning()) std::this_thread::yield();
  m_reports.Hold(false);
  stop.join();
  ASSERT_TRUE(m_ipc->Init());
  m_ipc->ProcRecvMsg(Battery(2000));
  ASSERT_TRUE(m_reports.WaitFor(2));
  EXPECT_EQ(m_reports.Effects(), (std::vector<std::string>{"battery 0", "battery 2000"}));
}

TEST_F(SysCtrlIpcTest, MessageThatCannotBeAcknowledgedIsNotTaken) {
  ASSERT_TRUE(m_ipc->Init());
  CDbusHandler::instance()->CleanUp();
  EXPECT_EQ(m_ipc->ProcRecvMsg(Battery(1)), "Err ACK json");
  ASSERT_TRUE(CDbusHandler::instance()->Init("org.Upgread.server"));
  EXPECT_EQ(m_ipc->ProcRecvMsg(Battery(2)), "ProcUpgMsg ACK");
  ASSERT_TRUE(m_reports.WaitFor(1));
  EXPECT_EQ(m_reports.Effects(), std::vector<std::string>{"battery 2"});
}

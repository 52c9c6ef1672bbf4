// The thread that walks named states: queued states, unknown states, and the stop.
#include "BSW/StateMachine/StateMachine.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

namespace {

// Waits in "Idle", works in "Work" until told where to go, and reaches "End" only when sent there.
class Worker : public StateMachine<Worker> {
 public:
  Worker() : StateMachine("Worker", m_MapStateMachineFunc, "Idle") {}
  ~Worker() override { Stop(); }

  void Stop() { DestroyThread(true, true); }
  bool Start() {
    return _QueueFromIdle("Idle", "Work", [this] { ++accepted; });
  }

  int accepted = 0;
  std::promise<void> working;
  std::promise<std::string> next;
  std::promise<void> ended;

 private:
  std::string _Idle() {
    _WaitForQueuedState();
    return "Idle";
  }
  std::string _Work() {
    if (!m_bWorked) {
      m_bWorked = true;
      working.set_value();
      return next.get_future().get();
    }
    return "End";  // reached again because the named state was refused
  }
  std::string _End() {
    ended.set_value();
    return "Idle";
  }

  bool m_bWorked = false;
  static const Table m_MapStateMachineFunc;
};

const Worker::Table Worker::m_MapStateMachineFunc = {
    {"Idle", &Worker::_Idle}, {"Work", &Worker::_Work}, {"End", &Worker::_End}};

TEST(StateMachineTest, IsStartedFromIdleOnly) {
  Worker worker;
  EXPECT_TRUE(worker.Start());
  EXPECT_FALSE(worker.Start()) << "a state is queued already";
  ASSERT_TRUE(worker.CreateThread(0));
  worker.working.get_future().wait();
  EXPECT_FALSE(worker.Start()) << "it works";
  EXPECT_EQ(worker.accepted, 1);
  worker.next.set_value("End");
  worker.ended.get_future().wait();
}

TEST(StateMachineTest, UnknownStateIsRefusedAndTheCurrentOneRepeated) {
  Worker worker;
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(worker.CreateThread(0));
  worker.next.set_value("Nowhere");
  worker.ended.get_future().wait();
}

TEST(StateMachineTest, StopWakesTheWaitingIdleState) {
  Worker worker;
  ASSERT_TRUE(worker.CreateThread(0));
  worker.Stop();
  EXPECT_FALSE(worker.IsRunning());
}

}  // namespace

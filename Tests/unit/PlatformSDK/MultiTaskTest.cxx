// Threads that must stop at once whatever they wait for, start again, and survive a crash without being
// joined.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/MultiTask/CMsgQue.h"
#include "BSW/MultiTask/CTaskQue.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/PhyInterface/PhyInterface.h"

namespace {

constexpr uint32_t kForEverMs = 60'000;

class BodyThread : public CThread {
 public:
  explicit BodyThread(std::function<void(BodyThread&)> body)
      : CThread("BodyThread"), m_body(std::move(body)) {}
  ~BodyThread() override { DestroyThread(true, true); }

 protected:
  void ThreadProc() override { m_body(*this); }

 private:
  std::function<void(BodyThread&)> m_body;
};

// True when `action` takes less than half of a pause "for ever".
bool EndsSoon(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::steady_clock::now() - start < std::chrono::milliseconds(kForEverMs / 2);
}

}  // namespace

TEST(CThread, PausesEndAtTheStopAndTheThreadStartsAgain) {
  std::atomic<int> fullPauses{0};
  std::atomic<int> cutPauses{0};
  std::atomic<bool> stopSeen{false};
  BodyThread thread([&](BodyThread& /*self*/) {
    fullPauses += CThread::Pause(1) ? 1 : 0;  // a restart must not inherit the earlier stop
    for (int i = 0; i < 3; ++i) cutPauses += CThread::Pause(kForEverMs) ? 0 : 1;
    stopSeen = CThread::StopRequested();
  });
  for (int run = 1; run <= 2; ++run) {
    ASSERT_TRUE(thread.CreateThread(0));
    EXPECT_FALSE(thread.CreateThread(0));
    while (fullPauses < run) XSleep(1);
    EXPECT_TRUE(EndsSoon([&] { EXPECT_TRUE(thread.DestroyThread(true, true)); }));
    EXPECT_EQ(cutPauses, 3 * run);
    EXPECT_TRUE(stopSeen);
  }
  EXPECT_TRUE(thread.DestroyThread(true, true));
  EXPECT_TRUE(CThread::Pause(1));
  EXPECT_FALSE(CThread::StopRequested());
}

TEST(CThread, RefusesToJoinItself) {
  std::atomic<bool> joined{true};
  BodyThread thread([&](BodyThread& self) { joined = self.DestroyThread(true, true); });
  ASSERT_TRUE(thread.CreateThread(1));
  EXPECT_TRUE(thread.DestroyThread(false, true));
  EXPECT_FALSE(joined);
}

TEST(CThread, IsNotJoinedAfterACrash) {
  // In a process of its own: threads of other tests' singletons may run in this one.
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        auto* thread =
            new BodyThread([](BodyThread& /*self*/) { XSleep(kForEverMs); });  // never freed either
        const bool started = thread->CreateThread(0);
        CThread::MarkCrashed();
        _exit(started && thread->DestroyThread(true, true) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(CTaskQue, RunsTasksInOrderUntilItIsStopped) {
  std::vector<int> done;
  std::atomic<bool> pausing{false};
  CTaskQue tasks("tasks");
  for (int i = 0; i < 50; ++i) EXPECT_TRUE(tasks.Post([i, &done] { done.push_back(i); }));
  EXPECT_TRUE(tasks.Post([&pausing] {
    pausing = true;
    CThread::Pause(kForEverMs);
  }));
  EXPECT_TRUE(tasks.Post([&done] { done.push_back(-1); }));
  while (!pausing) XSleep(1);
  EXPECT_TRUE(EndsSoon([&tasks] { tasks.DestroyThread(true, true); }));
  EXPECT_FALSE(tasks.Post([] {}));
  ASSERT_EQ(done.size(), 50U);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(done[static_cast<size_t>(i)], i);
}

TEST(CTaskQue, StopEndsAFirstTaskThatIsPostedMeanwhile) {
  for (int run = 0; run < 5000; ++run) {
    CTaskQue tasks("tasks");
    std::thread poster([&tasks] { tasks.Post([] { CThread::Pause(kForEverMs); }); });
    EXPECT_TRUE(EndsSoon([&tasks] { tasks.DestroyThread(true, true); }));
    poster.join();
  }
}

TEST(CMsgQue, IsBoundedAndEndsItsWaitersWhenClosed) {
  CMsgQue<int> queue(2);
  EXPECT_TRUE(queue.Push(1) && queue.Push(2));
  EXPECT_FALSE(queue.Push(3));
  EXPECT_EQ(queue.Take(), 1);
  EXPECT_EQ(queue.Take(), 2);
  std::thread waiter([&queue] { EXPECT_EQ(queue.Take(), std::nullopt); });
  queue.Close();
  waiter.join();
  EXPECT_FALSE(queue.Push(4));
}

TEST(PhyInterface, StopsWhileNothingHappensAndStartsAgain) {
  PhyInterface* const monitor = PhyInterface::instance();
  for (int run = 0; run < 2; ++run) {
    ASSERT_TRUE(monitor->Init());
    EXPECT_TRUE(EndsSoon([monitor] { EXPECT_TRUE(monitor->CleanUp()); }));
  }
  EXPECT_FALSE(monitor->UnRegisterInterface("/dev/sd.*"));
}

// Priority and preemption-threshold services.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using PriorityTest = KernelTest;

int NiceOf(pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }

TEST_F(PriorityTest, RefusalsComeInOrderAndChangeNothing) {
  LX_THREAD* self = _lx_ThreadIdentify();
  LX_THREAD empty = nullptr;
  const int nice = NiceOf(gettid());
  struct Case { LX_THREAD* handle; uint16_t value; bool output; LX_STATUS priority, threshold; };
  const Case cases[] = {{nullptr, 33, false, LX_THREAD_ERROR, LX_THREAD_ERROR},
                        {&empty, 33, false, LX_THREAD_ERROR, LX_THREAD_ERROR},
                        {self, 33, false, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
                        {self, 33, true, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
                        {self, 32, false, LX_PTR_ERROR, LX_PTR_ERROR}};
  for (const Case& c : cases) {
    uint16_t old = 0xBEEF;
    EXPECT_EQ(_lx_ThreadPriorityChange(c.handle, c.value, c.output ? &old : nullptr), c.priority) << c.value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(c.handle, c.value, c.output ? &old : nullptr), c.threshold) << c.value;
    EXPECT_EQ(old, 0xBEEF);
  }
  EXPECT_EQ((*self)->u16Priority, 0);
  EXPECT_EQ((*self)->u16PreemptThreshold, 0);
  EXPECT_EQ(NiceOf(gettid()), nice);
}

TEST_F(PriorityTest, OnlyPriority32IsAcceptedUnderTheNormalPolicy) {
  LX_THREAD* self = _lx_ThreadIdentify();  // "Scheduler": priority 0 recorded, normal policy
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 10, &old), LX_CALLER_ERROR);
  EXPECT_EQ(old, 32);  // written before the platform refused
  EXPECT_EQ((*self)->u16Priority, 0);
  old = 0;
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &old), LX_SUCCESS);
  EXPECT_EQ(old, 32);
  EXPECT_EQ((*self)->u16Priority, 32);
  // A real-time static priority s reads back as 32 - s / 2, and the change returns the thread to the normal policy.
  for (auto [staticPriority, readBack] : {std::pair{10, 27}, {1, 32}, {63, 1}}) {
    sched_param fifo{};
    fifo.sched_priority = staticPriority;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo) != 0) GTEST_SKIP() << "no real-time scheduling here";
    EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &old), LX_SUCCESS);
    EXPECT_EQ(old, readBack) << "static priority " << staticPriority;
    int policy = -1;
    sched_param now{};
    pthread_getschedparam(pthread_self(), &policy, &now);
    EXPECT_EQ(policy, SCHED_OTHER);
    EXPECT_EQ(now.sched_priority, 0);
  }
}

TEST_F(PriorityTest, ThresholdAddsItsNiceIncrementToTheCallerAndRecordsIt) {
  static LX_THREAD handle = nullptr;
  static std::atomic<bool> done{false};
  ASSERT_EQ(Spawn(&handle, "nice", [] {  // a thread of its own, so the test's thread keeps its nice value
    const int base = NiceOf(gettid());
    int total = 0;
    uint16_t previous = 0;
    for (auto [threshold, increment] : {std::pair{0, 0}, {2, 0}, {3, 2}, {5, 2}, {6, 4}, {8, 4}, {31, 20}, {32, 20}}) {
      uint16_t old = 0xBEEF;
      EXPECT_EQ(_lx_ThreadPreemptionChange(&handle, threshold, &old), LX_SUCCESS);
      EXPECT_EQ(old, previous) << threshold;
      EXPECT_EQ(handle->u16PreemptThreshold, increment) << threshold;
      total += increment;
      EXPECT_EQ(NiceOf(gettid()), std::min(base + total, 19)) << threshold;
      previous = static_cast<uint16_t>(increment);
    }
    done = true;
  }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return done.load(); }));
}

TEST_F(PriorityTest, ThresholdOfAnotherThreadGoesToThatThread) {
  const int mine = NiceOf(gettid());
  static LX_THREAD started = nullptr, waiting = nullptr;
  static std::atomic<pid_t> tids[2] = {0, 0};
  static std::atomic<bool> release{false};
  struct Release { ~Release() { release = true; } } releaseAtEnd;
  for (int i : {0, 1}) {
    ASSERT_EQ(Spawn(i == 0 ? &started : &waiting, "other", [i] {
      tids[i] = gettid();
      WaitUntil([] { return release.load(); }, 60s);
    }, 32, 7, i == 0 ? 1 : 0), LX_SUCCESS);
  }
  ASSERT_TRUE(WaitUntil([] { return tids[0] != 0 && LoadState(*waiting) == LX_STATE_SUSPENDED; }));
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPreemptionChange(&started, 3, &old), LX_SUCCESS);
  EXPECT_EQ(old, 4);  // the increment its start applied for threshold 7
  EXPECT_EQ(started->u16PreemptThreshold, 2);
  EXPECT_EQ(NiceOf(tids[0]), std::min(mine + 4 + 2, 19));
  // Not started yet: the threshold is stored and applied by the thread itself.
  EXPECT_EQ(_lx_ThreadPreemptionChange(&waiting, 9, &old), LX_SUCCESS);
  EXPECT_EQ(old, 7);
  EXPECT_EQ(LoadRelaxed(waiting->u16PreemptThreshold), 9);
  EXPECT_EQ(NiceOf(gettid()), mine);
  ASSERT_EQ(pthread_kill(waiting->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([] { return tids[1] != 0; }));
  EXPECT_EQ(NiceOf(tids[1]), std::min(mine + 6, 19));
  EXPECT_EQ(waiting->u16PreemptThreshold, 6);
}

TEST_F(PriorityTest, TimerThreadMayChangeNeitherAndKeepsItsInheritedNice) {
  const int creator = NiceOf(gettid());
  static std::atomic<bool> done{false};
  static int nice = 0;
  static uint16_t threshold = 0, old = 0xBEEF;
  static LX_STATUS statuses[4] = {};
  ASSERT_EQ(Spawn(G_psTimer, "TimerISR", [] {
    nice = NiceOf(gettid());
    threshold = (*G_psTimer)->u16PreemptThreshold;
    statuses[0] = _lx_ThreadPriorityChange(G_psTimer, 32, &old);
    statuses[1] = _lx_ThreadPreemptionChange(G_psTimer, 7, &old);
    statuses[2] = _lx_ThreadPriorityChange(&S_psScheduler, 32, &old);
    statuses[3] = _lx_ThreadPreemptionChange(&S_psScheduler, 7, &old);
    done = true;
  }, 32, 7), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return done.load(); }));
  EXPECT_EQ(nice, creator);
  EXPECT_EQ(threshold, 7);  // the start's threshold change was refused too
  for (LX_STATUS status : statuses) EXPECT_EQ(status, LX_CALLER_ERROR);
  EXPECT_EQ(old, 0xBEEF);
  EXPECT_EQ(S_psScheduler->u16Priority, 0);
  EXPECT_EQ(NiceOf(gettid()), creator);
}

}  // namespace
}  // namespace quorvin::test

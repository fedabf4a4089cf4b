// Priority and preemption-threshold services.
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include <gmock/gmock.h>

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
  uint16_t old = 0xBEEF;
  struct Case { LX_THREAD* handle; uint16_t value; uint16_t* output; LX_STATUS priority, threshold; };
  for (const Case& c : {Case{nullptr, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
                        Case{&empty, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
                        Case{self, 33, nullptr, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
                        Case{self, 33, &old, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
                        Case{self, 32, nullptr, LX_PTR_ERROR, LX_PTR_ERROR}}) {
    EXPECT_EQ(_lx_ThreadPriorityChange(c.handle, c.value, c.output), c.priority) << c.value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(c.handle, c.value, c.output), c.threshold) << c.value;
  }
  EXPECT_EQ(old, 0xBEEF);
  EXPECT_EQ((*self)->u16Priority, 0);
  EXPECT_EQ((*self)->u16PreemptThreshold, 0);
}

TEST_F(PriorityTest, OnlyPriority32IsAcceptedAndTheOldOneIsReadFromTheTarget) {
  LX_THREAD* self = _lx_ThreadIdentify();  // "Scheduler": priority 0 recorded, normal policy
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 10, &old), LX_CALLER_ERROR);
  EXPECT_EQ(old, 32);  // written before the platform refused
  EXPECT_EQ((*self)->u16Priority, 0);
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &(old = 0)), LX_SUCCESS);
  EXPECT_EQ(old, 32);
  EXPECT_EQ((*self)->u16Priority, 32);
  // Another thread's static priority s reads back as 32 - s / 2; the change returns it to the normal policy.
  static LX_THREAD parked = nullptr;
  ASSERT_EQ(Spawn(&parked, "parked", [] {}, 32, 0, 0), LX_SUCCESS);
  for (auto [staticPriority, readBack] : {std::pair{10, 27}, {1, 32}, {63, 1}}) {
    sched_param parameters{.sched_priority = staticPriority};
    if (pthread_setschedparam(parked->hThread, SCHED_FIFO, &parameters) != 0) GTEST_SKIP() << "no SCHED_FIFO";
    EXPECT_EQ(_lx_ThreadPriorityChange(&parked, 32, &old), LX_SUCCESS);
    EXPECT_EQ(old, readBack) << staticPriority;
    int policy = -1;
    pthread_getschedparam(parked->hThread, &policy, &parameters);
    EXPECT_EQ(policy, SCHED_OTHER);
  }
}

TEST_F(PriorityTest, ThresholdGoesToTheTargetsNiceOrIsAppliedAtItsStartBeforeTheEntry) {
  const int mine = NiceOf(gettid());
  static LX_THREAD handles[2] = {};  // started at once; waiting for its first resume
  static std::atomic<pid_t> tid{0};
  static std::atomic<int> niceAtEntry{-100};
  static uint16_t thresholdAtEntry = 0, priorityAtEntry = 0;
  static std::atomic<bool> release{false};
  struct Release { ~Release() { release = true; } } releaseAtEnd;
  ASSERT_EQ(Spawn(&handles[0], "self", [] {
    const int base = NiceOf(gettid());  // on itself: through its own nice value, accumulating
    int total = 0, previous = 0;
    for (auto [threshold, increment] : {std::pair{0, 0}, {2, 0}, {3, 2}, {5, 2}, {6, 4}, {8, 4}}) {
      uint16_t old = 0xBEEF;
      EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], threshold, &old), LX_SUCCESS);
      EXPECT_EQ(old, std::exchange(previous, increment)) << threshold;
      EXPECT_EQ(handles[0]->u16PreemptThreshold, increment) << threshold;
      EXPECT_EQ(NiceOf(gettid()), std::min(base + (total += increment), 19)) << threshold;
    }
    tid = gettid();
    WaitUntil([] { return release.load(); }, 60s);
  }), LX_SUCCESS);
  // Threshold 7 may equal the priority; priority 7 is refused by the platform, and the entry runs all the same.
  ASSERT_EQ(Spawn(&handles[1], "waiting", [] {
    thresholdAtEntry = LoadRelaxed(handles[1]->u16PreemptThreshold);
    priorityAtEntry = LoadRelaxed(handles[1]->u16Priority);
    niceAtEntry = NiceOf(gettid());
  }, 7, 7, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return tid != 0 && LoadState(*handles[1]) == LX_STATE_SUSPENDED; }));
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], 31, &old), LX_SUCCESS);
  EXPECT_EQ(old, 4);
  EXPECT_EQ(handles[0]->u16PreemptThreshold, 20);
  EXPECT_EQ(NiceOf(tid), std::min(mine + 12 + 20, 19));
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[1], 9, &old), LX_SUCCESS);
  EXPECT_EQ(old, 7);  // as created: nothing is applied before the first resume
  EXPECT_EQ(LoadRelaxed(handles[1]->u16PreemptThreshold), 9);
  EXPECT_EQ(NiceOf(gettid()), mine);
  ASSERT_EQ(pthread_kill(handles[1]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([] { return niceAtEntry != -100; }));
  EXPECT_EQ(niceAtEntry, std::min(mine + 6, 19));
  EXPECT_EQ(thresholdAtEntry, 6);
  EXPECT_EQ(priorityAtEntry, 7);
}

TEST_F(PriorityTest, TimerThreadMayChangeNeither) {
  static std::atomic<bool> done{false};
  static uint16_t old = 0xBEEF;
  static LX_STATUS statuses[3] = {};
  ASSERT_EQ(Spawn(G_psTimer, "TimerISR", [] {
    statuses[0] = _lx_ThreadPriorityChange(G_psTimer, 32, &old);
    statuses[1] = _lx_ThreadPreemptionChange(G_psTimer, 7, &old);
    statuses[2] = _lx_ThreadPreemptionChange(&S_psScheduler, 7, &old);
    done = true;
  }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return done.load(); }));
  EXPECT_THAT(statuses, ::testing::Each(LX_CALLER_ERROR));
  EXPECT_EQ(old, 0xBEEF);
  EXPECT_EQ(S_psScheduler->u16PreemptThreshold, 0);
}

}  // namespace
}  // namespace quorvin::test

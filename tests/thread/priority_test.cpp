// Priority and preemption-threshold services.
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using PriorityTest = KernelTest;

int NiceOf(pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }

TEST_F(PriorityTest, RefusalsComeInOrderChangeNothingAndOnlyPriority32IsAccepted) {
  LX_THREAD* self = _lx_ThreadIdentify();  // "Scheduler": priority 0 recorded, normal policy
  LX_THREAD empty = nullptr;
  uint16_t old = 0xBEEF;
  for (auto [handle, value, output, priority, threshold] :
       {std::tuple{(LX_THREAD*)nullptr, 33, (uint16_t*)nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
        {&empty, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR}, {self, 33, &old, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
        {self, 33, nullptr, LX_PRIORITY_ERROR, LX_THRESH_ERROR}, {self, 32, nullptr, LX_PTR_ERROR, LX_PTR_ERROR}}) {
    EXPECT_EQ(_lx_ThreadPriorityChange(handle, value, output), priority) << value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(handle, value, output), threshold) << value;
  }
  std::vector<LX_STATUS> statuses;
  Timer().Run([&] {
    statuses = {_lx_ThreadPriorityChange(G_psTimer, 32, &old), _lx_ThreadPreemptionChange(G_psTimer, 7, &old),
                _lx_ThreadPreemptionChange(self, 7, &old)};
  });
  EXPECT_EQ(statuses, std::vector<LX_STATUS>(3, LX_CALLER_ERROR));
  EXPECT_EQ(old, 0xBEEF);
  EXPECT_EQ((*self)->u16PreemptThreshold, 0);
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 10, &old), LX_CALLER_ERROR);
  EXPECT_EQ(old, 32);  // written before the platform refused
  EXPECT_EQ((*self)->u16Priority, 0);
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &(old = 0)), LX_SUCCESS);
  EXPECT_EQ(old, 32);
  EXPECT_EQ((*self)->u16Priority, 32);
  // Another thread's static priority s reads back as 32 - s / 2; the change returns it to the normal policy.
  static LX_THREAD parked = nullptr;
  ASSERT_EQ(Spawn(&parked, "parked", [] {}, 32, 0, 0), LX_SUCCESS);
  for (auto [staticPriority, readBack] : {std::pair{10, 27}, {63, 1}}) {
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
  static LX_THREAD handles[2] = {};  // started at once; waiting for its first resume (threshold 7 = priority)
  static std::atomic<pid_t> tid{0};
  static std::atomic<int> niceAtEntry{-100};
  static uint16_t thresholdAtEntry = 0, priorityAtEntry = 0;
  static std::atomic<bool> release{false};
  struct Release { ~Release() { release = true; } } releaseAtEnd;
  ASSERT_EQ(Spawn(&handles[0], "self", [] {
    const int base = NiceOf(gettid());  // on itself: through its own nice value, accumulating
    int total = 0, previous = 0;
    for (auto [threshold, increment] : {std::pair{3, 2}, {8, 4}}) {
      uint16_t old = 0xBEEF;
      EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], threshold, &old), LX_SUCCESS);
      EXPECT_EQ(old, std::exchange(previous, increment)) << threshold;
      EXPECT_EQ(NiceOf(gettid()), std::min(base + (total += increment), 19)) << threshold;
    }
    tid = gettid();
    WaitUntil([] { return release.load(); }, 60s);
  }), LX_SUCCESS);
  ASSERT_EQ(Spawn(&handles[1], "waiting", [] {
    thresholdAtEntry = Peek(handles[1]->u16PreemptThreshold);
    priorityAtEntry = Peek(handles[1]->u16Priority);
    niceAtEntry = NiceOf(gettid());
  }, 7, 7, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return tid != 0 && StateOf(handles[1]) == LX_STATE_SUSPENDED; }));
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], 31, &old), LX_SUCCESS);
  EXPECT_EQ(old, 4);
  EXPECT_EQ(Peek(handles[0]->u16PreemptThreshold), 20);
  EXPECT_EQ(NiceOf(tid), std::min(mine + 6 + 20, 19));
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[1], 9, &old), LX_SUCCESS);
  EXPECT_EQ(old, 7);  // as created: nothing is applied before the first resume
  EXPECT_EQ(NiceOf(gettid()), mine);
  ASSERT_EQ(pthread_kill(handles[1]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([] { return niceAtEntry != -100; }));
  EXPECT_EQ(niceAtEntry, std::min(mine + 6, 19));
  EXPECT_EQ(thresholdAtEntry, 6);
  EXPECT_EQ(priorityAtEntry, 7);
}

}  // namespace
}  // namespace quorvin::test

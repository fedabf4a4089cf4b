// Thread creation and start (checks, registration, pool limit, pid list, first resume, hold-back), and the
// priority and preemption-threshold services.
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ::testing::Contains;
using CreateTest = KernelTest;
using PriorityTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
bool Listed(const std::string& prefix) {
  return std::ranges::any_of(PidListLines(), [&](const std::string& line) { return line.starts_with(prefix); });
}

TEST_F(CreateTest, RefusalsFollowTheCheckOrderAndChangeNothing) {
  static LX_THREAD registered = nullptr, fresh = nullptr;
  ASSERT_EQ(Spawn(&registered, "registered", [] {}, 32, 0, 0), LX_SUCCESS);
  ThreadControlBlock* const first = registered;
  const int32_t count = S_i32ThreadPoolIndex;
  // Each row also fails every later check; a registered handle is found before the entry is checked.
  for (auto [handle, entry, priority, threshold, start, status] :
       {std::tuple{&fresh, &Noop, 5, 6, 1, LX_THRESH_ERROR}, {&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR},
        {&registered, nullptr, 5, 6, 1, LX_THREAD_ERROR}, {&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY},
        {&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR}, {nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR}}) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(handle, "x", entry, 0, nullptr, 0, priority, threshold, 0, start), status);
    EXPECT_EQ(S_i32ThreadPoolIndex, count);
    EXPECT_EQ(S_paThreadPool[count], nullptr);
    EXPECT_TRUE(fresh == kUntouched && registered == first);
  }
}

TEST_F(CreateTest, PoolRegistersAndLists48ThreadsThatWaitForSignal10Or14) {
  EXPECT_EQ(_lx_ThreadIdentify(), &S_psScheduler);
  static LX_THREAD handles[49] = {};
  static std::atomic<LX_THREAD*> self[48] = {};
  static std::atomic<pid_t> tid{0};
  static char kernelName[16] = {};
  const LX_THREAD_ENTRY observe = [](uint64_t i) -> void* {
    if (i == 0) ::prctl(PR_GET_NAME, kernelName), tid = gettid();
    self[i] = _lx_ThreadIdentify();
    return nullptr;
  };
  const auto ran = [](bool yes) { return std::ranges::all_of(self, [&](auto& s) { return (s != nullptr) == yes; }); };
  ASSERT_EQ(_lx_ThreadCreate(&handles[0], "ABCDEFGHIJKLMNOPQRSTUVWXY", observe, 0, nullptr, 0, 32, 0, 0x12345, 0), 0);
  for (uint64_t i = 1; i < 48; ++i)
    ASSERT_EQ(_lx_ThreadCreate(&handles[i], i == 1 ? nullptr : "p", observe, i, nullptr, 0, 32, 0, 0, 0), 0) << i;
  handles[48] = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&handles[48], "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_EQ(S_i32ThreadPoolIndex, 49);
  EXPECT_EQ(S_paThreadPool[49], nullptr);
  EXPECT_EQ(handles[48], kUntouched);
  EXPECT_EQ(handles[47]->u32PoolIndex, 48u);
  EXPECT_EQ(handles[0]->u16TimeSlice, 0x2345);  // low 16 bits, not validated
  EXPECT_STREQ(handles[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_STREQ(handles[1]->acName, "");
  const auto all = [](uint16_t state) {
    return std::all_of(handles, handles + 48, [&](LX_THREAD h) { return StateOf(h) == state; });
  };
  ASSERT_TRUE(WaitUntil([&] { return all(LX_STATE_SUSPENDED); }));
  EXPECT_TRUE(ran(false));
  for (int i = 0; i < 48; ++i) ASSERT_EQ(pthread_kill(handles[i]->hThread, i % 2 ? SIGALRM : SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return ran(true); }));
  EXPECT_TRUE(all(LX_STATE_READY));
  for (int i = 0; i < 48; ++i) EXPECT_EQ(self[i], &handles[i]) << i;
  EXPECT_STREQ(kernelName, "ABCDEFGHIJKLMNO");
  EXPECT_THAT(PidListLines(), Contains("Name: ABCDEFGHIJKLMNOPQRS, pid:" + std::to_string(tid)));
  EXPECT_TRUE(Listed("Name: , pid:"));
  EXPECT_FALSE(Listed("Name: Scheduler"));  // the start-up thread lists itself only as the tick thread
}

TEST_F(CreateTest, ThreadLockHoldsThreadsBackAndAnEarlyResumeIsKept) {
  struct Clear { ~Clear() { StoreRelaxed(G_u8ThreadLock, uint8_t{0}); } } clear;
  StoreRelaxed(G_u8ThreadLock, uint8_t{1});
  static LX_THREAD running = nullptr, parked = nullptr;
  static std::atomic<bool> ran[2] = {false, false};
  uint8_t last = LoadRelaxed(S_u8ThreadLockSpin);
  int moves = 0;
  const auto spinning = [&](int times) {  // the shared back-off counter keeps moving while threads hold back
    return WaitUntil([&] {
      const uint8_t now = LoadRelaxed(S_u8ThreadLockSpin);
      return (moves += now != std::exchange(last, now)) >= times;
    });
  };
  ASSERT_EQ(Spawn(&running, "held", [] { ran[0] = true; }), LX_SUCCESS);
  ASSERT_TRUE(spinning(5));
  ASSERT_EQ(Spawn(&parked, "early", [] { ran[1] = true; }, 32, 0, 0), LX_SUCCESS);  // not held up by "held"
  ASSERT_EQ(pthread_kill(parked->hThread, SIGUSR1), 0);  // before it can reach its wait
  ASSERT_TRUE(WaitUntil([] { return Listed("Name: early,"); }) && spinning(15));
  EXPECT_FALSE(ran[0] || ran[1]);
  EXPECT_EQ(StateOf(parked), LX_STATE_READY);  // has not reached its first-resume wait
  StoreRelaxed(G_u8ThreadLock, uint8_t{0});
  ASSERT_TRUE(WaitUntil([] { return ran[0] && ran[1]; }));
}

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

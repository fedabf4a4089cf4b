// Thread creation and start: checks, registration, pool limits, start order,
// first resume, hold-back, start values, suspension by signal 12.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;
using CreateTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
int NiceOf(pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }
uint16_t StateOf(LX_THREAD* handle) { return LoadState(**handle); }
std::string Line(const std::string& name, pid_t tid) { return "Name: " + name + ", pid:" + std::to_string(tid); }

// What /proc shows of a thread: the system call it is blocked in (-1 while
// running) and whether a signal is pending for it.
long BlockedIn(pid_t tid) {
  std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/syscall");
  long number = -1;
  return (file >> number) ? number : -1;
}
bool Pending(pid_t tid, int signal) {
  std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("SigPnd:", 0) == 0) return (std::stoull(line.substr(7), nullptr, 16) >> (signal - 1)) & 1;
  }
  return false;
}

TEST_F(CreateTest, RefusalsFollowTheCheckOrderAndChangeNothing) {
  static LX_THREAD registered = nullptr, fresh = nullptr;
  ASSERT_EQ(Spawn(&registered, "registered", [] {}, 32, 0, 0), LX_SUCCESS);
  ThreadControlBlock* const first = registered;
  const int32_t count = S_i32ThreadPoolIndex;
  struct Case { LX_THREAD* handle; LX_THREAD_ENTRY entry; uint16_t priority, threshold, autoStart; LX_STATUS status; };
  const Case cases[] = {
      {nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR},  // each row also fails every later check
      {&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR},
      {&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY},
      {&registered, nullptr, 5, 6, 1, LX_THREAD_ERROR},  // registered handle found before the entry check
      {&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR},
      {&fresh, Noop, 5, 6, 1, LX_THRESH_ERROR},
  };
  for (const Case& c : cases) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(c.handle, "x", c.entry, 0, nullptr, 0, c.priority, c.threshold, 0, c.autoStart),
              c.status) << "priority " << c.priority << " auto-start " << c.autoStart;
    EXPECT_EQ(S_i32ThreadPoolIndex, count);
    EXPECT_EQ(S_paThreadPool[count], nullptr);
    EXPECT_EQ(fresh, kUntouched);
    EXPECT_EQ(registered, first);
  }
  EXPECT_STREQ(first->acName, "registered");
  EXPECT_EQ(first->psSelf, &registered);
  static LX_THREAD below = nullptr, equal = nullptr;  // threshold may not exceed the priority; equal is fine
  EXPECT_EQ(_lx_ThreadCreate(&below, "below", Noop, 0, nullptr, 0, 6, 5, 0, 1), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadCreate(&equal, "equal", Noop, 0, nullptr, 0, 5, 5, 0, 1), LX_SUCCESS);
  EXPECT_EQ(S_i32ThreadPoolIndex, count + 2);
}

TEST_F(CreateTest, RegistrationFillsTheBlockAndTheThreadWaitsForItsFirstResume) {
  static LX_THREAD handle = nullptr;
  const int32_t count = S_i32ThreadPoolIndex;
  ASSERT_EQ(_lx_ThreadCreate(&handle, "ABCDEFGHIJKLMNOPQRSTUVWXY", Noop, 0xABCDEF0123u, nullptr, 0, 20, 10,
                             0x12345, 0), LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 1);
  ASSERT_EQ(S_paThreadPool[count], handle);
  EXPECT_EQ(S_paThreadPool[count + 1], nullptr);
  const ThreadControlBlock& tcb = *handle;
  EXPECT_STREQ(tcb.acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(tcb.psSelf, &handle);
  EXPECT_EQ(tcb.u32PoolIndex, static_cast<uint32_t>(count));
  EXPECT_EQ(tcb.pfnEntry, &Noop);
  EXPECT_EQ(tcb.u64EntryInput, 0xABCDEF0123u);
  EXPECT_EQ(tcb.u16TimeSlice, 0x2345);  // low 16 bits, not validated
  EXPECT_EQ(tcb.u16Priority, 20);
  ASSERT_TRUE(WaitUntil([&] { return StateOf(&handle) == LX_STATE_SUSPENDED; }));
  EXPECT_EQ(LoadRelaxed(tcb.u16PreemptThreshold), 10);  // not applied before the first resume
}

TEST_F(CreateTest, ThreadsIdentifyThemselvesAndListTheirKernelTid) {
  EXPECT_EQ(_lx_ThreadIdentify(), &S_psScheduler);
  EXPECT_STREQ(S_paThreadPool[0]->acName, "Scheduler");
  static LX_THREAD named = nullptr, unnamed = nullptr;
  struct Seen { std::atomic<pid_t> tid{0}; LX_THREAD* self = nullptr; char kernelName[16] = {}; } seen[2];
  auto observe = [](Seen& s) {
    return [&s] { s.self = _lx_ThreadIdentify(); ::prctl(PR_GET_NAME, s.kernelName); s.tid = gettid(); };
  };
  ASSERT_EQ(Spawn(&named, "ABCDEFGHIJKLMNOPQRSTUVWXY", observe(seen[0])), LX_SUCCESS);
  ASSERT_EQ(Spawn(&unnamed, nullptr, observe(seen[1])), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return seen[0].tid != 0 && seen[1].tid != 0; }));
  EXPECT_EQ(seen[0].self, &named);
  EXPECT_EQ(seen[1].self, &unnamed);
  EXPECT_STREQ(seen[0].kernelName, "ABCDEFGHIJKLMNO");
  EXPECT_STREQ(unnamed->acName, "");
  const auto lines = PidListLines();
  EXPECT_THAT(lines, Contains(Line("ABCDEFGHIJKLMNOPQRS", seen[0].tid)));
  EXPECT_THAT(lines, Contains(Line("", seen[1].tid)));
  EXPECT_THAT(lines, Not(Contains(StartsWith("Name: Scheduler"))));
  LX_THREAD* outsider = &named;
  std::thread([&] { outsider = _lx_ThreadIdentify(); }).join();
  EXPECT_EQ(outsider, nullptr);
}

TEST_F(CreateTest, FirstResumeIsSignal10Or14SentToThatThread) {
  static LX_THREAD handles[2] = {};
  std::atomic<int> ran[2] = {0, 0};
  for (int i : {0, 1}) ASSERT_EQ(Spawn(&handles[i], "parked", [&ran, i] { ++ran[i]; }, 32, 0, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return StateOf(&handles[0]) == 3 && StateOf(&handles[1]) == 3; }));
  EXPECT_EQ(ran[0] + ran[1], 0);
  ASSERT_EQ(pthread_kill(handles[0]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return ran[0] == 1; }));
  EXPECT_EQ(StateOf(&handles[0]), LX_STATE_READY);
  EXPECT_EQ(StateOf(&handles[1]), LX_STATE_SUSPENDED);
  ASSERT_EQ(pthread_kill(handles[1]->hThread, SIGALRM), 0);
  ASSERT_TRUE(WaitUntil([&] { return ran[1] == 1; }));
  EXPECT_EQ(StateOf(&handles[1]), LX_STATE_READY);
}

TEST_F(CreateTest, ThreadLockHoldsThreadsBackAndKeepsAnEarlyResume) {
  struct Clear { ~Clear() { StoreRelaxed(G_u8ThreadLock, uint8_t{0}); } } clear;
  StoreRelaxed(G_u8ThreadLock, uint8_t{1});
  static LX_THREAD running = nullptr, parked = nullptr;
  std::atomic<bool> ran[2] = {false, false};
  ASSERT_EQ(Spawn(&running, "held", [&] { ran[0] = true; }), LX_SUCCESS);
  ASSERT_EQ(Spawn(&parked, "early", [&] { ran[1] = true; }, 32, 0, 0), LX_SUCCESS);  // not held up by "held"
  ASSERT_EQ(pthread_kill(parked->hThread, SIGUSR1), 0);  // before it can reach its wait
  // Both have started; the shared back-off counter keeps moving while they spin.
  uint8_t last = LoadRelaxed(S_u8ThreadLockSpin);
  int moves = 0;
  ASSERT_TRUE(WaitUntil([&] {
    const uint8_t now = LoadRelaxed(S_u8ThreadLockSpin);
    moves += now != last;
    last = now;
    const auto lines = PidListLines();
    return moves >= 10 && std::ranges::count_if(lines, [](auto& l) { return l.starts_with("Name: held,") ||
                                                                           l.starts_with("Name: early,"); }) == 2;
  }));
  EXPECT_FALSE(ran[0] || ran[1]);
  EXPECT_EQ(StateOf(&parked), LX_STATE_READY);  // has not reached its first-resume wait
  StoreRelaxed(G_u8ThreadLock, uint8_t{0});
  ASSERT_TRUE(WaitUntil([&] { return ran[0] && ran[1]; }));
}

TEST_F(CreateTest, PoolTakes48ThreadsBesideTheSchedulerParkedBeforeAnyResume) {
  static LX_THREAD handles[49] = {};
  std::atomic<int> started{0};
  for (int i = 0; i < 48; ++i) ASSERT_EQ(Spawn(&handles[i], "parked", [&] { ++started; }, 32, 0, 0), LX_SUCCESS) << i;
  ASSERT_EQ(S_i32ThreadPoolIndex, 49);
  handles[48] = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&handles[48], "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_EQ(S_i32ThreadPoolIndex, 49);
  EXPECT_EQ(S_paThreadPool[49], nullptr);
  EXPECT_EQ(handles[48], kUntouched);
  for (int i = 0; i < 48; ++i) {
    EXPECT_EQ(S_paThreadPool[i + 1], handles[i]);
    EXPECT_EQ(handles[i]->u32PoolIndex, i + 1u);
  }
  ASSERT_TRUE(WaitUntil([&] { return std::all_of(handles, handles + 48, [](auto& h) { return StateOf(&h) == 3; }); }));
  EXPECT_EQ(started, 0);
  for (int i = 0; i < 48; ++i) ASSERT_EQ(pthread_kill(handles[i]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return started == 48; }));
  EXPECT_EQ(_lx_ThreadIdentify(), &S_psScheduler);
}

TEST_F(CreateTest, ThresholdAndPriorityAreAppliedBeforeTheEntry) {
  const int creatorNice = NiceOf(gettid());
  struct Start { uint16_t priority, threshold, autoStart, increment; };
  // Priority 10 is refused by the platform under the normal policy; the entry runs all the same.
  const Start starts[] = {{32, 7, 1, 4}, {10, 2, 1, 0}, {32, 32, 0, 20}};
  static LX_THREAD handles[3] = {};
  struct Seen { std::atomic<bool> done{false}; int nice = 0; uint16_t threshold = 0, priority = 0; } seen[3];
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(Spawn(&handles[i], "start", [&s = seen[i], i] {
      s.nice = NiceOf(gettid());
      s.threshold = handles[i]->u16PreemptThreshold;
      s.priority = handles[i]->u16Priority;
      s.done = true;
    }, starts[i].priority, starts[i].threshold, starts[i].autoStart), LX_SUCCESS);
  }
  ASSERT_TRUE(WaitUntil([&] { return StateOf(&handles[2]) == LX_STATE_SUSPENDED; }));
  ASSERT_EQ(pthread_kill(handles[2]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return seen[0].done && seen[1].done && seen[2].done; }));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(seen[i].nice, std::min(creatorNice + starts[i].increment, 19)) << "threshold " << starts[i].threshold;
    EXPECT_EQ(seen[i].threshold, starts[i].increment);
    EXPECT_EQ(seen[i].priority, starts[i].priority);
  }
  EXPECT_EQ(NiceOf(gettid()), creatorNice);
}

TEST_F(CreateTest, Signal12HoldsTheThreadUntilSignal10AndIgnores14) {
  static LX_THREAD handle = nullptr;
  static std::atomic<bool> stop{false};
  static std::atomic<long> ticks{0};
  static std::atomic<pid_t> tid{0};
  ASSERT_EQ(Spawn(&handle, "suspendable", [] {
    tid = gettid();
    while (!stop) {
      ++ticks;
      sched_yield();
    }
  }), LX_SUCCESS);
  struct Stop { ~Stop() { stop = true; } } stopAtEnd;
  ASSERT_TRUE(WaitUntil([&] { return ticks > 0; }));
  auto waiting = [&] { return BlockedIn(tid) == SYS_rt_sigtimedwait; };
  StoreState(*handle, LX_STATE_SUSPENDED);  // what a suspending service does before signalling
  ASSERT_EQ(pthread_kill(handle->hThread, SIGUSR2), 0);
  ASSERT_TRUE(WaitUntil(waiting));
  const long held = ticks;
  ASSERT_EQ(pthread_kill(handle->hThread, SIGALRM), 0);
  ASSERT_TRUE(WaitUntil([&] { return !Pending(tid, SIGALRM) && waiting(); }));
  EXPECT_EQ(ticks, held);
  EXPECT_EQ(StateOf(&handle), LX_STATE_SUSPENDED);
  ASSERT_EQ(pthread_kill(handle->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return ticks > held; }));
  EXPECT_EQ(StateOf(&handle), LX_STATE_READY);
}

}  // namespace
}  // namespace quorvin::test

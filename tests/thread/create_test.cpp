// Thread creation and start: checks, registration, pool limit, pid list,
// first resume, hold-back, suspension by signal 12.
#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include <gmock/gmock.h>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ::testing::Contains;
using CreateTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
uint16_t StateOf(LX_THREAD& handle) { return LoadState(*handle); }
bool Listed(const std::string& prefix) {
  return std::ranges::any_of(PidListLines(), [&](const std::string& line) { return line.starts_with(prefix); });
}
std::string Proc(pid_t tid, const char* file) {  // a file of /proc/self/task/<tid>
  std::ostringstream text;
  text << std::ifstream("/proc/self/task/" + std::to_string(tid) + "/" + file).rdbuf();
  return text.str();
}

TEST_F(CreateTest, RefusalsFollowTheCheckOrderAndChangeNothing) {
  static LX_THREAD registered = nullptr, fresh = nullptr;
  ASSERT_EQ(Spawn(&registered, "registered", [] {}, 32, 0, 0), LX_SUCCESS);
  ThreadControlBlock* const first = registered;
  const int32_t count = S_i32ThreadPoolIndex;
  struct Case { LX_THREAD* handle; LX_THREAD_ENTRY entry; uint16_t priority, threshold, autoStart, status; };
  // Each row also fails every later check; a registered handle is found before the entry is checked.
  for (const Case& c : {Case{nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR},
                        Case{&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR},
                        Case{&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY},
                        Case{&registered, nullptr, 5, 6, 1, LX_THREAD_ERROR},
                        Case{&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR},
                        Case{&fresh, Noop, 5, 6, 1, LX_THRESH_ERROR}}) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(c.handle, "x", c.entry, 0, nullptr, 0, c.priority, c.threshold, 0, c.autoStart),
              c.status);
    EXPECT_EQ(S_i32ThreadPoolIndex, count);
    EXPECT_EQ(S_paThreadPool[count], nullptr);
    EXPECT_EQ(fresh, kUntouched);
    EXPECT_EQ(registered, first);
  }
}

TEST_F(CreateTest, RegistrationFillsTheBlockAndEachThreadIdentifiesAndListsItself) {
  EXPECT_EQ(_lx_ThreadIdentify(), &S_psScheduler);
  static LX_THREAD handles[2] = {};  // named, unnamed
  struct Seen { std::atomic<pid_t> tid{0}; LX_THREAD* self = nullptr; char kernelName[16] = {}; };
  static Seen seen[2];
  const LX_THREAD_ENTRY observe = [](uint64_t i) -> void* {
    seen[i].self = _lx_ThreadIdentify();
    ::prctl(PR_GET_NAME, seen[i].kernelName);
    seen[i].tid = gettid();
    return nullptr;
  };
  const int32_t count = S_i32ThreadPoolIndex;
  const char* const longName = "ABCDEFGHIJKLMNOPQRSTUVWXY";
  ASSERT_EQ(_lx_ThreadCreate(&handles[0], longName, observe, 0, nullptr, 0, 32, 0, 0x12345, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_ThreadCreate(&handles[1], nullptr, observe, 1, nullptr, 0, 32, 0, 0, 1), LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 2);
  EXPECT_EQ(handles[0]->u32PoolIndex, static_cast<uint32_t>(count));
  EXPECT_EQ(handles[0]->u16TimeSlice, 0x2345);  // low 16 bits, not validated
  EXPECT_STREQ(handles[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_STREQ(handles[1]->acName, "");
  ASSERT_TRUE(WaitUntil([] { return seen[0].tid != 0 && seen[1].tid != 0; }));
  EXPECT_EQ(seen[0].self, &handles[0]);
  EXPECT_EQ(seen[1].self, &handles[1]);
  EXPECT_STREQ(seen[0].kernelName, "ABCDEFGHIJKLMNO");
  const auto lines = PidListLines();
  EXPECT_THAT(lines, Contains("Name: ABCDEFGHIJKLMNOPQRS, pid:" + std::to_string(seen[0].tid)));
  EXPECT_THAT(lines, Contains("Name: , pid:" + std::to_string(seen[1].tid)));
  EXPECT_FALSE(Listed("Name: Scheduler"));  // the start-up thread lists itself only as the tick thread
  LX_THREAD* outsider = &handles[0];
  std::thread([&] { outsider = _lx_ThreadIdentify(); }).join();
  EXPECT_EQ(outsider, nullptr);
}

TEST_F(CreateTest, PoolTakes48ThreadsThatWaitForSignal10Or14) {
  static LX_THREAD handles[49] = {};
  static std::atomic<int> started{0};
  for (int i = 0; i < 48; ++i) ASSERT_EQ(Spawn(&handles[i], "parked", [] { ++started; }, 32, 0, 0), 0) << i;
  handles[48] = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&handles[48], "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_EQ(S_i32ThreadPoolIndex, 49);
  EXPECT_EQ(S_paThreadPool[49], nullptr);
  EXPECT_EQ(handles[48], kUntouched);
  EXPECT_EQ(handles[47]->u32PoolIndex, 48u);
  const auto all = [](uint16_t state) {
    return std::all_of(handles, handles + 48, [&](LX_THREAD& h) { return StateOf(h) == state; });
  };
  ASSERT_TRUE(WaitUntil([&] { return all(LX_STATE_SUSPENDED); }));
  EXPECT_EQ(started, 0);
  for (int i = 0; i < 48; ++i) ASSERT_EQ(pthread_kill(handles[i]->hThread, i % 2 ? SIGALRM : SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([] { return started == 48; }));
  EXPECT_TRUE(all(LX_STATE_READY));
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

TEST_F(CreateTest, Signal12HoldsTheThreadUntilSignal10AndIgnores14) {
  static LX_THREAD handle = nullptr;
  static std::atomic<long> ticks{0};
  static std::atomic<pid_t> tid{0};
  ASSERT_EQ(Spawn(&handle, "suspendable", [] { for (tid = gettid();; sched_yield()) ++ticks; }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return ticks > 0; }));
  auto waiting = [] { return Proc(tid, "wchan").find("sigtimedwait") != std::string::npos; };  // the kernel's wait
  auto alarmPending = [] {
    const std::string status = Proc(tid, "status");
    return (std::stoull(status.substr(status.find("SigPnd:") + 7), nullptr, 16) >> (SIGALRM - 1)) & 1;
  };
  StoreState(*handle, LX_STATE_SUSPENDED);  // as a suspending service does before it signals
  ASSERT_EQ(pthread_kill(handle->hThread, SIGUSR2), 0);
  ASSERT_TRUE(WaitUntil(waiting));
  const long held = ticks;
  ASSERT_EQ(pthread_kill(handle->hThread, SIGALRM), 0);
  ASSERT_TRUE(WaitUntil([&] { return !alarmPending() && waiting(); }));  // taken, and waiting again
  EXPECT_EQ(ticks, held);
  EXPECT_EQ(StateOf(handle), LX_STATE_SUSPENDED);
  ASSERT_EQ(pthread_kill(handle->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return ticks > held; }));
  EXPECT_EQ(StateOf(handle), LX_STATE_READY);
}

}  // namespace
}  // namespace quorvin::test

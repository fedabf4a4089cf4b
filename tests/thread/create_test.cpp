// Thread creation and start: checks, registration, pool limit, pid list, first resume, hold-back.
#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <tuple>

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

}  // namespace
}  // namespace quorvin::test

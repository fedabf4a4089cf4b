// Application timers, driven tick by tick through the real timer thread, and
// system time and the tick tuner against a faked wall clock.
//
// gettimeofday and settimeofday are replaced for this program (the library is
// linked in statically, so its calls come here). The machine's clock is never
// set: settimeofday never reaches the C library, and the time cases give up
// CAP_SYS_TIME all the same.
#include <dlfcn.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <cerrno>

#include "support/kernel_fixture.h"
#include "timer/timer_internal.h"

namespace {

std::atomic<int64_t> g_nowUs{-1};  // >= 0: what gettimeofday reads
int g_refusal = 0;                 // errno for every set; 0: refuse only a time with a zone (EINVAL)
std::vector<std::tuple<long, long, bool>> g_sets;  // seconds, microseconds, with the zone just read

}  // namespace

extern "C" int gettimeofday(struct timeval* time, void* zone) noexcept {
  static const auto real = reinterpret_cast<int (*)(timeval*, void*)>(dlsym(RTLD_NEXT, "gettimeofday"));
  if (g_nowUs < 0) return real(time, zone);
  *time = {g_nowUs / 1000000, g_nowUs % 1000000};
  if (zone != nullptr) *static_cast<struct timezone*>(zone) = {-60, 1};
  return 0;
}

extern "C" int settimeofday(const struct timeval* time, const struct timezone* zone) noexcept {
  g_sets.emplace_back(time->tv_sec, time->tv_usec, zone && zone->tz_minuteswest == -60 && zone->tz_dsttime == 1);
  errno = g_refusal != 0 ? g_refusal : EINVAL;
  return g_refusal == 0 && zone == nullptr ? 0 : -1;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using Ints = std::vector<int>;
using Fields = std::vector<uint32_t>;

// Signals ticks to the real timer thread as the tick thread does (count up,
// one byte into the timer pipe).
void SignalTicks(int n) {
  for (int i = 0; i < n; ++i) {
    __atomic_add_fetch(&G_i32Ticks, 1, __ATOMIC_RELAXED);
    CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
  }
}
int PipeBacklog() {
  int bytes = -1;
  ::ioctl(G_i32TimerPIPE[0], FIONREAD, &bytes);
  return bytes;
}
// Waits until every tick signalled so far has been worked off (a byte without a tick is read only
// after the last walk), then passes the timer lock (a scratch timer, created and deleted or refused
// by a full table) so that all the walks wrote is ordered before what the caller reads next.
bool TicksDone() {
  CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
  const bool done = WaitUntil([] { return PipeBacklog() == 0; });
  static LX_TIMER scratch = nullptr;
  if (_lx_TimerCreate(&scratch, nullptr, [](uint32_t) {}, 0, 1, 0, 0) == LX_SUCCESS) _lx_TimerDelete(&scratch);
  return done;
}

struct Call { uint32_t input; int tick; bool onTimerThread; int32_t pendingTicks; };
std::mutex g_mutex;
std::vector<Call> g_calls;
std::atomic<int> g_tick{0};

void Record(uint32_t input) {
  std::lock_guard lock(g_mutex);
  g_calls.push_back({input, g_tick, _lx_ThreadIdentify() == G_psTimer, __atomic_load_n(&G_i32Ticks, __ATOMIC_RELAXED)});
}
Ints Fired(int input = -1) {  // the inputs in calling order or, given one, the ticks it fired on
  std::lock_guard lock(g_mutex);
  Ints found;
  for (const Call& call : g_calls)
    if (input < 0 || input == static_cast<int>(call.input)) found.push_back(input < 0 ? call.input : call.tick);
  return found;
}
// {active, remaining as reported, reschedule}, or {status} if refused.
Fields State(LX_TIMER* timer, char** name = nullptr) {
  char* unused = nullptr;
  uint16_t active = 0;
  uint32_t remaining = 0, reschedule = 0;
  int reserved = 0;
  const LX_STATUS status = _lx_TimerInfoGet(timer, name ? name : &unused, &active, &remaining, &reschedule, &reserved);
  return status == LX_SUCCESS ? Fields{active, remaining, reschedule} : Fields{status};
}

class AppTimerTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (!IsSkipped()) _lx_TimerInitialize();
  }
  static void Tick(int n = 1) {  // works n ticks off, one at a time
    for (int i = 0; i < n; ++i) {
      ++g_tick;
      SignalTicks(1);
      ASSERT_TRUE(TicksDone());
    }
  }
};

TEST_F(AppTimerTest, FiresOnTheNthTickThenEveryRTicksOrOnceInTableOrderOnTheTimerThread) {
  LX_TIMER periodic = nullptr, once = nullptr, idle = nullptr, broken = nullptr, b = nullptr, d = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&periodic, "a name of twenty-five chs", Record, 1, 3, 2, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&b, nullptr, Record, 'B', 3, 0, 1), LX_SUCCESS);  // deleted: d takes its place
  ASSERT_EQ(_lx_TimerCreate(&once, nullptr, Record, 2, 3, 0, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&idle, "idle", Record, 3, 1, 1, 0), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&broken, nullptr, Record, 4, 2, 2, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&d, nullptr, Record, 'D', 3, 0, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerDelete(&b), LX_SUCCESS);
  broken->pfnExpirationCheck = [](uint32_t) {};  // mismatching copies: ended without a call
  Tick(10);
  EXPECT_EQ(Fired(1), (Ints{3, 5, 7, 9}));
  EXPECT_EQ(Fired(), (Ints{1, 'D', 2, 1, 1, 1}));  // the one-shots on tick 3, in table order
  for (const Call& call : g_calls) EXPECT_TRUE(call.onTimerThread);
  char* name = nullptr;
  EXPECT_EQ(State(&periodic, &name), (Fields{1, 1, 2}));
  EXPECT_STREQ(name, "a name of twenty-fi");
  EXPECT_EQ(State(&once, &name), (Fields{0, 0, 0}));
  EXPECT_STREQ(name, "");
  EXPECT_EQ(State(&idle), (Fields{0, 1, 1}));
  EXPECT_EQ(State(&broken), (Fields{0, 0, 2}));
  uint16_t active = 7;
  uint32_t remaining = 7, reschedule = 7;
  EXPECT_EQ(_lx_TimerInfoGet(&periodic, &name, &active, &remaining, &reschedule, nullptr), LX_PTR_ERROR);
  EXPECT_EQ(std::tuple(active, remaining, reschedule), std::tuple(7, 7u, 7u));
  EXPECT_EQ(State(&b), Fields{LX_TIMER_ERROR});
}

TEST_F(AppTimerTest, CreateRefusalsHandleWordsAndTheTableOf99) {
  LX_TIMER word = nullptr, live = nullptr;
  for (auto [handle, function, ticks, status] :
       {std::tuple{(LX_TIMER*)nullptr, &Record, 1, LX_TIMER_ERROR}, {&word, nullptr, 0, LX_TIMER_ERROR},
        {&word, &Record, 0, LX_TICK_ERROR}, {&word, &Record, 1, LX_ACTIVATE_ERROR}})
    EXPECT_EQ(_lx_TimerCreate(handle, "x", function, 0, ticks, 0, 2), status);
  for (LX_STATUS status : {_lx_TimerActivate(&word), _lx_TimerDeactivate(&word), _lx_TimerChange(&word, 1, 1),
                           _lx_TimerDelete(&word), _lx_TimerDelete(nullptr)})
    EXPECT_EQ(status, LX_TIMER_ERROR);
  ASSERT_EQ(_lx_TimerCreate(&live, "live", Record, 1, 1, 0, 1), LX_SUCCESS);
  TimerControlBlock* const block = live;
  EXPECT_EQ(_lx_TimerCreate(&live, "again", Record, 2, 1, 0, 1), LX_TIMER_ERROR);
  EXPECT_EQ(live, block);
  // A word naming no timer of the table is cleared and the block left alone (freeing it would abort).
  static TimerControlBlock foreign{"foreign", Record, Record, 5, 1, 9, 9, 9};
  LX_TIMER stray = &foreign;
  EXPECT_EQ(_lx_TimerDelete(&stray), LX_SUCCESS);
  EXPECT_EQ(std::tuple(stray, foreign.u32RemainingTicks), std::tuple(nullptr, 9u));
  static LX_TIMER table[97];
  for (LX_TIMER& timer : table) ASSERT_EQ(_lx_TimerCreate(&timer, "t", Record, 0, 1000, 0, 0), LX_SUCCESS);
  stray = &foreign;
  ASSERT_EQ(_lx_TimerCreate(&stray, "new", Record, 3, 1, 0, 1), LX_SUCCESS);  // the 99th, over a stale word
  EXPECT_NE(stray, &foreign);
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 0, 1, 0, 1), LX_POOL_ERROR);
  EXPECT_EQ(word, nullptr);
  EXPECT_EQ(_lx_TimerDelete(&table[40]), LX_SUCCESS);
  EXPECT_EQ(_lx_TimerDelete(&table[40]), LX_TIMER_ERROR);  // the first cleared the word
  EXPECT_EQ(_lx_TimerCreate(&word, "x", Record, 7, 1, 0, 1), LX_SUCCESS);
  EXPECT_EQ(_lx_TimerCreate(&table[40], "y", Record, 0, 1, 0, 1), LX_POOL_ERROR);
  Tick();
  EXPECT_EQ(Fired(), (Ints{1, 3, 7}));
}

TEST_F(AppTimerTest, DeactivateKeepsTheCountActivateDoesNotReloadItAndChangeDoes) {
  LX_TIMER timer = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&timer, nullptr, Record, 1, 8, 0, 1), LX_SUCCESS);
  Tick(3);
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  Tick(10);
  EXPECT_EQ(State(&timer), (Fields{0, 5, 0}));
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(Fired(1), Ints{18});
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);  // an expired one-shot counts on from 0 and wraps
  Tick();
  EXPECT_EQ(std::tuple(timer->u32RemainingTicks, State(&timer)), std::tuple(0xFFFFFFFFu, Fields{1, 0, 0}));
  Tick();
  EXPECT_EQ(_lx_TimerChange(&timer, 0, 5), LX_TICK_ERROR);
  EXPECT_EQ(State(&timer), (Fields{1, 0xFFFFFFFE, 0}));
  ASSERT_EQ(_lx_TimerChange(&timer, 3, 1), LX_SUCCESS);  // counts from the next tick
  Tick(5);
  EXPECT_EQ(Fired(1), (Ints{18, 23, 24, 25}));
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerChange(&timer, 2, 0), LX_SUCCESS);  // leaves it inactive
  Tick(3);
  EXPECT_EQ(State(&timer), (Fields{0, 2, 0}));
}

LX_TIMER g_self = nullptr, g_scratch = nullptr;
std::vector<LX_STATUS> g_statuses;
std::atomic<bool> g_gateOpen{false}, g_held{false};

TEST_F(AppTimerTest, CreateAndDeleteAreRefusedInsideAnExpirationFunction) {
  ASSERT_EQ(_lx_TimerCreate(&g_self, nullptr, [](uint32_t input) {
    Record(input);
    if (g_statuses.empty())
      g_statuses = {_lx_TimerCreate(&g_scratch, "scratch", Record, 2, 1, 0, 1), _lx_TimerDelete(&g_self),
                    _lx_TimerDeactivate(&g_self)};
  }, 1, 1, 3, 1), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(g_statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_SUCCESS}));
  EXPECT_EQ(std::tuple(g_scratch, Fired()), std::tuple(nullptr, Ints{1}));
  EXPECT_EQ(State(&g_self), (Fields{0, 3, 3}));  // deactivated from inside, reloaded, still there
}

TEST_F(AppTimerTest, NoTickIsLostWhileTheTimerThreadIsHeldUp) {
  LX_TIMER every = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&every, nullptr, [](uint32_t input) {
    Record(input);
    g_held = true;
    while (!g_gateOpen) std::this_thread::sleep_for(1ms);
  }, 1, 1, 1, 1), LX_SUCCESS);
  SignalTicks(1);
  ASSERT_TRUE(WaitUntil([] { return g_held.load(); }));
  SignalTicks(4);
  EXPECT_EQ(PipeBacklog(), 4);
  g_gateOpen = true;
  ASSERT_TRUE(TicksDone());
  std::vector<int32_t> pending;  // one decrement per walk: each tick had a walk of its own
  for (const Call& call : g_calls) pending.push_back(call.pendingTicks);
  EXPECT_EQ(pending, (std::vector<int32_t>{0, 3, 2, 1, 0}));
}

void SetNow(int64_t seconds, int64_t microseconds) { g_nowUs = seconds * 1000000 + microseconds; }

class TimeTest : public ::testing::Test {
 protected:
  void SetUp() override {  // gives up CAP_SYS_TIME in this thread and the threads it creates
    ::prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    ::syscall(SYS_capget, &header, data);
    for (auto* set : {&data[0].effective, &data[0].permitted, &data[0].inheritable}) *set &= ~(1u << CAP_SYS_TIME);
    ::syscall(SYS_capset, &header, data);
    if (::syscall(SYS_capget, &header, data) != 0 || (data[0].effective & (1u << CAP_SYS_TIME)) != 0)
      GTEST_SKIP() << "could not give up CAP_SYS_TIME";
  }
};

TEST_F(TimeTest, TimeGetCountsHundredthsAndTimeSetRetriesOnlyARefusedZone) {
  SetNow(100, 999000);
  EXPECT_EQ(_lx_TimeGet(), 10099u);
  SetNow(1700000000, 250000);
  EXPECT_EQ(_lx_TimeGet(), 2496275481u);  // modulo 2^32
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);  // with the zone just read, refused (EINVAL), then alone
  EXPECT_EQ(g_sets, (std::vector<std::tuple<long, long, bool>>{{123, 450000, true}, {123, 450000, false}}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  g_refusal = EPERM;
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set time\n");
  EXPECT_EQ(g_sets.size(), 3u);
}

TEST_F(TimeTest, TickAdjustScalesTheTuningByTheMeasuredTimeAndTheTunerRunsIt300TicksAfterItsStart) {
  for (auto [startMs, seconds, microseconds, tuning] :
       {std::tuple{5000000u, 5003, 300000, 9090u}, {5000000u, 5003, 0, 10000u}, {5000000u, 5000, 999, 4294967295u},
        {4294967000u, 4294970, 300000, 9090u}}) {  // 0 ms saturates; the ms count wraps
    S_u32TickTuning = 10000;
    S_u32TunerStartMs = startMs;
    SetNow(seconds, microseconds);
    _lx_TickAdjust(0);
    EXPECT_EQ(std::tuple(S_u32TickTuning, S_u32TunerStartMs), std::tuple(tuning, static_cast<uint32_t>(seconds * 1000 + microseconds / 1000)));
  }
  QUORVIN_REQUIRE_ISOLATION();
  BootCore();
  _lx_TimerInitialize();
  S_u32TickTuning = 10000;
  SetNow(7000, 0);
  _lx_TimerTunerStart();
  ASSERT_NE(S_psTunerTimer, nullptr);
  EXPECT_EQ(S_u32TunerStartMs, 7000000u);
  SetNow(7003, 300000);
  SignalTicks(299);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(S_u32TickTuning, 10000u);
  SignalTicks(1);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(std::tuple(S_u32TickTuning, S_psTunerTimer->u16Active), std::tuple(9090u, 0));
}

}  // namespace
}  // namespace quorvin::test

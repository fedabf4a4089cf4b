// Application timers, driven tick by tick through the real timer thread, and system time against a
// faked wall clock. gettimeofday and settimeofday are replaced for this program (the library is linked
// in statically): the machine's clock is never set, and CAP_SYS_TIME is given up too, with every other
// capability.
#include <dlfcn.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "support/kernel_fixture.h"
#include "timer/timer_internal.h"

namespace {
std::atomic<int64_t> g_nowUs{-1};                  // >= 0: what gettimeofday reads
int g_refusal = 0;                                 // errno for every set; 0: refuse only a time with a zone (EINVAL)
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
using Fields = std::vector<uint32_t>;

std::atomic<int> g_tick{1};
std::string g_fired;  // "input@tick " per call, tick -1 off the timer thread; ordered by the timer lock (see Tick)
void Record(uint32_t input) {
  g_fired += std::to_string(input) + '@' + std::to_string(_lx_ThreadIdentify() == G_psTimer ? g_tick.load() : -1) + ' ';
}
std::string Fired() { return std::exchange(g_fired, ""); }  // the calls since the last look
Fields State(LX_TIMER* timer) {  // {active, remaining as reported, reschedule}, or {status} if refused
  char* name = nullptr;
  uint16_t active = 0;
  uint32_t remaining = 0, reschedule = 0,
           status = _lx_TimerInfoGet(timer, &name, &active, &remaining, &reschedule, &name);
  return status == LX_SUCCESS ? Fields{active, remaining, reschedule} : Fields{status};
}
// Signals n ticks as the tick thread does (count up, one byte into the timer pipe), each worked off before
// the next: the pipe drained, then the timer lock passed (a scratch timer created and deleted) so that all
// the walk wrote is ordered before what the caller reads next.
void Tick(int n) {
  for (int i = 0; i < n; ++i, ++g_tick) {
    __atomic_add_fetch(&G_i32Ticks, 1, __ATOMIC_RELAXED);
    CM_WakeUpThreadEx(G_i32TimerPIPE[1]);  // a second byte: read only once the walk of the first is done
    CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
    ASSERT_TRUE(WaitUntil([] {
      int bytes = -1;
      return ::ioctl(G_i32TimerPIPE[0], FIONREAD, &bytes), bytes == 0;
    }));
    static LX_TIMER scratch = nullptr;
    if (_lx_TimerCreate(&scratch, nullptr, Record, 0, 1, 0, 0) == LX_SUCCESS) _lx_TimerDelete(&scratch);
  }
}
using AppTimerTest = KernelTest;

TEST_F(AppTimerTest, FiresOnTheNthTickThenEveryRTicksOrOnceInTableOrderAndRefusalsKeepTheirRows) {
  _lx_TimerInitialize();
  LX_TIMER periodic = nullptr, once = nullptr, b = nullptr, d = nullptr, word = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&periodic, "p", Record, 1, 3, 2, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&b, nullptr, Record, 9, 3, 0, 1), LX_SUCCESS);  // deleted: d takes its place
  ASSERT_EQ(_lx_TimerCreate(&once, nullptr, Record, 2, 3, 0, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerCreate(&d, nullptr, Record, 4, 3, 0, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerDelete(&b), LX_SUCCESS);
  for (auto [handle, function, ticks, activate, status] :
       {std::tuple{(LX_TIMER*)nullptr, &Record, 1, 2, LX_TIMER_ERROR},
        {&word, nullptr, 0, 2, LX_TIMER_ERROR},
        {&word, &Record, 0, 2, LX_TICK_ERROR},
        {&word, &Record, 1, 2, LX_ACTIVATE_ERROR},
        {&once, &Record, 1, 1, LX_TIMER_ERROR}})
    EXPECT_EQ(_lx_TimerCreate(handle, "x", function, 0, ticks, 0, activate), status);
  for (LX_STATUS status : {_lx_TimerActivate(&b), _lx_TimerDeactivate(&b), _lx_TimerChange(&b, 1, 1),
                           _lx_TimerDelete(&b), _lx_TimerDelete(nullptr)})
    EXPECT_EQ(status, LX_TIMER_ERROR);
  Tick(10);
  EXPECT_EQ(Fired(), "1@3 4@3 2@3 1@5 1@7 1@9 ");  // on the timer thread; the one-shots on tick 3, in table order
  EXPECT_EQ(std::tuple(State(&periodic), State(&once), State(&b)),
            std::tuple(Fields{1, 1, 2}, Fields{0, 0, 0}, Fields{LX_TIMER_ERROR}));
  static LX_TIMER table[97];  // 99 in all
  for (LX_TIMER& timer : table)
    EXPECT_EQ(_lx_TimerCreate(&timer, "t", Record, 0, 1000, 0, 0), &timer < table + 96 ? LX_SUCCESS : LX_POOL_ERROR);
}

TEST_F(AppTimerTest, DeactivateKeepsTheCountActivateDoesNotReloadItAndChangeDoes) {
  _lx_TimerInitialize();
  LX_TIMER timer = nullptr;
  ASSERT_EQ(_lx_TimerCreate(&timer, nullptr, Record, 1, 8, 0, 1), LX_SUCCESS);
  Tick(3);
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  Tick(10);
  EXPECT_EQ(State(&timer), (Fields{0, 5, 0}));
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(Fired(), "1@18 ");
  EXPECT_EQ(_lx_TimerChange(&timer, 0, 5), LX_TICK_ERROR);
  // The expired one-shot, changed and activated: counts from the next tick, then every tick.
  ASSERT_EQ(_lx_TimerChange(&timer, 3, 1), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerActivate(&timer), LX_SUCCESS);
  Tick(5);
  EXPECT_EQ(Fired(), "1@21 1@22 1@23 ");
  ASSERT_EQ(_lx_TimerDeactivate(&timer), LX_SUCCESS);
  ASSERT_EQ(_lx_TimerChange(&timer, 2, 0), LX_SUCCESS);  // leaves it inactive
  Tick(3);
  EXPECT_EQ(State(&timer), (Fields{0, 2, 0}));
}

TEST(TimeTest, TimeGetCountsHundredthsAndTimeSetRetriesOnlyARefusedZone) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2]{};  // no capability at all in this thread (the only one), CAP_SYS_TIME included
  if (::prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0), ::syscall(SYS_capset, &header, none) != 0)
    GTEST_SKIP() << "could not give up CAP_SYS_TIME";
  g_nowUs = 1700000000250000;
  EXPECT_EQ(_lx_TimeGet(), 2496275481u);  // hundredths, modulo 2^32
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);  // with the zone just read, refused (EINVAL), then alone
  g_refusal = EPERM;
  _lx_TimeSet(12345);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set time\n");
  Fields tuning;  // the tuner: 300 ticks that took the nominal 3 s keep the tuning, 6 s halve it
  for (int64_t second : {1000, 1003, 1009})
    g_nowUs = second * 1000000, _lx_TickAdjust(0), tuning.push_back(S_u32TickTuning);
  EXPECT_EQ(tuning, (Fields{tuning[0], tuning[0], tuning[0] / 2}));
  EXPECT_EQ(g_sets, (std::vector<std::tuple<long, long, bool>>{
                        {123, 450000, true}, {123, 450000, false}, {123, 450000, true}}));
}

}  // namespace
}  // namespace quorvin::test

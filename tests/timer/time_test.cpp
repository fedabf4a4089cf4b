// System time and the tick tuner against a faked wall clock.
//
// gettimeofday and settimeofday are replaced for this executable (the library
// is linked in statically, so its calls come here). The machine's clock is
// never set: every case first gives up CAP_SYS_TIME, and settimeofday reaches
// the C library only in the one case that checks its refusal.
#include <dlfcn.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <vector>

#include "tick_driver.h"
#include "timer/timer_internal.h"

namespace {

struct SetCall {
  timeval time;
  bool withZone;
  struct timezone zone;
};
std::atomic<int64_t> g_nowUs{-1};  // >= 0: what gettimeofday reads
int g_refusal = 0;                 // errno for every set; 0: refuse only a time with a zone
                                   // (EINVAL), as the C library does
bool g_toCLibrary = false;
std::vector<SetCall> g_sets;

}  // namespace

extern "C" int gettimeofday(struct timeval* time, void* zone) noexcept {
  static const auto real = reinterpret_cast<int (*)(timeval*, void*)>(dlsym(RTLD_NEXT, "gettimeofday"));
  const int64_t now = g_nowUs;
  if (now < 0) return real(time, zone);
  *time = {now / 1000000, now % 1000000};
  if (zone != nullptr) *static_cast<struct timezone*>(zone) = {-60, 1};
  return 0;
}

extern "C" int settimeofday(const struct timeval* time, const struct timezone* zone) noexcept {
  using Set = int (*)(const timeval*, const struct timezone*);
  static const auto real = reinterpret_cast<Set>(dlsym(RTLD_NEXT, "settimeofday"));
  g_sets.push_back({*time, zone != nullptr, zone != nullptr ? *zone : decltype(SetCall::zone){}});
  if (g_toCLibrary) return real(time, zone);
  errno = g_refusal != 0 ? g_refusal : EINVAL;
  return g_refusal == 0 && zone == nullptr ? 0 : -1;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

// Gives up CAP_SYS_TIME in the calling thread (and the threads it creates);
// true once the thread no longer holds it.
bool DropClockPrivilege() {
  ::prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (::syscall(SYS_capget, &header, data) != 0) return false;
  for (auto* set : {&data[0].effective, &data[0].permitted, &data[0].inheritable}) {
    *set &= ~(1u << CAP_SYS_TIME);
  }
  ::syscall(SYS_capset, &header, data);
  return ::syscall(SYS_capget, &header, data) == 0 && (data[0].effective & (1u << CAP_SYS_TIME)) == 0;
}

void SetNow(int64_t seconds, int64_t microseconds) { g_nowUs = seconds * 1000000 + microseconds; }

std::pair<long, long> Set(size_t i) { return {g_sets.at(i).time.tv_sec, g_sets.at(i).time.tv_usec}; }

class TimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!DropClockPrivilege()) GTEST_SKIP() << "could not give up CAP_SYS_TIME";
  }
};

TEST_F(TimeTest, TimeGetCountsHundredthsModulo2To32) {
  SetNow(100, 999000);
  EXPECT_EQ(_lx_TimeGet(), 10099u);
  SetNow(1700000000, 250000);
  EXPECT_EQ(_lx_TimeGet(), 2496275481u);
  SetNow(0, 9999);
  EXPECT_EQ(_lx_TimeGet(), 0u);
}

TEST_F(TimeTest, TimeSetPassesSecondsAndMicrosecondsAndReportsAFailure) {
  SetNow(1700000000, 250000);
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  // The time goes with the zone just read; refused (EINVAL), it goes alone.
  ASSERT_EQ(g_sets.size(), 2u);
  EXPECT_TRUE(g_sets[0].withZone && g_sets[0].zone.tz_minuteswest == -60 && g_sets[0].zone.tz_dsttime == 1);
  EXPECT_FALSE(g_sets[1].withZone);
  EXPECT_EQ(Set(0), std::pair(123L, 450000L));
  EXPECT_EQ(Set(1), std::pair(123L, 450000L));
  _lx_TimeSet(_lx_TimeGet());  // a present-day time has wrapped: back into 1970
  EXPECT_EQ(Set(3), std::pair(24962754L, 810000L));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  g_refusal = EPERM;
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set time\n");
  EXPECT_EQ(g_sets.size(), 5u);  // only a refused time zone is worth a second try
}

TEST_F(TimeTest, WithoutThePrivilegeTheCLibraryRefusesAndTheFailureIsPrinted) {
  g_toCLibrary = true;
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set time\n");
  EXPECT_EQ(g_sets.size(), 2u);
  EXPECT_GT(::time(nullptr), 1600000000);
}

TEST_F(TimeTest, TickAdjustScalesTheTuningByTheMeasuredTime) {
  const auto adjustAfter = [](uint32_t startMs, int64_t seconds, int64_t microseconds) {
    S_u32TickTuning = 10000;
    S_u32TunerStartMs = startMs;
    SetNow(seconds, microseconds);
    _lx_TickAdjust(0);
    return S_u32TickTuning;
  };
  EXPECT_EQ(adjustAfter(5000000, 5003, 300000), 9090u);
  EXPECT_EQ(S_u32TunerStartMs, 5003300u);
  EXPECT_EQ(adjustAfter(5000000, 5003, 0), 10000u);
  EXPECT_EQ(adjustAfter(5000000, 5000, 999), 4294967295u);      // 0 ms: saturated
  EXPECT_EQ(adjustAfter(4294967000u, 4294970, 300000), 9090u);  // across the wrap of the ms count
}

TEST_F(TimeTest, TunerAdjustsOnce300TicksAfterItsStart) {
  QUORVIN_REQUIRE_ISOLATION();
  BootCore();
  StartTimerThread();
  SetNow(7000, 0);
  _lx_TimerTunerStart();
  ASSERT_NE(S_psTunerTimer, nullptr);
  EXPECT_STREQ(S_psTunerTimer->acName, "_lx_TunerTimeout");
  EXPECT_EQ(S_psTunerTimer->u16Active, 1);
  EXPECT_EQ(S_psTunerTimer->u32RescheduleTicks, 0u);
  EXPECT_EQ(S_u32TunerStartMs, 7000000u);
  SetNow(7003, 300000);
  SignalTicks(299);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(S_u32TickTuning, 10000u);
  SignalTicks(1);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(S_u32TickTuning, 9090u);
  EXPECT_EQ(S_psTunerTimer->u16Active, 0);
  // A second start keeps the timer, restarts the measurement and activates
  // the timer without reloading its count.
  TimerControlBlock* const tuner = S_psTunerTimer;
  SetNow(8000, 0);
  _lx_TimerTunerStart();
  EXPECT_EQ(S_psTunerTimer, tuner);
  EXPECT_EQ(S_u32TunerStartMs, 8000000u);
  EXPECT_EQ(tuner->u16Active, 1);
  EXPECT_EQ(tuner->u32RemainingTicks, 0u);
}

}  // namespace
}  // namespace quorvin::test

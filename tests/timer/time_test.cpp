// System time and the tick tuner against a faked wall clock.
//
// gettimeofday and settimeofday are replaced for this executable (the library
// is linked in statically, so its calls come here). The machine's clock is
// never set: settimeofday never reaches the C library, and every case first
// gives up CAP_SYS_TIME all the same.
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

struct SetCall { timeval time; bool withZone; struct timezone zone; };
std::atomic<int64_t> g_nowUs{-1};  // >= 0: what gettimeofday reads
int g_refusal = 0;  // errno for every set; 0: refuse only a time with a zone (EINVAL)
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
  g_sets.push_back({*time, zone != nullptr, zone != nullptr ? *zone : decltype(SetCall::zone){}});
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

class TimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!DropClockPrivilege()) GTEST_SKIP() << "could not give up CAP_SYS_TIME";
  }
};

TEST_F(TimeTest, TimeGetCountsHundredthsAndTimeSetRetriesOnlyARefusedZone) {
  SetNow(100, 999000);
  EXPECT_EQ(_lx_TimeGet(), 10099u);
  SetNow(1700000000, 250000);
  EXPECT_EQ(_lx_TimeGet(), 2496275481u);  // modulo 2^32
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  ASSERT_EQ(g_sets.size(), 2u);  // with the zone just read, refused (EINVAL), then alone
  EXPECT_TRUE(g_sets[0].withZone && g_sets[0].zone.tz_minuteswest == -60 && g_sets[0].zone.tz_dsttime == 1);
  EXPECT_FALSE(g_sets[1].withZone);
  for (const SetCall& set : g_sets) {
    EXPECT_EQ(std::pair(set.time.tv_sec, set.time.tv_usec), std::pair(123L, 450000L));
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  g_refusal = EPERM;
  testing::internal::CaptureStdout();
  _lx_TimeSet(12345);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set time\n");
  EXPECT_EQ(g_sets.size(), 3u);
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
  EXPECT_EQ(S_u32TunerStartMs, 7000000u);
  SetNow(7003, 300000);
  SignalTicks(299);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(S_u32TickTuning, 10000u);
  SignalTicks(1);
  ASSERT_TRUE(TicksDone());
  EXPECT_EQ(S_u32TickTuning, 9090u);
  EXPECT_EQ(S_psTunerTimer->u16Active, 0);
}

}  // namespace
}  // namespace quorvin::test

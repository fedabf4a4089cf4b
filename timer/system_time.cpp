// System time, the tick thread "SoftTimer" and the tick tuner.
//
// The tick is never corrected against the clock: each round is a 10 ms sleep
// followed by one count and one byte, so the period is 10 ms plus the round's
// own cost, and the error accumulates. Timers and time-outs never read the
// clock; they advance by counted ticks only.
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "cm/cm_internal.h"
#include "quorvin/lx_log.h"
#include "thread/thread_internal.h"
#include "timer/timer_internal.h"

namespace quorvin::detail {

LX_TIMER S_psTunerTimer = nullptr;
uint32_t S_u32TunerStartMs = 0;
uint32_t S_u32TickTuning = 10000;

namespace {

constexpr long kTickNanoseconds = 10000000;
constexpr float kTunerNominalMs = 3000.0f;  // 300 ticks of 10 ms

// Wall-clock milliseconds modulo 2^32.
uint32_t WallClockMs() noexcept {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_usec / 1000);
}

// Conversion to unsigned 32-bit that saturates instead of overflowing.
uint32_t SaturatingU32(float value) noexcept {
  if (std::isnan(value) || value <= 0.0f) return 0;
  if (value >= 4294967296.0f) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(value);
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

uint32_t _lx_TimeGet(void) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return static_cast<uint32_t>(now.tv_sec) * 100u + static_cast<uint32_t>(now.tv_usec / 10000);
}

void _lx_TimeSet(uint32_t u32Time) {
  timeval now{};
  struct timezone zone{};
  ::gettimeofday(&now, &zone);
  now.tv_sec = static_cast<time_t>(u32Time / 100);
  now.tv_usec = static_cast<suseconds_t>((u32Time % 100) * 10000);
  int result = ::settimeofday(&now, &zone);
  // Current C libraries refuse a time and a time zone in one call; the time
  // zone is the one just read, so setting the time alone changes nothing else.
  if (result != 0 && errno == EINVAL) result = ::settimeofday(&now, nullptr);
  if (result != 0) std::printf("Failed to set time\n");
}

void _lx_TimeInitialize(void) {}

void _lx_SoftTimerEnable(void) {
  ::prctl(PR_SET_NAME, "SoftTimer", 0, 0, 0);
  SaveLogFile(LX_PID_LIST_PATH, "Name: SoftTimer, pid:%ld\n", static_cast<long>(::syscall(SYS_gettid)));
  const sched_param realtime{1};
  ::sched_setscheduler(0, SCHED_RR, &realtime);
  ReleaseStartLockForTick();
  std::atomic_ref<int32_t> pending(G_i32Ticks);
  const bool signalling = TimerPipeReady();
  for (;;) {
    const timespec tick{0, kTickNanoseconds};
    ::nanosleep(&tick, nullptr);  // cut short by a signal: the tick comes early
    if (!signalling) continue;    // no timer pipe: nothing can take a tick
    pending.fetch_add(1, std::memory_order_relaxed);
    CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
  }
}

void _lx_TimerTunerStart(void) {
  _lx_TimerCreate(&S_psTunerTimer, "_lx_TunerTimeout", _lx_TickAdjust, 0, 300, 0, 0);
  StoreRelaxed(S_u32TunerStartMs, WallClockMs());
  _lx_TimerActivate(&S_psTunerTimer);
}

void _lx_TickAdjust(uint32_t) {
  const float tuning = static_cast<float>(LoadRelaxed(S_u32TickTuning));
  const uint32_t now = WallClockMs();
  const uint32_t elapsed = now - LoadRelaxed(S_u32TunerStartMs);
  StoreRelaxed(S_u32TunerStartMs, now);
  const float measured = static_cast<float>(elapsed) / kTunerNominalMs;
  StoreRelaxed(S_u32TickTuning, SaturatingU32(tuning / measured));
}

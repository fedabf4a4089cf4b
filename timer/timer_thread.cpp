// The timer thread "TimerISR" and the timer pipe.
//
// The tick thread writes one byte per tick and raises G_i32Ticks; the timer
// thread takes one byte at a time, lowers the count and does one tick's work:
// a sleep-agent pass (which may wait for the dispatcher to end expired waits)
// and then the application timers. When it falls behind, bytes and pending
// ticks pile up and are worked off one tick per byte, so no tick is skipped.
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "cm/cm_internal.h"
#include "cm/trace.h"
#include "timer/timer_internal.h"

namespace quorvin::detail {

LX_THREAD S_psTimerThread = nullptr;

bool TimerPipeReady() noexcept { return G_i32TimerPIPE[0] >= 0 && G_i32TimerPIPE[1] >= 0; }

namespace {

// Without a timer pipe no tick can arrive: the thread waits for good without
// spinning (only a suspension's signal ever wakes pause).
[[noreturn]] void ParkForGood() noexcept {
  for (;;) ::pause();
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_THREAD* G_psTimer = &S_psTimerThread;
int32_t G_i32Ticks = 0;
int32_t G_i32TimerPIPE[2] = {-1, -1};

void _lx_TimerInitialize(void) {
  int descriptors[2];
  if (::pipe(descriptors) != 0) {
    std::fprintf(stderr, "No pipe in %s\n", "_lx_TimerInitialize");
  } else {
    G_i32TimerPIPE[0] = descriptors[0];
    G_i32TimerPIPE[1] = descriptors[1];
  }
  _lx_ThreadCreate(G_psTimer, "TimerISR", _lx_TimerISR, 0, reinterpret_cast<void*>(10), 100, 1, 1, 1, 1);
}

void* _lx_TimerISR(uint64_t) {
  const sched_param realtime{1};
  ::sched_setscheduler(0, SCHED_RR, &realtime);
  if (!TimerPipeReady()) ParkForGood();
  std::atomic_ref<int32_t> pending(G_i32Ticks);
  for (;;) {
    if (!MoveOneByte(G_i32TimerPIPE[0], false)) ParkForGood();
    if (pending.load(std::memory_order_relaxed) == 0) continue;  // a byte without a tick
    pending.fetch_sub(1, std::memory_order_relaxed);
    QV_TRACE1(tick, pending.load(std::memory_order_relaxed));
    SleepAgentEx();
    RunTimerTick();
  }
  return nullptr;
}

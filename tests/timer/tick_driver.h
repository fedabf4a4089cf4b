// Drives the real timer thread "TimerISR" by hand, one counted tick at a time,
// as the tick thread does (count up, one byte into the timer pipe).
#pragma once

#include <sys/ioctl.h>

#include "support/kernel_fixture.h"

namespace quorvin::test {

inline void StartTimerThread() {  // once per process, after BootCore
  static bool started = false;
  if (!started) _lx_TimerInitialize();
  started = true;
}

inline int PipeBacklog() {
  int bytes = -1;
  ::ioctl(G_i32TimerPIPE[0], FIONREAD, &bytes);
  return bytes;
}

inline void SignalTicks(int n) {
  for (int i = 0; i < n; ++i) {
    __atomic_add_fetch(&G_i32Ticks, 1, __ATOMIC_RELAXED);
    CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
  }
}

// Waits until every tick signalled so far has been worked off (a byte without a
// tick is read only after the last walk), then passes the timer lock (a scratch
// timer, created and deleted or refused by a full table) so that all the walks
// wrote is ordered before what the caller reads next.
inline bool TicksDone() {
  CM_WakeUpThreadEx(G_i32TimerPIPE[1]);
  const bool done = WaitUntil([] { return PipeBacklog() == 0; });
  static LX_TIMER scratch = nullptr;
  if (_lx_TimerCreate(&scratch, nullptr, [](uint32_t) {}, 0, 1, 0, 0) == LX_SUCCESS) _lx_TimerDelete(&scratch);
  return done;
}

}  // namespace quorvin::test

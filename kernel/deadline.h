// Waits on POSIX primitives (semaphores, event-flag groups, message queues)
// take their wait option in 10 ms ticks and hand the primitive an absolute
// deadline on the realtime clock. One conversion serves them all, so every
// timed wait rounds the same way.
//
// The deadline is on CLOCK_REALTIME because the POSIX timed waits take one:
// a change of the wall clock while a thread waits moves its deadline with it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "kernel/platform.h"

namespace quorvin::detail {

// now + ticks x 10 ms: whole seconds from ticks / 100 (only when ticks > 99),
// the rest as (ticks mod 100) x 10 ms in nanoseconds, with one carry into the
// seconds.
constexpr timespec DeadlineAfter(timespec now, uint32_t ticks) noexcept {
  if (ticks > 99) now.tv_sec += static_cast<time_t>(ticks / 100);
  now.tv_nsec += static_cast<long>(ticks % 100) * 10'000'000L;
  if (now.tv_nsec > 999'999'999L) {
    now.tv_nsec -= 1'000'000'000L;
    now.tv_sec += 1;
  }
  return now;
}

// Reads the realtime clock and builds the deadline; false when the clock
// cannot be read.
inline bool DeadlineInTicks(uint32_t ticks, timespec& deadline) noexcept {
  timespec now{};
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return false;
  deadline = DeadlineAfter(now, ticks);
  return true;
}

// Calls a POSIX wait that reports failure as -1 with errno, again as long as
// it fails with EINTR (a suspension interrupts it; the same deadline still
// holds afterwards). Returns 0 on success, else the final errno.
//
// Not noexcept, nor may any function that calls it be: the waits are
// cancellation points, and a terminate cancels a thread inside one. The
// cancellation unwinds the thread's stack, and a noexcept frame on the way
// would end the whole process instead.
template <typename Wait>
int RetryInterrupted(Wait wait) {
  for (;;) {
    UnwindClearsStack unwinding;
    const int result = wait();
    unwinding.Returned();
    if (result == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

}  // namespace quorvin::detail

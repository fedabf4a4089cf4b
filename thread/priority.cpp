// Priority and preemption threshold.
//
// A threshold t becomes a nice increment ((t / 3) * 2, 0 for t = 0) added to
// the thread's nice value; a priority p becomes the static priority
// (32 - p) * 2 under SCHED_OTHER, which Linux accepts only for p = 32.
//
// A threshold change for another thread is applied to that thread's kernel
// thread id with setpriority (nice only ever changes the calling thread).
// A thread that has not yet applied its start values just gets the new
// threshold stored: it applies it itself before its entry runs.
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "quorvin/lx_timer.h"
#include "thread/thread_internal.h"

namespace quorvin::detail {
namespace {

constexpr int NiceIncrement(uint16_t threshold) noexcept { return threshold == 0 ? 0 : (threshold / 3) * 2; }
static_assert(NiceIncrement(2) == 0 && NiceIncrement(3) == 2 && NiceIncrement(7) == 4 &&
              NiceIncrement(32) == 20);

constexpr int StaticPriority(uint16_t priority) noexcept { return (LX_MAX_PRIORITY - priority) * 2; }
constexpr uint16_t PriorityOf(int staticPriority) noexcept {
  return static_cast<uint16_t>(LX_MAX_PRIORITY - staticPriority / 2);
}
static_assert(StaticPriority(0) == 64 && StaticPriority(31) == 2 && PriorityOf(0) == 32);

// Adds the increment to another thread's nice value, clamped at 19 as nice
// does. False when the kernel refuses.
bool AddNiceTo(pid_t tid, int increment) noexcept {
  errno = 0;
  const int current = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (current == -1 && errno != 0) return false;
  int target = current + increment;
  if (target > 19) target = 19;
  return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), target) == 0;
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_ThreadPreemptionChange(LX_THREAD* psThread, uint16_t u16NewThreshold,
                                     uint16_t* pu16OldThreshold) {
  ThreadControlBlock* tcb = TcbOf(psThread);
  if (tcb == nullptr) return LX_THREAD_ERROR;
  if (u16NewThreshold > LX_MAX_PRIORITY) return LX_THRESH_ERROR;
  if (pu16OldThreshold == nullptr) return LX_PTR_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (caller == G_psTimer) return LX_CALLER_ERROR;

  // The old value is the threshold the block records for the target.
  *pu16OldThreshold = LoadRelaxed(tcb->u16PreemptThreshold);
  const int increment = NiceIncrement(u16NewThreshold);
  bool applied = true;
  if (caller == psThread) {
    applied = nice(increment) != -1;
  } else {
    ThreadRecord* record = PooledRecord(tcb);
    const pid_t tid = record != nullptr ? LoadRelaxed(record->kernelTid) : 0;
    if (tid == 0) {
      // Not started yet: it applies the stored threshold itself.
      StoreRelaxed(tcb->u16PreemptThreshold, u16NewThreshold);
      return LX_SUCCESS;
    }
    applied = AddNiceTo(tid, increment);
  }
  if (!applied) {
    std::fprintf(stderr, "No nice in %s\n", "_lx_ThreadPreemptionChange");
    return LX_PRIORITY_ERROR;
  }
  StoreRelaxed(tcb->u16PreemptThreshold, static_cast<uint16_t>(increment));
  return LX_SUCCESS;
}

LX_STATUS _lx_ThreadPriorityChange(LX_THREAD* psThread, uint16_t u16NewPriority,
                                   uint16_t* pu16OldPriority) {
  ThreadControlBlock* tcb = TcbOf(psThread);
  if (tcb == nullptr) return LX_THREAD_ERROR;
  if (u16NewPriority > LX_MAX_PRIORITY) return LX_PRIORITY_ERROR;
  if (pu16OldPriority == nullptr) return LX_PTR_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;

  const pthread_t thread = LoadThreadId(*tcb);
  if (thread == pthread_t{}) return LX_CALLER_ERROR;  // not yet created
  int policy = 0;
  sched_param parameters{};
  if (pthread_getschedparam(thread, &policy, &parameters) != 0) return LX_CALLER_ERROR;
  *pu16OldPriority = PriorityOf(parameters.sched_priority);
  parameters.sched_priority = StaticPriority(u16NewPriority);
  if (pthread_setschedparam(thread, SCHED_OTHER, &parameters) != 0) return LX_CALLER_ERROR;
  StoreRelaxed(tcb->u16Priority, u16NewPriority);
  return LX_SUCCESS;
}

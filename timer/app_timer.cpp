// Application timers.
//
// S_sTimerLock guards the table and its count and is held by the timer thread
// for each whole walk, expiration calls included, so a timer cannot be
// deleted while its function runs. Activate, deactivate, change and info-get
// take no lock: the fields they share with the walk are single words read and
// written atomically, one at a time.
//
// Expiration functions run on the timer thread with the timer lock held.
// Creating or deleting a timer from there would need that lock again, so both
// are refused there with LX_CALLER_ERROR.
#include <cstdlib>
#include <mutex>

#include "cm/cm_internal.h"
#include "cm/debug_table.h"
#include "cm/trace.h"
#include "kernel/platform.h"
#include "timer/timer_internal.h"

namespace quorvin::detail {
namespace {

pthread_mutex_t S_sTimerLock = PTHREAD_MUTEX_INITIALIZER;
int32_t S_i32TimerCount = 0;
TimerControlBlock* S_paTimerTable[LX_TIMER_TABLE_SLOTS] = {};
QV_DEBUG_ENTRY("timers", S_paTimerTable, LX_TIMER_TABLE_SLOTS);
QV_DEBUG_ENTRY("timersn", &S_i32TimerCount, 0);

constexpr int32_t kMaxTimers = LX_TIMER_TABLE_SLOTS - 1;  // the slot after the last stays NULL

constinit PosixMutex g_timerLock(S_sTimerLock);

PosixMutex& TimerLock() noexcept { return g_timerLock; }

// Index of the last occurrence of the block in the table, or -1. Timer lock held.
int32_t FindLocked(const TimerControlBlock* timer) noexcept {
  for (int32_t i = S_i32TimerCount - 1; i >= 0; --i) {
    if (S_paTimerTable[i] == timer) return i;
  }
  return -1;
}

TimerControlBlock* LoadWord(LX_TIMER* handle) noexcept {
  return std::atomic_ref<TimerControlBlock*>(*handle).load(std::memory_order_acquire);
}
void StoreWord(LX_TIMER* handle, TimerControlBlock* timer) noexcept {
  std::atomic_ref<TimerControlBlock*>(*handle).store(timer, std::memory_order_release);
}

// The timer a handle names, or nullptr for a NULL handle or word.
TimerControlBlock* TimerOf(LX_TIMER* handle) noexcept {
  return handle != nullptr ? LoadWord(handle) : nullptr;
}

}  // namespace

void RunTimerTick() noexcept {
  std::lock_guard lock(TimerLock());
  for (int32_t i = 0; i < S_i32TimerCount; ++i) {
    TimerControlBlock& timer = *S_paTimerTable[i];
    if (LoadRelaxed(timer.u16Active) == 0) continue;
    const uint32_t remaining = LoadRelaxed(timer.u32RemainingTicks) - 1;  // 0 wraps round
    StoreRelaxed(timer.u32RemainingTicks, remaining);
    if (remaining != 0) continue;
    if (timer.pfnExpiration != timer.pfnExpirationCheck) {
      StoreRelaxed(timer.u16Active, uint16_t{0});
      continue;
    }
    QV_TRACE3(timer__expired, &timer, timer.acName, LoadRelaxed(timer.u32ExpirationInput));
    timer.pfnExpiration(LoadRelaxed(timer.u32ExpirationInput));
    const uint32_t reschedule = LoadRelaxed(timer.u32RescheduleTicks);
    if (reschedule != 0) {
      StoreRelaxed(timer.u32RemainingTicks, reschedule);
    } else {
      StoreRelaxed(timer.u16Active, uint16_t{0});
    }
  }
}

}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_TimerCreate(LX_TIMER* psTimer, const char* pcName, TimerExpirationFunction pfnExpiration,
                          uint32_t u32ExpirationInput, uint32_t u32InitialTicks,
                          uint32_t u32RescheduleTicks, uint16_t u16AutoActivate) {
  if (psTimer == nullptr || pfnExpiration == nullptr) return LX_TIMER_ERROR;
  if (u32InitialTicks == 0) return LX_TICK_ERROR;
  if (u16AutoActivate > 1) return LX_ACTIVATE_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;  // the walk holds the timer lock

  SystemSection section;
  std::lock_guard lock(TimerLock());
  TimerControlBlock* current = LoadWord(psTimer);
  if (current != nullptr && FindLocked(current) >= 0) return LX_TIMER_ERROR;
  if (S_i32TimerCount > kMaxTimers - 1) return LX_POOL_ERROR;
  auto* timer = static_cast<TimerControlBlock*>(std::calloc(1, sizeof(TimerControlBlock)));
  if (timer == nullptr) return LX_TIMER_ERROR;
  S_paTimerTable[S_i32TimerCount] = timer;
  ++S_i32TimerCount;
  S_paTimerTable[S_i32TimerCount] = nullptr;
  if (pcName != nullptr) BoundedCopy(timer->acName, pcName, sizeof timer->acName);
  timer->pfnExpirationCheck = pfnExpiration;
  timer->pfnExpiration = pfnExpiration;
  timer->u32ExpirationInput = u32ExpirationInput;
  timer->u32RemainingTicks = u32InitialTicks;
  timer->u32InitialTicks = u32InitialTicks;
  timer->u32RescheduleTicks = u32RescheduleTicks;
  timer->u16Active = u16AutoActivate == 1 ? 1 : 0;
  StoreWord(psTimer, timer);
  return LX_SUCCESS;
}

LX_STATUS _lx_TimerDelete(LX_TIMER* psTimer) {
  if (TimerOf(psTimer) == nullptr) return LX_TIMER_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;

  SystemSection section;
  std::lock_guard lock(TimerLock());
  TimerControlBlock* timer = LoadWord(psTimer);
  if (timer == nullptr) return LX_TIMER_ERROR;  // deleted meanwhile
  const int32_t index = FindLocked(timer);
  if (index >= 0) {
    const int32_t last = S_i32TimerCount - 1;
    S_paTimerTable[index] = S_paTimerTable[last];
    S_paTimerTable[last] = nullptr;
    --S_i32TimerCount;
    std::free(timer);
  }
  // A word that names no timer of the table is cleared, and nothing the
  // table does not vouch for is freed.
  StoreWord(psTimer, nullptr);
  return LX_SUCCESS;
}

LX_STATUS _lx_TimerActivate(LX_TIMER* psTimer) {
  TimerControlBlock* timer = TimerOf(psTimer);
  if (timer == nullptr) return LX_TIMER_ERROR;
  StoreRelaxed(timer->u16Active, uint16_t{1});
  return LX_SUCCESS;
}

LX_STATUS _lx_TimerDeactivate(LX_TIMER* psTimer) {
  TimerControlBlock* timer = TimerOf(psTimer);
  if (timer == nullptr) return LX_TIMER_ERROR;
  StoreRelaxed(timer->u16Active, uint16_t{0});
  return LX_SUCCESS;
}

LX_STATUS _lx_TimerChange(LX_TIMER* psTimer, uint32_t u32InitialTicks, uint32_t u32RescheduleTicks) {
  TimerControlBlock* timer = TimerOf(psTimer);
  if (timer == nullptr) return LX_TIMER_ERROR;
  if (u32InitialTicks == 0) return LX_TICK_ERROR;
  StoreRelaxed(timer->u32RemainingTicks, u32InitialTicks);
  StoreRelaxed(timer->u32InitialTicks, u32InitialTicks);
  StoreRelaxed(timer->u32RescheduleTicks, u32RescheduleTicks);
  return LX_SUCCESS;
}

LX_STATUS _lx_TimerInfoGet(LX_TIMER* psTimer, char** ppcName, uint16_t* pu16Active,
                           uint32_t* pu32RemainingTicks, uint32_t* pu32RescheduleTicks, void* pvReserved) {
  TimerControlBlock* timer = TimerOf(psTimer);
  if (timer == nullptr) return LX_TIMER_ERROR;
  if (ppcName == nullptr || pu16Active == nullptr || pu32RemainingTicks == nullptr ||
      pu32RescheduleTicks == nullptr || pvReserved == nullptr) {
    return LX_PTR_ERROR;
  }
  *ppcName = timer->acName;
  *pu16Active = LoadRelaxed(timer->u16Active);
  const uint32_t remaining = LoadRelaxed(timer->u32RemainingTicks);
  *pu32RemainingTicks = remaining == 0xFFFFFFFFu ? 0 : remaining;
  *pu32RescheduleTicks = LoadRelaxed(timer->u32RescheduleTicks);
  return LX_SUCCESS;
}

// Event-flag groups: the _lx_EventFlags services, served in the calling
// thread.
//
// Each group has its own lock, sLock, which guards the flags, the direct
// side's waiter records and the arming of waits; the direct side takes no
// other lock with it (the dispatcher's class takes it under S_sCmLock). A get
// that must wait arms its thread's record (made once per thread and group),
// raises u32WaitCount and sleeps on the record's semaphore without the lock.
// A set updates the flags and, while waits are armed, tests every record in
// list order against the flags the records before it left, and for each
// satisfied one stores the flags, clears what the waiter asked to clear,
// disarms it and posts its semaphore, all under sLock. A wait that ends
// without a post withdraws under sLock (see AwaitSet), so no post outlives
// the wait it was meant for.
//
// Words read without sLock: the flags, u32WaitCount and psFirstWaiter
// (info-get, the dispatcher's status checking), and u32ActualFlags (the
// woken thread) are accessed atomically.
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "cm/debug_table.h"
#include "kernel/deadline.h"
#include "kernel/platform.h"
#include "sync/sync_internal.h"

namespace quorvin::detail {

void* S_paEventFlags[kRegistrySlots] = {};
int32_t S_i32EventFlagsIndex = 0;
QV_DEBUG_ENTRY("group", S_paEventFlags, kRegistrySlots);
QV_DEBUG_ENTRY("groupn", &S_i32EventFlagsIndex, 0);
QV_DEBUG_ENTRY("grwait", nullptr, offsetof(EventFlagsControlBlock, psFirstWaiter));

namespace {
constinit HandleRegistry g_groups(S_paEventFlags, S_i32EventFlagsIndex);
}  // namespace

HandleRegistry& EventFlagGroups() noexcept { return g_groups; }

EventFlagsControlBlock* FindGroup(void* handle) noexcept {
  if (!EventFlagGroups().Contains(handle)) return nullptr;
  return std::atomic_ref<EventFlagsControlBlock*>(*static_cast<LX_EVENT_FLAGS*>(handle))
      .load(std::memory_order_acquire);
}

void RetireGroup(void* handle, EventFlagsControlBlock* group) noexcept {
  EventFlagGroups().Remove(handle);
  std::atomic_ref<EventFlagsControlBlock*>(*static_cast<LX_EVENT_FLAGS*>(handle))
      .store(nullptr, std::memory_order_release);
  pthread_mutex_destroy(&group->sLock);
  for (EventFlagsWaiter* waiter = group->psFirstWaiter; waiter != nullptr;) {
    EventFlagsWaiter* next = waiter->psNext;
    sem_destroy(&waiter->sSemaphore);
    std::free(waiter);
    waiter = next;
  }
  DropBlock(group);
  std::free(group);
}

namespace {

constexpr uint16_t kClearBit = 0x1;  // get option: clear the requested flags on success

EventFlagsWaiter* FirstWaiter(EventFlagsControlBlock& group) noexcept {
  return std::atomic_ref<EventFlagsWaiter*>(group.psFirstWaiter).load(std::memory_order_acquire);
}

// One armed wait fewer; never below zero. sLock held.
void LowerWaitCountLocked(EventFlagsControlBlock& group) noexcept {
  if (const uint32_t count = LoadRelaxed(group.u32WaitCount); count != 0) StoreRelaxed(group.u32WaitCount, count - 1);
}

// Finds or makes the caller's record and arms it; nullptr when a new record
// cannot be made. sLock held.
EventFlagsWaiter* ArmLocked(EventFlagsControlBlock& group, LX_THREAD* caller, uint32_t requested,
                            uint16_t option) noexcept {
  EventFlagsWaiter* last = nullptr;
  EventFlagsWaiter* waiter = group.psFirstWaiter;
  while (waiter != nullptr && waiter->psThread != caller) {
    last = waiter;
    waiter = waiter->psNext;
  }
  if (waiter == nullptr) {
    waiter = static_cast<EventFlagsWaiter*>(std::calloc(1, sizeof(EventFlagsWaiter)));
    if (waiter == nullptr) return nullptr;
    if (sem_init(&waiter->sSemaphore, 0, 0) != 0) {
      std::free(waiter);
      return nullptr;
    }
    waiter->psThread = caller;
    if (last != nullptr) {
      last->psNext = waiter;
    } else {  // published for info-get, which reads it without the lock
      std::atomic_ref<EventFlagsWaiter*>(group.psFirstWaiter).store(waiter, std::memory_order_release);
    }
  }
  waiter->u32RequestedFlags = requested;
  waiter->u16GetOption = option;
  StoreRelaxed(group.u32WaitCount, LoadRelaxed(group.u32WaitCount) + 1);
  return waiter;
}

// Withdraws a wait that ends without a post: a record still armed is
// disarmed and the count lowered (true); a record a set disarmed meanwhile
// has been posted (false). A wait for no flags is never satisfied, so
// nothing disarms it. sLock held.
bool WithdrawLocked(EventFlagsControlBlock& group, EventFlagsWaiter& waiter, uint32_t requested) noexcept {
  if (waiter.u32RequestedFlags == 0 && requested != 0) return false;
  waiter.u32RequestedFlags = 0;
  LowerWaitCountLocked(group);
  return true;
}

// A terminate cancels a thread inside its wait. On the way out the wait
// withdraws, or takes the post a set made before it disarmed the record
// (under sLock, so the post is there), and the record is left disarmed and
// empty for the next thread on the same handle word.
class CancelledWait {
 public:
  CancelledWait(EventFlagsControlBlock& group, EventFlagsWaiter& waiter, uint32_t requested) noexcept
      : group_(group), waiter_(waiter), requested_(requested) {}
  ~CancelledWait() {
    if (ended_) return;
    GroupLock lock(group_);
    if (!WithdrawLocked(group_, waiter_, requested_)) sem_trywait(&waiter_.sSemaphore);
  }
  CancelledWait(const CancelledWait&) = delete;
  CancelledWait& operator=(const CancelledWait&) = delete;
  void Ended() noexcept { ended_ = true; }

 private:
  EventFlagsControlBlock& group_;
  EventFlagsWaiter& waiter_;
  uint32_t requested_;
  bool ended_ = false;
};

// Sleeps until a set posts the armed record, the wait runs out or fails.
// A wait that ends without a post withdraws under sLock; if a set disarmed
// the record meanwhile, its post is taken and the set's flags returned. Not
// noexcept: a terminate may cancel the thread in the wait.
LX_STATUS AwaitSet(EventFlagsControlBlock& group, EventFlagsWaiter& waiter, uint32_t requested, uint32_t* actual,
                   uint32_t wait) {
  sem_t* semaphore = &waiter.sSemaphore;
  CancelledWait cancelled(group, waiter, requested);
  LX_STATUS failure = LX_NO_EVENTS;
  int error = 0;
  timespec deadline{};
  if (wait == LX_WAIT_FOREVER) {
    error = RetryInterrupted([&] { return sem_wait(semaphore); });
  } else if (DeadlineInTicks(wait, deadline)) {
    error = RetryInterrupted([&] { return sem_timedwait(semaphore, &deadline); });
  } else {
    error = -1;
    failure = LX_GROUP_ERROR;  // the realtime clock cannot be read
  }
  if (error != 0) {
    {
      GroupLock lock(group);
      if (WithdrawLocked(group, waiter, requested)) {
        cancelled.Ended();
        return failure;
      }
    }
    RetryInterrupted([&] { return sem_wait(semaphore); });  // posted before it was disarmed
  }
  cancelled.Ended();
  *actual = LoadRelaxed(waiter.u32ActualFlags);
  return LX_SUCCESS;
}

// Wakes every armed record the flags satisfy, in list order. sLock held.
void ReleaseSatisfiedLocked(EventFlagsControlBlock& group) noexcept {
  for (EventFlagsWaiter* waiter = group.psFirstWaiter; waiter != nullptr; waiter = waiter->psNext) {
    const uint32_t flags = LoadFlags(group);
    if (EventFlagCmp(flags, waiter->u32RequestedFlags, waiter->u16GetOption) == 0) continue;
    LowerWaitCountLocked(group);
    StoreRelaxed(waiter->u32ActualFlags, flags);
    if ((waiter->u16GetOption & kClearBit) != 0) {
      StoreFlags(group, flags & ~waiter->u32RequestedFlags);
    }
    waiter->u32RequestedFlags = 0;
    sem_post(&waiter->sSemaphore);
  }
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

uint32_t EventFlagCmp(uint32_t u32CurrentFlags, uint32_t u32RequestedFlags, uint16_t u16Option) {
  if (u32CurrentFlags == 0 || u32RequestedFlags == 0) return 0;
  const uint32_t present = u32CurrentFlags & u32RequestedFlags;
  if (u16Option == LX_AND || u16Option == LX_AND_CLEAR) return present == u32RequestedFlags ? 1 : 0;
  return present != 0 ? 1 : 0;
}

LX_STATUS _lx_EventFlagsCreate(LX_EVENT_FLAGS* psGroup, const char* pcName) {
  if (psGroup == nullptr || EventFlagGroups().Full()) return LX_GROUP_ERROR;
  auto* group = static_cast<EventFlagsControlBlock*>(std::calloc(1, sizeof(EventFlagsControlBlock)));
  if (group == nullptr) return LX_GROUP_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (TcbOf(caller) == nullptr || caller == G_psTimer) {
    std::free(group);
    return LX_CALLER_ERROR;
  }
  if (pcName != nullptr) BoundedCopy(group->acName, pcName, sizeof group->acName);
  if (pthread_mutex_init(&group->sLock, nullptr) != 0) {
    std::free(group);
    return LX_GROUP_ERROR;
  }
  // Registered only once fully built; a create racing for the last slot loses here.
  if (!EventFlagGroups().Add(psGroup)) {
    pthread_mutex_destroy(&group->sLock);
    std::free(group);
    return LX_GROUP_ERROR;
  }
  KeepBlock(group);
  std::atomic_ref<EventFlagsControlBlock*>(*psGroup).store(group, std::memory_order_release);
  return LX_SUCCESS;
}

LX_STATUS _lx_EventFlagsGet(LX_EVENT_FLAGS* psGroup, uint32_t u32RequestedFlags, uint16_t u16GetOption,
                            uint32_t* pu32ActualFlags, uint32_t u32WaitOption) {
  EventFlagsControlBlock* group = FindGroup(psGroup);
  if (group == nullptr) return LX_GROUP_ERROR;
  if (pu32ActualFlags == nullptr) return LX_PTR_ERROR;
  if (u16GetOption > LX_AND_CLEAR) return LX_OPTION_ERROR;
  LX_THREAD* caller = nullptr;
  if (u32WaitOption != LX_NO_WAIT) {  // only a get that may wait needs its caller
    caller = _lx_ThreadIdentify();
    if (caller == G_psTimer) return LX_WAIT_ERROR;
    if (TcbOf(caller) == nullptr) return LX_CALLER_ERROR;  // no thread of the system: no record of its own
  }
  EventFlagsWaiter* waiter = nullptr;
  {
    GroupLock lock(*group);
    const uint32_t flags = LoadFlags(*group);
    if (EventFlagCmp(flags, u32RequestedFlags, u16GetOption) != 0) {
      *pu32ActualFlags = flags;
      if ((u16GetOption & kClearBit) != 0) StoreFlags(*group, flags & ~u32RequestedFlags);
      return LX_SUCCESS;
    }
    if (u32WaitOption == LX_NO_WAIT) return LX_NO_EVENTS;
    waiter = ArmLocked(*group, caller, u32RequestedFlags, u16GetOption);
    if (waiter == nullptr) return LX_GROUP_ERROR;  // no memory for the thread's record
  }
  return AwaitSet(*group, *waiter, u32RequestedFlags, pu32ActualFlags, u32WaitOption);
}

LX_STATUS _lx_EventFlagsSet(LX_EVENT_FLAGS* psGroup, uint32_t u32Flags, uint16_t u16SetOption) {
  EventFlagsControlBlock* group = FindGroup(psGroup);
  if (group == nullptr) return LX_GROUP_ERROR;
  if (u16SetOption != LX_OR && u16SetOption != LX_AND) return LX_OPTION_ERROR;
  GroupLock lock(*group);
  const uint32_t flags = LoadFlags(*group);
  StoreFlags(*group, u16SetOption == LX_AND ? flags & u32Flags : flags | u32Flags);
  if (LoadRelaxed(group->u32WaitCount) != 0) ReleaseSatisfiedLocked(*group);
  return LX_SUCCESS;
}

LX_STATUS _lx_EventFlagsInfoGet(LX_EVENT_FLAGS* psGroup, char** ppcName, uint32_t* pu32CurrentFlags,
                                LX_THREAD** ppsFirstSuspended, uint32_t* pu32SuspendedCount,
                                LX_EVENT_FLAGS** ppsNextGroup) {
  EventFlagsControlBlock* group = FindGroup(psGroup);
  if (group == nullptr) return LX_GROUP_ERROR;
  if (ppcName == nullptr || pu32CurrentFlags == nullptr || ppsFirstSuspended == nullptr ||
      pu32SuspendedCount == nullptr || ppsNextGroup == nullptr) {
    return LX_PTR_ERROR;
  }
  // No lock: the values may come from the middle of a set.
  const EventFlagsWaiter* first = FirstWaiter(*group);
  *ppcName = group->acName;
  *pu32CurrentFlags = LoadFlags(*group);
  *ppsFirstSuspended = first != nullptr ? first->psThread : nullptr;
  *pu32SuspendedCount = LoadRelaxed(group->u32WaitCount);
  *ppsNextGroup = nullptr;
  return LX_SUCCESS;
}

LX_STATUS _lx_EventFlagsDelete(LX_EVENT_FLAGS*) {
  std::printf("%s is not implement\n", "_lx_EventFlagsDelete");
  return LX_SUCCESS;
}

// Internals shared by the semaphore and event-flag files and the dispatcher's
// tables: the group registry, and the class entry points the dispatcher calls
// (the exported CM_ functions run the same code, but dispatch never goes
// through an exported symbol).
#pragma once

#include <atomic>
#include <mutex>

#include "cm/cm_internal.h"
#include "cm/registry.h"
#include "quorvin/lx_event_flags.h"

namespace quorvin::detail {

// --- Event-flag groups (sync/event_flags.cpp). ---
extern void* S_paEventFlags[kRegistrySlots];
extern int32_t S_i32EventFlagsIndex;
HandleRegistry& EventFlagGroups() noexcept;

// The group a registered handle names, or nullptr (unknown handle, or its
// word is NULL).
EventFlagsControlBlock* FindGroup(void* handle) noexcept;

// Takes a group out of use: unregisters the handle, clears the handle word,
// then tears the group down (lock, waiter records and their semaphores) and
// frees it. Nobody may be inside a direct service on the group.
void RetireGroup(void* handle, EventFlagsControlBlock* group) noexcept;

// A group's lock, sLock. Both sides change u32CurrentFlags only under it (the
// dispatcher's class under S_sCmLock, so the order is S_sCmLock, then sLock);
// info-get and status checking read the flags without it. The thread is not
// suspended while it holds the lock, and nothing done under it is a
// cancellation point, so cancellation needs no holding off.
class GroupLock {
 public:
  explicit GroupLock(EventFlagsControlBlock& group) noexcept : mutex_(group.sLock), guard_(mutex_) {}

 private:
  NoSuspendSection section_;
  PosixMutex mutex_;
  std::lock_guard<PosixMutex> guard_;
};

inline uint32_t LoadFlags(const EventFlagsControlBlock& group) noexcept { return LoadRelaxed(group.u32CurrentFlags); }
// sLock held.
inline void StoreFlags(EventFlagsControlBlock& group, uint32_t flags) noexcept {
  StoreRelaxed(group.u32CurrentFlags, flags);
}

// --- Dispatcher entries (dispatcher thread, S_sCmLock held). ---
void SemaphoreClassFunction(uint16_t service, CmServiceRequest* request) noexcept;
void SemaphoreClassWakeUp(CmServiceRequest* driver) noexcept;
void SemaphoreClassWaitAbort(CmServiceRequest* abort) noexcept;
void EventFlagsClassFunction(uint16_t service, CmServiceRequest* request) noexcept;
void EventFlagsClassWakeUp(CmServiceRequest* driver) noexcept;
void EventFlagsClassWaitAbort(CmServiceRequest* abort) noexcept;

}  // namespace quorvin::detail

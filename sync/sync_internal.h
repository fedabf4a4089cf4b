// Internals shared by the semaphore and event-flag files and the dispatcher's
// tables: the group registry, and the class entry points the dispatcher calls
// (the exported CM_ functions run the same code, but dispatch never goes
// through an exported symbol).
#pragma once

#include <atomic>

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

// u32CurrentFlags is changed by both sides (the direct side under sLock, the
// dispatcher side without it): always atomically.
inline std::atomic_ref<uint32_t> CurrentFlags(EventFlagsControlBlock& group) noexcept {
  return std::atomic_ref<uint32_t>(group.u32CurrentFlags);
}

// --- Dispatcher entries (dispatcher thread, S_sCmLock held). ---
void SemaphoreClassFunction(uint16_t service, CmServiceRequest* request) noexcept;
void SemaphoreClassWakeUp(CmServiceRequest* driver) noexcept;
void SemaphoreClassWaitAbort(CmServiceRequest* abort) noexcept;
void EventFlagsClassFunction(uint16_t service, CmServiceRequest* request) noexcept;
void EventFlagsClassWakeUp(CmServiceRequest* driver) noexcept;
void EventFlagsClassWaitAbort(CmServiceRequest* abort) noexcept;

}  // namespace quorvin::detail

// The dispatcher's event-flag class (0x30): gets, sets and deletes on the
// same groups as the direct services, served on the dispatcher thread with
// S_sCmLock held. Waiting gets hang on the group's suspend list. The flags
// are read and changed under the group's sLock, taken briefly under
// S_sCmLock; the direct side's waiter records are never touched here (only a
// delete tears them down).
//
// This class's matching rule differs from EventFlagCmp: an all-flags request
// of 0 is satisfied at once, an any-flag request of 0 never, and clearing
// empties all 32 flags.
#include "cm/object_class.h"
#include "sync/sync_internal.h"

namespace quorvin::detail {
namespace {

constexpr uint64_t kAllFlagsBit = 0x2;  // u64Option of a get: every requested flag must be set
constexpr uint64_t kClearBit = 0x1;     // u64Option of a get: clear the flags on success
constexpr uint64_t kSetOptionMask = 0xFFFF;

SuspendCtrl* GroupList(void* handle) noexcept {
  EventFlagsControlBlock* group =
      handle != nullptr ? std::atomic_ref<EventFlagsControlBlock*>(*static_cast<LX_EVENT_FLAGS*>(handle))
                              .load(std::memory_order_acquire)
                        : nullptr;
  return group != nullptr ? &group->sSuspendCtrl : nullptr;
}

constexpr uint16_t GroupTimeout(const SuspendCtrl&) noexcept { return LX_NO_EVENTS; }

constexpr SuspendClass kEventFlagsClass{&GroupList, &GroupTimeout, &FrontCountUp};

bool Satisfied(uint64_t requested, uint64_t option, uint32_t flags) noexcept {
  const uint64_t present = requested & flags;
  return (option & kAllFlagsBit) != 0 ? present == requested : present != 0;
}

// The request's group, or nullptr (answered with LX_GROUP_ERROR) when its
// handle is not registered or its word is NULL: a deleted group included.
EventFlagsControlBlock* DispatchedGroup(CmServiceRequest& request) noexcept {
  EventFlagsControlBlock* group = FindGroup(request.pvObject);
  if (group == nullptr) CompleteLocked(request, LX_GROUP_ERROR);
  return group;
}

// Takes the flags for a get when they satisfy it: stores them through its
// pvData and, for a clearing get, empties the group (under the group's lock,
// so the flags taken are exactly the flags cleared, even against a
// concurrent direct set).
bool TakeIfSatisfied(EventFlagsControlBlock& group, CmServiceRequest& get) noexcept {
  uint32_t flags = 0;
  {
    GroupLock lock(group);
    flags = LoadFlags(group);
    if (!Satisfied(get.u64Value, get.u64Option, flags)) return false;
    if ((get.u64Option & kClearBit) != 0) StoreFlags(group, 0);
  }
  *static_cast<uint32_t*>(get.pvData) = flags;
  return true;
}

void Get(CmServiceRequest& request) noexcept {
  EventFlagsControlBlock* group = DispatchedGroup(request);
  if (group == nullptr) return;
  if (request.pvData == nullptr) {
    CompleteLocked(request, LX_PTR_ERROR);
    return;
  }
  if (TakeIfSatisfied(*group, request)) {
    CompleteLocked(request, LX_SUCCESS);
    return;
  }
  ParkRequest(request, group->sSuspendCtrl, LX_STATE_EVENT_FLAGS_WAIT, LX_NO_EVENTS, CM_SUSPEND_COUNT_UP);
}

// Releases, first come first served, every waiting get the flags satisfy;
// after each release the scan starts again from the first waiter, since a
// clearing get changes what the others see.
void ReleaseSatisfied(EventFlagsControlBlock& group) noexcept {
  SuspendCtrl& list = group.sSuspendCtrl;
  SuspendNode* node = list.psFirstSuspend;
  for (uint32_t left = Waiters(list.i32SuspendCount); node != nullptr && left > 0;) {
    CmServiceRequest* waiting = OwnerRequest(*node);
    if (waiting != nullptr && TakeIfSatisfied(group, *waiting)) {
      CM_RemoveTargetFromSuspendListEx(&list, node, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
      node = list.psFirstSuspend;
      left = Waiters(list.i32SuspendCount);
      continue;
    }
    if (waiting != nullptr) waiting->u16Status = LX_NO_EVENTS;
    node = node->psNext;
    --left;
  }
  if (list.psFirstSuspend == nullptr) list.i32SuspendCount = 0;
}

void Set(CmServiceRequest& request) noexcept {
  EventFlagsControlBlock* group = DispatchedGroup(request);
  if (group == nullptr) return;
  const auto flags = static_cast<uint32_t>(request.u64Value);
  uint16_t status = LX_SUCCESS;
  {
    GroupLock lock(*group);
    switch (request.u64Option & kSetOptionMask) {
      case LX_OR: StoreFlags(*group, LoadFlags(*group) | flags); break;
      case LX_AND: StoreFlags(*group, LoadFlags(*group) & flags); break;
      default: status = LX_OPTION_ERROR;  // flags unchanged; the waiters are still examined
    }
  }
  CompleteLocked(request, status);  // the setter goes before any waiter
  if (group->sSuspendCtrl.i32SuspendCount > 0) ReleaseSatisfied(*group);
}

void Delete(CmServiceRequest& request) noexcept {
  EventFlagsControlBlock* group = DispatchedGroup(request);
  if (group == nullptr) return;
  CM_WakeUpAllThreadInSuspendList(&request, &group->sSuspendCtrl, LX_DELETED);
  RetireGroup(request.pvObject, group);
  CompleteLocked(request, LX_SUCCESS);
}

}  // namespace

void EventFlagsClassFunction(uint16_t service, CmServiceRequest* request) noexcept {
  switch (service) {
    case CM_EVENT_FLAGS_DELETE: Delete(*request); break;
    case CM_EVENT_FLAGS_GET: Get(*request); break;
    case CM_EVENT_FLAGS_SET: Set(*request); break;
    default: CompleteLocked(*request, LX_NOT_AVAILABLE);
  }
}

void EventFlagsClassWakeUp(CmServiceRequest* driver) noexcept { WakeUpWaiter(kEventFlagsClass, *driver); }

void EventFlagsClassWaitAbort(CmServiceRequest* abort) noexcept { WaitAbortWaiter(kEventFlagsClass, *abort); }

}  // namespace quorvin::detail

using namespace quorvin::detail;

void CM_EventFlagsFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  EventFlagsClassFunction(u16Service, psRequest);
}

int32_t CM_EventFlagsGet(CmServiceRequest* psRequest) {
  Get(*psRequest);
  return 0;
}

int32_t CM_EventFlagsSet(CmServiceRequest* psRequest) {
  Set(*psRequest);
  return 0;
}

int32_t CM_EventFlagsDelete(CmServiceRequest* psRequest) {
  Delete(*psRequest);
  return 0;
}

int32_t CM_EventFlagsStatusChecking(CmServiceRequest* psRequest) {
  EventFlagsControlBlock* group = FindGroup(psRequest->pvObject);
  if (group == nullptr) {
    psRequest->u16Status = LX_GROUP_ERROR;
    return 0;
  }
  const uint32_t flags = LoadFlags(*group);
  psRequest->u16Status = Satisfied(psRequest->u64Value, psRequest->u64Option, flags) ? LX_SUCCESS : LX_NO_EVENTS;
  return 0;
}

void CM_EventFlagsWakeUp(CmServiceRequest* psRequest) { EventFlagsClassWakeUp(psRequest); }

void CM_EventFlagsWaitAbort(CmServiceRequest* psRequest) { EventFlagsClassWaitAbort(psRequest); }

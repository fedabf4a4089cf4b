#include "cm/object_class.h"

namespace quorvin::detail {

namespace {

constexpr uint16_t kNoPreferredPriority = 31;

}  // namespace

void ParkRequest(CmServiceRequest& request, SuspendCtrl& list, uint16_t waitState, uint16_t status,
                 uint8_t flags) noexcept {
  SetThreadState(request.psThread, waitState);
  request.u16Status = status;
  CM_AddToSuspendList(&request, &list, flags);
}

void WakeUpWaiter(const SuspendClass& cls, CmServiceRequest& driver) noexcept {
  auto* waiting = static_cast<CmServiceRequest*>(driver.pvObject);
  if (waiting == nullptr) return;
  SuspendCtrl* list = cls.listOf(waiting->pvObject);
  if (list == nullptr || list->i32SuspendCount == 0) return;
  SuspendNode* node = list->psFirstSuspend;
  for (uint32_t left = Waiters(list->i32SuspendCount); node != nullptr && left > 0; --left) {
    if (node->psOwner == driver.psTarget) break;
    node = node->psNext;
  }
  if (node == nullptr || node->psOwner != driver.psTarget) return;
  if (LoadService(driver) == CM_OP_TIMEOUT) {
    CM_RemoveTargetFromSuspendListEx(list, node, CM_REMOVE_WITH_STATUS, cls.timeoutStatus(*list));
  } else {
    CM_RemoveTargetFromSuspendListEx(list, node, CM_REMOVE_ABORTED, CM_STATUS_UNUSED);
  }
}

void WaitAbortWaiter(const SuspendClass& cls, CmServiceRequest& abort) noexcept {
  ThreadControlBlock* target = TcbOf(abort.psTarget);
  if (target == nullptr) return;
  abort.pvObject = &target->sRequest;
  WakeUpWaiter(cls, abort);
}

SuspendNode* FindPreferredWaiter(const SuspendCtrl& list) noexcept {
  SuspendNode* chosen = nullptr;
  uint16_t best = kNoPreferredPriority;
  SuspendNode* node = list.psLastSuspend;
  for (uint32_t left = Waiters(list.i32SuspendCount); node != nullptr && left > 0; --left) {
    if (const ThreadControlBlock* owner = TcbOf(node->psOwner)) {
      const uint16_t priority = LoadRelaxed(owner->u16Priority);
      if (priority < best) {
        best = priority;
        chosen = node;
      }
    }
    node = node->psPrev;
  }
  return chosen;
}

void PrioritizeWaiters(const SuspendClass& cls, CmServiceRequest& request, SuspendCtrl& list) noexcept {
  request.u16Status = LX_SUCCESS;
  if (Waiters(list.i32SuspendCount) > 1) {
    SuspendNode* chosen = FindPreferredWaiter(list);
    CmServiceRequest* moved = chosen != nullptr ? OwnerRequest(*chosen) : nullptr;
    if (moved == nullptr) {
      request.u16Status = LX_NOT_AVAILABLE;
    } else {
      CM_RemoveTargetFromSuspendListEx(&list, chosen, CM_REMOVE_UNLINK_ONLY, CM_STATUS_UNUSED);
      CM_AddToSuspendList(moved, &list, cls.frontFlags(list));
    }
  }
  CM_WakeUpThread(&request);
}

}  // namespace quorvin::detail

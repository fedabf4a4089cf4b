// Suspend lists: the one place that links and unlinks waiting requests.
//
// Every operation here runs on the dispatcher thread with S_sCmLock held, so
// the lists need no lock of their own. A released request gets its state,
// status and service code written before its reply byte, so its thread sees
// them when it wakes.
#include <unistd.h>

#include <cstddef>

#include "cm/cm_internal.h"
#include "cm/trace.h"
#include "kernel/platform.h"

namespace quorvin::detail {
namespace {

// The request a node belongs to: the request of the thread that owns it, or,
// for a node whose owner names no thread, the request it is embedded in.
CmServiceRequest& RequestOfNode(SuspendNode& node) noexcept {
  if (CmServiceRequest* owned = OwnerRequest(node)) return *owned;
  return *reinterpret_cast<CmServiceRequest*>(reinterpret_cast<char*>(&node) -
                                              offsetof(CmServiceRequest, sSuspendNode));
}

// Ends a parked request: deregisters it from the sleep agent (clearing its
// service code, so an expiry already captured for it finds class 0), sets its
// status and its thread's state, and writes its reply byte.
void ReleaseLocked(CmServiceRequest& request, LX_THREAD* owner, uint16_t status) noexcept {
  if (LoadInSleepAgent(request) != 0) {
    StoreInSleepAgent(request, 0);
    StoreService(request, 0);
    SleepAgentRemoveRequest(&request);
  }
  request.u16Status = status;
  SetThreadState(owner, LX_STATE_READY);
  CM_WakeUpThread(&request);
}

uint16_t StatusForMode(uint8_t mode, uint16_t status) noexcept {
  switch (mode) {
    case CM_REMOVE_SUCCESS: return LX_SUCCESS;
    case CM_REMOVE_ABORTED: return LX_WAIT_ABORTED;
    default: return status;
  }
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

void CM_AddToSuspendList(CmServiceRequest* psRequest, SuspendCtrl* psSuspendCtrl, uint8_t u8Flags) {
  const uint32_t waitOption = LoadWaitOption(*psRequest);
  // A request still registered with the sleep agent (one that a prioritize
  // took off the list and adds again) has a wait option that counts the ticks
  // left: 0 there means "expires on the next pass", not "do not wait".
  if (waitOption == LX_NO_WAIT && LoadInSleepAgent(*psRequest) == 0) {
    // Completes with the status the handler stored beforehand.
    SetThreadState(psRequest->psThread, LX_STATE_READY);
    CM_WakeUpThread(psRequest);
    return;
  }
  SuspendNode* node = &psRequest->sSuspendNode;
  SuspendCtrl& list = *psSuspendCtrl;
  node->psOwner = psRequest->psThread;
  const bool atFront = (u8Flags & CM_SUSPEND_AT_FRONT) != 0;
  if (list.i32SuspendCount == 0 || (atFront ? list.psFirstSuspend : list.psLastSuspend) == nullptr) {
    node->psNext = nullptr;
    node->psPrev = nullptr;
    list.psFirstSuspend = node;
    list.psLastSuspend = node;
  } else if (atFront) {
    node->psPrev = nullptr;
    node->psNext = list.psFirstSuspend;
    list.psFirstSuspend->psPrev = node;
    list.psFirstSuspend = node;
  } else {
    node->psNext = nullptr;
    node->psPrev = list.psLastSuspend;
    list.psLastSuspend->psNext = node;
    list.psLastSuspend = node;
  }
  list.i32SuspendCount += (u8Flags & CM_SUSPEND_COUNT_UP) != 0 ? 1 : -1;
  NoteParked(*psRequest, &list);
  QV_TRACE4(parked, psRequest->psThread, psRequest->pvObject, LoadService(*psRequest), waitOption);
  // A request moved by a prioritize keeps its one registration and the ticks
  // it has left.
  if (waitOption == LX_WAIT_FOREVER || LoadInSleepAgent(*psRequest) != 0) return;
  SleepAgentAddRequest(psRequest);
}

void CM_RemoveTargetFromSuspendListEx(SuspendCtrl* psSuspendCtrl, SuspendNode* psNode,
                                      uint8_t u8Mode, uint16_t u16Status) {
  SuspendCtrl& list = *psSuspendCtrl;
  SuspendNode& node = *psNode;
  if (node.psPrev == nullptr && node.psNext == nullptr) {
    if (list.psFirstSuspend != nullptr) list.psFirstSuspend->psNext = list.psFirstSuspend->psPrev = nullptr;
    if (list.psLastSuspend != nullptr) list.psLastSuspend->psNext = list.psLastSuspend->psPrev = nullptr;
    list.psFirstSuspend = nullptr;
    list.psLastSuspend = nullptr;
  } else if (node.psPrev == nullptr) {
    list.psFirstSuspend = node.psNext;
    node.psNext->psPrev = nullptr;
  } else if (node.psNext == nullptr) {
    list.psLastSuspend = node.psPrev;
    node.psPrev->psNext = nullptr;
    node.psPrev = nullptr;
  } else {
    node.psPrev->psNext = node.psNext;
    node.psNext->psPrev = node.psPrev;
  }
  if (list.i32SuspendCount < 0) {
    ++list.i32SuspendCount;
  } else if (list.i32SuspendCount > 0) {
    --list.i32SuspendCount;
  }
  CmServiceRequest& request = RequestOfNode(node);
  NoteParked(request, nullptr);
  if (u8Mode == CM_REMOVE_UNLINK_ONLY) return;
  QV_TRACE4(released, node.psOwner, request.pvObject, u8Mode, StatusForMode(u8Mode, u16Status));
  ReleaseLocked(request, node.psOwner, StatusForMode(u8Mode, u16Status));
}

void CM_WakeUpAllThreadInSuspendList(CmServiceRequest*, SuspendCtrl* psSuspendCtrl, uint16_t u16Status) {
  static constexpr char kShortList[] =
      "psSuspendCtrl->psFirstSuspend NULL in CM_WakeUpAllThreadInSuspendList";
  static_assert(sizeof kShortList - 1 == 69);
  SuspendCtrl& list = *psSuspendCtrl;
  const int32_t count = list.i32SuspendCount;
  const uint32_t waiters = count < 0 ? 0u - static_cast<uint32_t>(count) : static_cast<uint32_t>(count);
  for (uint32_t i = 0; i < waiters; ++i) {
    SuspendNode* node = list.psFirstSuspend;
    if (node == nullptr) {
      NoCancelScope noCancel;  // a requester running its own handler holds S_sCmLock here
      WriteAll(STDERR_FILENO, kShortList, sizeof kShortList - 1);
      break;
    }
    list.psFirstSuspend = node->psNext;
    if (list.psFirstSuspend != nullptr) list.psFirstSuspend->psPrev = nullptr;
    CmServiceRequest& request = RequestOfNode(*node);
    NoteParked(request, nullptr);
    QV_TRACE4(released, node->psOwner, request.pvObject, 4, u16Status);
    ReleaseLocked(request, node->psOwner, u16Status);
  }
  list.i32SuspendCount = 0;
}

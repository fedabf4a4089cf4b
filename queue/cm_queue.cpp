// The dispatcher's queue class (service class 0x60): senders and receivers of
// a dispatcher queue wait on its suspend list; its messages live in a queue
// list store. Every handler runs on the dispatcher thread with S_sCmLock held.
//
// The sign of the suspend count says who waits: receivers (negative; the
// queue is then empty) or senders (positive; the queue is then full). A send
// to waiting receivers, or a receive from a queue with waiting senders, hands
// one message over and leaves the fill level as it was. Each handler
// completes its requester before it releases a waiter, so the requester may
// run again while the waiter is being woken.
#include <atomic>
#include <cstdlib>

#include "cm/object_class.h"
#include "quorvin/lx_queue.h"

namespace quorvin::detail {
namespace {

CmQueueCtrl* QueueOf(void* handle) noexcept {
  return handle != nullptr
             ? std::atomic_ref<CmQueueCtrl*>(*static_cast<CM_QUEUE*>(handle)).load(std::memory_order_acquire)
             : nullptr;
}

SuspendCtrl* QueueWaiters(void* handle) noexcept {
  CmQueueCtrl* queue = QueueOf(handle);
  return queue != nullptr ? &queue->sSuspendCtrl : nullptr;
}

constexpr uint16_t QueueTimeout(const SuspendCtrl& list) noexcept {
  return list.i32SuspendCount > 0 ? LX_QUEUE_FULL : LX_QUEUE_EMPTY;
}

// Taken after the prioritized waiter was unlinked: receivers keep counting down.
constexpr uint8_t QueueFrontFlags(const SuspendCtrl& list) noexcept {
  return list.i32SuspendCount < 0 ? CM_SUSPEND_AT_FRONT : CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP;
}

constexpr SuspendClass kQueueClass{&QueueWaiters, &QueueTimeout, &QueueFrontFlags};

// The queue a request names, or nullptr once the request has been answered
// with LX_QUEUE_ERROR (no handle, or a handle word cleared by a delete).
CmQueueCtrl* DispatchedQueue(CmServiceRequest& request) noexcept {
  CmQueueCtrl* queue = QueueOf(request.pvObject);
  if (queue == nullptr) CompleteLocked(request, LX_QUEUE_ERROR);
  return queue;
}

// Send and receive move a message through pvData; without one they are
// answered LX_PTR_ERROR before anything changes.
CmQueueCtrl* DispatchedTransfer(CmServiceRequest& request) noexcept {
  CmQueueCtrl* queue = DispatchedQueue(request);
  if (queue != nullptr && request.pvData == nullptr) {
    CompleteLocked(request, LX_PTR_ERROR);
    return nullptr;
  }
  return queue;
}

// The request at the front of the waiters whose sign the count has now, or
// nullptr when none of that kind waits.
CmServiceRequest* FirstWaiter(const SuspendCtrl& list, bool senders) noexcept {
  const bool found = senders ? list.i32SuspendCount > 0 : list.i32SuspendCount < 0;
  return found && list.psFirstSuspend != nullptr ? OwnerRequest(*list.psFirstSuspend) : nullptr;
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

void CM_QueueFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  switch (u16Service) {
    case CM_QUEUE_DELETE: CM_QueueDelete(psRequest); break;
    case CM_QUEUE_FLUSH: CM_QueueFlush(psRequest); break;
    case CM_QUEUE_FRONT_SEND:
    case CM_QUEUE_SEND: CM_QueueSend(u16Service, psRequest); break;
    case CM_QUEUE_PRIORITIZE: CM_QueuePrioritize(psRequest); break;
    case CM_QUEUE_RECEIVE: CM_QueueReceive(psRequest); break;
    default: CompleteLocked(*psRequest, LX_NOT_AVAILABLE);
  }
}

int32_t CM_QueueSend(uint16_t u16Service, CmServiceRequest* psRequest) {
  CmQueueCtrl* queue = DispatchedTransfer(*psRequest);
  if (queue == nullptr) return 0;
  const bool atFront = u16Service == CM_QUEUE_FRONT_SEND;
  SuspendCtrl& waiting = queue->sSuspendCtrl;
  psRequest->u16Status = LX_SUCCESS;
  if (queue->u32FreeSlots == 0) {
    const uint8_t flags = atFront ? CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP : CM_SUSPEND_COUNT_UP;
    ParkRequest(*psRequest, waiting, LX_STATE_QUEUE_WAIT, LX_QUEUE_FULL, flags);
    return 0;
  }
  if (QueueListSend(queue->psList, psRequest->pvData, atFront ? 0 : 1, 0) != 0) {
    CompleteLocked(*psRequest, LX_QUEUE_ERROR);
    return 0;
  }
  CM_WakeUpThread(psRequest);
  if (CmServiceRequest* receiver = FirstWaiter(waiting, false)) {  // it takes the front message
    QueueListReceive(queue->psList, receiver->pvData, 0, 0);
    CM_RemoveTargetFromSuspendListEx(&waiting, waiting.psFirstSuspend, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  } else {
    --queue->u32FreeSlots;
  }
  return 0;
}

int32_t CM_QueueReceive(CmServiceRequest* psRequest) {
  CmQueueCtrl* queue = DispatchedTransfer(*psRequest);
  if (queue == nullptr) return 0;
  SuspendCtrl& waiting = queue->sSuspendCtrl;
  psRequest->u16Status = LX_SUCCESS;
  if (queue->u32FreeSlots >= queue->u32Capacity) {
    ParkRequest(*psRequest, waiting, LX_STATE_QUEUE_WAIT, LX_QUEUE_EMPTY, 0);
    return 0;
  }
  if (QueueListReceive(queue->psList, psRequest->pvData, 0, 0) != 0) {
    CompleteLocked(*psRequest, LX_QUEUE_ERROR);
    return 0;
  }
  CM_WakeUpThread(psRequest);
  if (CmServiceRequest* sender = FirstWaiter(waiting, true)) {  // its message takes the freed place
    QueueListSend(queue->psList, sender->pvData, LoadService(*sender) == CM_QUEUE_FRONT_SEND ? 0 : 1, 0);
    CM_RemoveTargetFromSuspendListEx(&waiting, waiting.psFirstSuspend, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  } else {
    ++queue->u32FreeSlots;
  }
  return 0;
}

int32_t CM_QueueFlush(CmServiceRequest* psRequest) {
  CmQueueCtrl* queue = DispatchedQueue(*psRequest);
  if (queue == nullptr) return 0;
  psRequest->u16Status = LX_SUCCESS;
  QueueListFlush(queue->psList);
  if (queue->sSuspendCtrl.i32SuspendCount > 0) {  // senders go, their messages dropped; receivers stay
    CM_WakeUpAllThreadInSuspendList(psRequest, &queue->sSuspendCtrl, LX_SUCCESS);
  }
  queue->u32FreeSlots = queue->u32Capacity;
  CM_WakeUpThread(psRequest);
  return 0;
}

int32_t CM_QueueDelete(CmServiceRequest* psRequest) {
  CmQueueCtrl* queue = DispatchedQueue(*psRequest);
  if (queue == nullptr) return 0;
  psRequest->u16Status = LX_SUCCESS;
  QueueListDelete(queue->psList);
  CM_WakeUpAllThreadInSuspendList(psRequest, &queue->sSuspendCtrl, LX_DELETED);
  std::atomic_ref<CmQueueCtrl*>(*static_cast<CM_QUEUE*>(psRequest->pvObject)).store(nullptr, std::memory_order_release);
  std::free(queue);  // storage made with the queue goes with it
  CM_WakeUpThread(psRequest);
  return 0;
}

int32_t CM_QueuePrioritize(CmServiceRequest* psRequest) {
  CmQueueCtrl* queue = DispatchedQueue(*psRequest);
  if (queue == nullptr) return 0;
  PrioritizeWaiters(kQueueClass, *psRequest, queue->sSuspendCtrl);
  return 0;
}

void CM_QueueWakeUp(CmServiceRequest* psDriver) { WakeUpWaiter(kQueueClass, *psDriver); }

void CM_QueueWaitAbort(CmServiceRequest* psRequest) { WaitAbortWaiter(kQueueClass, *psRequest); }

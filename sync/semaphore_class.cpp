// The dispatcher's semaphore class (0x70): a counting semaphore with a
// ceiling, served on the dispatcher thread with S_sCmLock held. Gets that find
// no count wait on the block's suspend list; a put hands its count straight
// to the first waiter. No interface service sends these requests; their
// sender provides the control block (see lx_semaphore.h).
#include <cstdlib>

#include "cm/object_class.h"
#include "quorvin/lx_semaphore.h"
#include "sync/sync_internal.h"

namespace quorvin::detail {
namespace {

CmSemaphoreControlBlock* BlockOf(void* handle) noexcept {
  return handle != nullptr ? *static_cast<CmSemaphoreControlBlock**>(handle) : nullptr;
}

SuspendCtrl* SemaphoreList(void* handle) noexcept {
  CmSemaphoreControlBlock* block = BlockOf(handle);
  return block != nullptr ? &block->sSuspendCtrl : nullptr;
}

constexpr uint16_t SemaphoreTimeout(const SuspendCtrl&) noexcept { return LX_NO_INSTANCE; }

constexpr SuspendClass kSemaphoreClass{&SemaphoreList, &SemaphoreTimeout, &FrontCountUp};

// The request's block, or nullptr (answered with LX_SEMAPHORE_ERROR) for a
// NULL handle or handle word.
CmSemaphoreControlBlock* DispatchedBlock(CmServiceRequest& request) noexcept {
  CmSemaphoreControlBlock* block = BlockOf(request.pvObject);
  if (block == nullptr) CompleteLocked(request, LX_SEMAPHORE_ERROR);
  return block;
}

void Get(CmServiceRequest& request) noexcept {
  CmSemaphoreControlBlock* block = DispatchedBlock(request);
  if (block == nullptr) return;
  if (block->u32Count != 0) {
    --block->u32Count;
    CompleteLocked(request, LX_SUCCESS);
    return;
  }
  ParkRequest(request, block->sSuspendCtrl, LX_STATE_SEMAPHORE_WAIT, LX_NO_INSTANCE, CM_SUSPEND_COUNT_UP);
}

void Put(CmServiceRequest& request) noexcept {
  CmSemaphoreControlBlock* block = DispatchedBlock(request);
  if (block == nullptr) return;
  CompleteLocked(request, LX_SUCCESS);  // the putter goes before the hand-over
  SuspendCtrl& list = block->sSuspendCtrl;
  if (list.i32SuspendCount > 0) {
    CM_RemoveTargetFromSuspendListEx(&list, list.psFirstSuspend, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  } else if (block->u32Count < block->u32Ceiling) {
    ++block->u32Count;
  }
}

void Delete(CmServiceRequest& request) noexcept {
  CmSemaphoreControlBlock* block = DispatchedBlock(request);
  if (block == nullptr) return;
  CM_WakeUpAllThreadInSuspendList(&request, &block->sSuspendCtrl, LX_DELETED);
  std::free(block);
  CompleteLocked(request, LX_SUCCESS);
}

void Prioritize(CmServiceRequest& request) noexcept {
  CmSemaphoreControlBlock* block = DispatchedBlock(request);
  if (block == nullptr) return;
  PrioritizeWaiters(kSemaphoreClass, request, block->sSuspendCtrl);
}

}  // namespace

void SemaphoreClassFunction(uint16_t service, CmServiceRequest* request) noexcept {
  switch (service) {
    case CM_SEMAPHORE_DELETE: Delete(*request); break;
    case CM_SEMAPHORE_GET: Get(*request); break;
    case CM_SEMAPHORE_PRIORITIZE: Prioritize(*request); break;
    case CM_SEMAPHORE_PUT: Put(*request); break;
    default: CompleteLocked(*request, LX_NOT_AVAILABLE);  // 0x74 included: nothing changes
  }
}

void SemaphoreClassWakeUp(CmServiceRequest* driver) noexcept { WakeUpWaiter(kSemaphoreClass, *driver); }

void SemaphoreClassWaitAbort(CmServiceRequest* abort) noexcept { WaitAbortWaiter(kSemaphoreClass, *abort); }

}  // namespace quorvin::detail

using namespace quorvin::detail;

void CM_SemaphoreFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  SemaphoreClassFunction(u16Service, psRequest);
}

int32_t CM_SemaphoreGet(CmServiceRequest* psRequest) {
  Get(*psRequest);
  return 0;
}

int32_t CM_SemaphorePut(CmServiceRequest* psRequest) {
  Put(*psRequest);
  return 0;
}

int32_t CM_SemaphoreDelete(CmServiceRequest* psRequest) {
  Delete(*psRequest);
  return 0;
}

int32_t CM_SemaphorePrioritize(CmServiceRequest* psRequest) {
  Prioritize(*psRequest);
  return 0;
}

void CM_SemaphoreWakeUp(CmServiceRequest* psDriver) { SemaphoreClassWakeUp(psDriver); }

void CM_SemaphoreWaitAbort(CmServiceRequest* psRequest) { SemaphoreClassWaitAbort(psRequest); }

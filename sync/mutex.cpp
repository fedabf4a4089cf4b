// Mutexes: the _lx_Mutex services (calling thread) and the CM_Mutex handlers
// (dispatcher thread, S_sCmLock held).
//
// The control block changes only on the dispatcher. The registry is read and
// changed by the calling threads under its own lock. A put completes its
// requester before it hands the mutex over, so the putting thread may run
// again while the new owner is being woken.
#include <cstdlib>
#include <mutex>

#include "cm/debug_table.h"
#include "cm/object_class.h"
#include "cm/registry.h"
#include "cm/trace.h"
#include "kernel/platform.h"
#include "quorvin/lx_mutex.h"
#include "quorvin/lx_timer.h"

namespace quorvin::detail {

void* S_paMutex[kRegistrySlots] = {};
int32_t S_i32MutexIndex = 0;
QV_DEBUG_ENTRY("mutex", S_paMutex, kRegistrySlots);
QV_DEBUG_ENTRY("mutexn", &S_i32MutexIndex, 0);

namespace {

constinit HandleRegistry g_mutexes(S_paMutex, S_i32MutexIndex);

HandleRegistry& Mutexes() noexcept { return g_mutexes; }

MutexControlBlock* MutexOf(void* handle) noexcept {
  return handle != nullptr
             ? std::atomic_ref<MutexControlBlock*>(*static_cast<LX_MUTEX*>(handle)).load(std::memory_order_acquire)
             : nullptr;
}

SuspendCtrl* MutexList(void* handle) noexcept {
  MutexControlBlock* mutex = MutexOf(handle);
  return mutex != nullptr ? &mutex->sSuspendCtrl : nullptr;
}

constexpr uint16_t MutexTimeout(const SuspendCtrl&) noexcept { return LX_NOT_AVAILABLE; }

constexpr SuspendClass kMutexClass{&MutexList, &MutexTimeout, &FrontCountUp};

// Checks shared by get, put and delete, in their order; the caller's handle
// comes back through caller.
LX_STATUS CheckHandle(LX_MUTEX* handle, LX_THREAD*& caller) noexcept {
  if (!Mutexes().Contains(handle)) return LX_MUTEX_ERROR;
  if (MutexOf(handle) == nullptr) return LX_MUTEX_ERROR;
  caller = _lx_ThreadIdentify();
  if (caller == G_psTimer) return LX_CALLER_ERROR;
  return LX_SUCCESS;
}


// A caller that is not a thread of the system has no request block.
bool Registered(LX_THREAD* caller) noexcept { return TcbOf(caller) != nullptr; }

// The dispatcher's mutex, or nullptr (answered with LX_MUTEX_ERROR) when the
// handle word was cleared between the caller's check and the dispatch.
MutexControlBlock* DispatchedMutex(CmServiceRequest& request) noexcept {
  MutexControlBlock* mutex = MutexOf(request.pvObject);
  if (mutex == nullptr) CompleteLocked(request, LX_MUTEX_ERROR);
  return mutex;
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_MutexCreate(LX_MUTEX* psMutex, const char* pcName, uint16_t u16Inherit) {
  if (psMutex == nullptr) return LX_MUTEX_ERROR;
  auto* mutex = static_cast<MutexControlBlock*>(std::calloc(1, sizeof(MutexControlBlock)));
  if (mutex == nullptr) return LX_MUTEX_ERROR;
  if (u16Inherit > 1) {
    std::free(mutex);
    return LX_INHERIT_ERROR;
  }
  if (pcName != nullptr) BoundedCopy(mutex->acName, pcName, sizeof mutex->acName);
  mutex->u32Inherit = u16Inherit;
  mutex->u32Available = 1;
  if (!Mutexes().Add(psMutex)) {  // all 50 slots in use
    std::free(mutex);
    return LX_MUTEX_ERROR;
  }
  std::atomic_ref<MutexControlBlock*>(*psMutex).store(mutex, std::memory_order_release);
  return LX_SUCCESS;
}

LX_STATUS _lx_MutexGet(LX_MUTEX* psMutex, uint32_t u32WaitOption) {
  LX_THREAD* caller = nullptr;
  if (const LX_STATUS status = CheckHandle(psMutex, caller); status != LX_SUCCESS) return status;
  if (!Registered(caller)) return LX_MUTEX_ERROR;
  return IssueOwnRequest(caller, CM_MUTEX_GET, psMutex, u32WaitOption);
}

LX_STATUS _lx_MutexPut(LX_MUTEX* psMutex) {
  LX_THREAD* caller = nullptr;
  if (const LX_STATUS status = CheckHandle(psMutex, caller); status != LX_SUCCESS) return status;
  if (!Registered(caller)) return LX_MUTEX_ERROR;
  return IssueOwnRequest(caller, CM_MUTEX_PUT, psMutex, LX_NO_WAIT);
}

LX_STATUS _lx_MutexDelete(LX_MUTEX* psMutex) {
  LX_THREAD* caller = nullptr;
  if (const LX_STATUS status = CheckHandle(psMutex, caller); status != LX_SUCCESS) return status;
  if (!Registered(caller)) return LX_MUTEX_ERROR;
  const LX_STATUS status = IssueOwnRequest(caller, CM_MUTEX_DELETE, psMutex, LX_NO_WAIT);
  // A delete the dispatcher never saw (no descriptor for its reply pipe; the
  // handler itself never answers 29) leaves the mutex as it was, to retry.
  if (status == LX_NOT_AVAILABLE) return status;
  Mutexes().Remove(psMutex);
  // The handler has cleared the word already; NULL it in any case.
  std::atomic_ref<MutexControlBlock*>(*psMutex).store(nullptr, std::memory_order_release);
  return status;
}

LX_STATUS _lx_MutexPrioritize(LX_MUTEX* psMutex) {
  if (!Mutexes().Contains(psMutex)) return LX_MUTEX_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (!Registered(caller)) return LX_MUTEX_ERROR;
  return IssueOwnRequest(caller, CM_MUTEX_PRIORITIZE, psMutex, LX_NO_WAIT);
}

LX_STATUS _lx_MutexInfoGet(LX_MUTEX* psMutex, char** ppcName, uint32_t* pu32Count, LX_THREAD** ppsOwner,
                           SuspendNode** ppsFirstSuspended, uint32_t* pu32SuspendedCount,
                           LX_MUTEX** ppsNextMutex) {
  if (!Mutexes().Contains(psMutex)) return LX_MUTEX_ERROR;
  MutexControlBlock* mutex = MutexOf(psMutex);
  if (mutex == nullptr) return LX_MUTEX_ERROR;
  if (ppcName == nullptr || pu32Count == nullptr || ppsOwner == nullptr || ppsFirstSuspended == nullptr ||
      pu32SuspendedCount == nullptr || ppsNextMutex == nullptr) {
    return LX_PTR_ERROR;  // the next-mutex output is checked, never written
  }
  // A consistent snapshot: the dispatcher changes these under the same lock,
  // and a delete frees the block under it too, so the word is read again.
  SystemSection section;
  std::lock_guard lock(CmLock());
  mutex = MutexOf(psMutex);
  if (mutex == nullptr) return LX_MUTEX_ERROR;
  const int32_t waiters = mutex->sSuspendCtrl.i32SuspendCount;
  *ppcName = mutex->acName;
  *pu32Count = static_cast<uint32_t>(waiters + 1);
  *ppsOwner = mutex->psOwner;
  *ppsFirstSuspended = mutex->sSuspendCtrl.psFirstSuspend;
  *pu32SuspendedCount = static_cast<uint32_t>(waiters);
  return LX_SUCCESS;
}

void CM_MutexFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  switch (u16Service) {
    case CM_MUTEX_DELETE: CM_MutexDelete(psRequest); break;
    case CM_MUTEX_GET: CM_MutexGet(psRequest); break;
    case CM_MUTEX_PRIORITIZE: CM_MutexPrioritize(psRequest); break;
    case CM_MUTEX_PUT: CM_MutexPut(psRequest); break;
    default: CompleteLocked(*psRequest, LX_NOT_AVAILABLE);
  }
}

int32_t CM_MutexGet(CmServiceRequest* psRequest) {
  MutexControlBlock* mutex = DispatchedMutex(*psRequest);
  if (mutex == nullptr) return 0;
  psRequest->u16Status = LX_SUCCESS;
  if (mutex->u32Available != 0) {
    QV_TRACE3(mutex__handover, psRequest->pvObject, nullptr, psRequest->psThread);
    mutex->psOwner = psRequest->psThread;
    mutex->u32Available = 0;
    CM_WakeUpThread(psRequest);
    return 0;
  }
  ParkRequest(*psRequest, mutex->sSuspendCtrl, LX_STATE_MUTEX_WAIT, LX_NOT_AVAILABLE, CM_SUSPEND_COUNT_UP);
  return 0;
}

int32_t CM_MutexPut(CmServiceRequest* psRequest) {
  MutexControlBlock* mutex = DispatchedMutex(*psRequest);
  if (mutex == nullptr) return 0;
  CompleteLocked(*psRequest, LX_SUCCESS);  // the putter goes before the hand-over
  SuspendCtrl& list = mutex->sSuspendCtrl;
  if (list.i32SuspendCount <= 0) {
    QV_TRACE3(mutex__handover, psRequest->pvObject, mutex->psOwner, nullptr);
    mutex->psOwner = nullptr;
    mutex->u32Available = 1;
    return 0;
  }
  SuspendNode* chosen = list.psFirstSuspend;
  if (mutex->u32Inherit == 1) {
    chosen = FindPreferredWaiter(list);
    if (chosen == nullptr) chosen = list.psLastSuspend;
  }
  QV_TRACE3(mutex__handover, psRequest->pvObject, mutex->psOwner, chosen->psOwner);
  mutex->psOwner = chosen->psOwner;
  CM_RemoveTargetFromSuspendListEx(&list, chosen, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  return 0;
}

int32_t CM_MutexDelete(CmServiceRequest* psRequest) {
  MutexControlBlock* mutex = DispatchedMutex(*psRequest);
  if (mutex == nullptr) return 0;
  psRequest->u16Status = LX_SUCCESS;
  QV_TRACE3(mutex__handover, psRequest->pvObject, mutex->psOwner, nullptr);
  CM_WakeUpAllThreadInSuspendList(psRequest, &mutex->sSuspendCtrl, LX_DELETED);
  // Requests queued behind this one in the same pass passed their caller's
  // check while the mutex still existed: the NULL word makes them answer
  // LX_MUTEX_ERROR instead of parking on (or freeing again) a freed block.
  std::atomic_ref<MutexControlBlock*>(*static_cast<LX_MUTEX*>(psRequest->pvObject))
      .store(nullptr, std::memory_order_release);
  std::free(mutex);
  CM_WakeUpThread(psRequest);
  return 0;
}

int32_t CM_MutexPrioritize(CmServiceRequest* psRequest) {
  MutexControlBlock* mutex = DispatchedMutex(*psRequest);
  if (mutex == nullptr) return 0;
  PrioritizeWaiters(kMutexClass, *psRequest, mutex->sSuspendCtrl);
  return 0;
}

void CM_MutexWakeUp(CmServiceRequest* psDriver) { WakeUpWaiter(kMutexClass, *psDriver); }

void CM_MutexWaitAbort(CmServiceRequest* psRequest) { WaitAbortWaiter(kMutexClass, *psRequest); }

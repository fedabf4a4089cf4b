// Byte pools: the _lx_Byte services (calling thread) and the CM_Byte handlers
// (dispatcher thread, S_sCmLock held).
//
// The pool counts a budget of bytes, without overhead or rounding: n bytes
// granted take exactly n, their release gives exactly n back. A granted
// allocation is a heap area taken by the allocating thread, the 12 bytes in
// front of the memory holding the pool handle and n. An allocation that fits is granted at
// once, even while others wait; a release serves waiters strictly in list
// order and stops at the first that does not fit.
#include <cstdlib>
#include <mutex>

#include "cm/debug_table.h"
#include "kernel/platform.h"
#include "pool/pool_internal.h"

namespace quorvin::detail {

void* S_paBytePool[kRegistrySlots] = {};
int32_t S_i32BytePoolIndex = 0;
QV_DEBUG_ENTRY("bytep", S_paBytePool, kRegistrySlots);
QV_DEBUG_ENTRY("bytepn", &S_i32BytePoolIndex, 0);

namespace {

using BytePools = PoolFamily<BytePoolControlBlock>;

constinit BytePools g_family(S_paBytePool, S_i32BytePoolIndex, CM_CLASS_BYTE_POOL, kByteHeader);

BytePools& Family() noexcept { return g_family; }

constexpr uint32_t kSmallestPool = 100;

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_BytePoolCreate(LX_BYTE_POOL* psPool, const char* pcName, void* pvPoolStart, uint32_t u32PoolSize) {
  if (psPool == nullptr) return LX_POOL_ERROR;
  if (pvPoolStart == nullptr) return LX_PTR_ERROR;
  if (u32PoolSize < kSmallestPool) return LX_SIZE_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;
  if (Family().Registry().Full()) return LX_POOL_ERROR;
  auto* pool = static_cast<BytePoolControlBlock*>(std::calloc(1, sizeof(BytePoolControlBlock)));
  if (pool == nullptr) return LX_POOL_ERROR;
  if (pcName != nullptr) BoundedCopy(pool->acName, pcName, sizeof pool->acName);
  pool->pvPoolStart = pvPoolStart;
  pool->u32PoolSize = u32PoolSize;
  pool->u32AvailableBytes = u32PoolSize;
  return Family().Register(psPool, pool);
}

LX_STATUS _lx_ByteAllocate(LX_BYTE_POOL* psPool, void** ppvMemory, uint64_t u64Size, uint32_t u32WaitOption) {
  if (!Family().Registry().Contains(psPool)) return LX_POOL_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (!IsSystemThread(caller)) return LX_POOL_ERROR;
  if (ppvMemory == nullptr) return LX_PTR_ERROR;
  if (caller == G_psTimer) return LX_CALLER_ERROR;  // even without a wait
  (*caller)->sRequest.u64Value = u64Size;
  return Family().Allocate(caller, psPool, ppvMemory, u32WaitOption);
}

LX_STATUS _lx_ByteRelease(void* pvMemory) {
  if (pvMemory == nullptr) return LX_PTR_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (!IsSystemThread(caller)) return LX_POOL_ERROR;
  return Family().Release(caller, pvMemory);
}

LX_STATUS _lx_BytePoolDelete(LX_BYTE_POOL* psPool) { return Family().Delete(psPool); }

LX_STATUS _lx_BytePoolPrioritize(LX_BYTE_POOL* psPool) { return Family().Prioritize(psPool); }

LX_STATUS _lx_BytePoolInfoGet(LX_BYTE_POOL* psPool, char** ppcName, uint32_t* pu32Reserved,
                              uint32_t* pu32Fragments, SuspendNode** ppsFirstSuspended,
                              uint32_t* pu32SuspendedCount, LX_BYTE_POOL** ppsNextPool) {
  if (!Family().Live(psPool)) return LX_POOL_ERROR;
  if (ppcName == nullptr || pu32Reserved == nullptr || pu32Fragments == nullptr || ppsFirstSuspended == nullptr ||
      pu32SuspendedCount == nullptr || ppsNextPool == nullptr) {
    return LX_PTR_ERROR;  // the next-pool output is checked, never written
  }
  // A consistent snapshot of a pool that the dispatcher cannot free meanwhile.
  SystemSection section;
  std::lock_guard lock(CmLock());
  BytePoolControlBlock* pool = BytePools::PoolOf(psPool);
  if (pool == nullptr) return LX_POOL_ERROR;
  *ppcName = pool->acName;
  *pu32Reserved = 0;
  *pu32Fragments = 1;
  *ppsFirstSuspended = pool->sSuspendCtrl.psFirstSuspend;
  *pu32SuspendedCount = static_cast<uint32_t>(pool->sSuspendCtrl.i32SuspendCount);
  return LX_SUCCESS;
}

void CM_ByteFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  switch (u16Service) {
    case CM_BYTE_ALLOCATE: CM_ByteAllocate(psRequest); break;
    case CM_BYTE_DELETE: CM_ByteDelete(psRequest); break;
    case CM_BYTE_PRIORITIZE: CM_BytePrioritize(psRequest); break;
    case CM_BYTE_RELEASE: CM_ByteRelease(psRequest); break;
    default: CompleteLocked(*psRequest, LX_NOT_AVAILABLE);
  }
}

int32_t CM_ByteAllocate(CmServiceRequest* psRequest) {
  BytePoolControlBlock* pool = BytePools::Dispatched(*psRequest);
  if (pool == nullptr) return 0;
  if (psRequest->u64Value <= pool->u32AvailableBytes) {
    pool->u32AvailableBytes -= static_cast<uint32_t>(psRequest->u64Value);
    CompleteLocked(*psRequest, LX_SUCCESS);
    return 0;
  }
  ParkRequest(*psRequest, pool->sSuspendCtrl, LX_STATE_BYTE_POOL_WAIT, LX_NO_MEMORY, CM_SUSPEND_COUNT_UP);
  return 0;
}

// The releasing thread is answered before any waiter is served.
int32_t CM_ByteRelease(CmServiceRequest* psRequest) {
  BytePoolControlBlock* pool = BytePools::Dispatched(*psRequest);
  if (pool == nullptr) return 0;
  pool->u32AvailableBytes += static_cast<uint32_t>(psRequest->u64Value);
  CompleteLocked(*psRequest, LX_SUCCESS);
  SuspendCtrl& list = pool->sSuspendCtrl;
  while (list.i32SuspendCount > 0) {
    const CmServiceRequest* first = OwnerRequest(*list.psFirstSuspend);
    if (first == nullptr || first->u64Value > pool->u32AvailableBytes) break;
    pool->u32AvailableBytes -= static_cast<uint32_t>(first->u64Value);
    CM_RemoveTargetFromSuspendListEx(&list, list.psFirstSuspend, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  }
  return 0;
}

int32_t CM_ByteDelete(CmServiceRequest* psRequest) {
  BytePools::DeleteLocked(*psRequest);
  return 0;
}

int32_t CM_BytePrioritize(CmServiceRequest* psRequest) {
  BytePoolControlBlock* pool = BytePools::Dispatched(*psRequest);
  if (pool != nullptr) PrioritizeWaiters(BytePools::kClass, *psRequest, pool->sSuspendCtrl);
  return 0;
}

void CM_ByteWakeUp(CmServiceRequest* psDriver) { WakeUpWaiter(BytePools::kClass, *psDriver); }

void CM_ByteWaitAbort(CmServiceRequest* psRequest) { WaitAbortWaiter(BytePools::kClass, *psRequest); }

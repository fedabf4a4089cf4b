// Block pools: the _lx_Block services (calling thread) and the CM_Block
// handlers (dispatcher thread, S_sCmLock held).
//
// The pool counts blocks; a granted block is a heap area taken by the
// allocating thread, the 8 bytes in front of the block naming the pool. A
// release with a waiter passes the block straight to the longest waiter (the
// count does not change); without one it adds one to the count, unbounded.
#include <cstdlib>
#include <mutex>

#include "cm/debug_table.h"
#include "kernel/platform.h"
#include "pool/pool_internal.h"

namespace quorvin::detail {

void* S_paBlockPool[kRegistrySlots] = {};
int32_t S_i32BlockPoolIndex = 0;
QV_DEBUG_ENTRY("blockp", S_paBlockPool, kRegistrySlots);
QV_DEBUG_ENTRY("blockpn", &S_i32BlockPoolIndex, 0);

namespace {

using BlockPools = PoolFamily<BlockPoolControlBlock>;

constinit BlockPools g_family(S_paBlockPool, S_i32BlockPoolIndex, CM_CLASS_BLOCK_POOL, kBlockHeader);

BlockPools& Family() noexcept { return g_family; }

// The pool size must be a whole number of blocks, and a block plus 8 bytes
// must fit in the pool rounded down to 8 (block size 0 never does).
bool WholeBlocks(uint32_t blockSize, uint32_t poolSize) noexcept {
  return blockSize == 0 ? poolSize == 0 : poolSize % blockSize == 0;
}
bool RoomForABlock(uint32_t blockSize, uint32_t poolSize) noexcept {
  return (uint64_t{blockSize} / 8 + 1) * 8 <= (poolSize & ~uint32_t{7});
}

}  // namespace
}  // namespace quorvin::detail

using namespace quorvin::detail;

LX_STATUS _lx_BlockPoolCreate(LX_BLOCK_POOL* psPool, const char* pcName, uint32_t u32BlockSize,
                              void* pvPoolStart, uint32_t u32PoolSize) {
  if (psPool == nullptr) return LX_POOL_ERROR;
  if (!WholeBlocks(u32BlockSize, u32PoolSize)) return LX_SIZE_ERROR;
  if (pvPoolStart == nullptr) return LX_PTR_ERROR;
  if (!RoomForABlock(u32BlockSize, u32PoolSize)) return LX_SIZE_ERROR;
  if (CallerIsTimerThread()) return LX_CALLER_ERROR;
  if (Family().Registry().Full()) return LX_POOL_ERROR;
  auto* pool = static_cast<BlockPoolControlBlock*>(std::calloc(1, sizeof(BlockPoolControlBlock)));
  if (pool == nullptr) return LX_POOL_ERROR;
  if (pcName != nullptr) BoundedCopy(pool->acName, pcName, sizeof pool->acName);
  pool->pvPoolStart = pvPoolStart;
  pool->u32BlockSize = u32BlockSize;
  pool->u32TotalBlocks = u32PoolSize / u32BlockSize;
  pool->u32AvailableBlocks = pool->u32TotalBlocks;
  return Family().Register(psPool, pool);
}

LX_STATUS _lx_BlockAllocate(LX_BLOCK_POOL* psPool, void** ppvBlock, uint32_t u32WaitOption) {
  if (!Family().Registry().Contains(psPool)) return LX_POOL_ERROR;
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (!IsSystemThread(caller)) return LX_POOL_ERROR;
  if (ppvBlock == nullptr) return LX_PTR_ERROR;
  // A wait by the timer thread is refused by CM_Request with LX_WAIT_ERROR.
  return Family().Allocate(caller, psPool, ppvBlock, u32WaitOption);
}

LX_STATUS _lx_BlockRelease(void* pvBlock) {
  LX_THREAD* caller = _lx_ThreadIdentify();
  if (!IsSystemThread(caller)) return LX_POOL_ERROR;
  if (pvBlock == nullptr) return LX_PTR_ERROR;
  return Family().Release(caller, pvBlock);
}

LX_STATUS _lx_BlockPoolDelete(LX_BLOCK_POOL* psPool) { return Family().Delete(psPool); }

LX_STATUS _lx_BlockPoolPrioritize(LX_BLOCK_POOL* psPool) { return Family().Prioritize(psPool); }

LX_STATUS _lx_BlockPoolInfoGet(LX_BLOCK_POOL* psPool, char** ppcName, uint32_t* pu32InUse, uint32_t* pu32Total,
                               SuspendNode** ppsFirstSuspended, uint32_t* pu32SuspendedCount,
                               LX_BLOCK_POOL** ppsNextPool) {
  if (!Family().Live(psPool)) return LX_POOL_ERROR;
  if (ppcName == nullptr || pu32InUse == nullptr || pu32Total == nullptr || ppsFirstSuspended == nullptr ||
      pu32SuspendedCount == nullptr || ppsNextPool == nullptr) {
    return LX_PTR_ERROR;  // the next-pool output is checked, never written
  }
  // A consistent snapshot of a pool that the dispatcher cannot free meanwhile.
  SystemSection section;
  std::lock_guard lock(CmLock());
  const BlockPoolControlBlock* pool = BlockPools::PoolOf(psPool);
  if (pool == nullptr) return LX_POOL_ERROR;
  *ppcName = const_cast<char*>(pool->acName);
  *pu32InUse = pool->u32TotalBlocks - pool->u32AvailableBlocks;
  *pu32Total = pool->u32TotalBlocks;
  *ppsFirstSuspended = pool->sSuspendCtrl.psFirstSuspend;
  *pu32SuspendedCount = static_cast<uint32_t>(pool->sSuspendCtrl.i32SuspendCount);
  return LX_SUCCESS;
}

void CM_BlockFunction(uint16_t u16Service, CmServiceRequest* psRequest) {
  switch (u16Service) {
    case CM_BLOCK_ALLOCATE: CM_BlockAllocate(psRequest); break;
    case CM_BLOCK_DELETE: CM_BlockDelete(psRequest); break;
    case CM_BLOCK_PRIORITIZE: CM_BlockPrioritize(psRequest); break;
    case CM_BLOCK_RELEASE: CM_BlockRlelase(psRequest); break;
    default: CompleteLocked(*psRequest, LX_NOT_AVAILABLE);
  }
}

// A grant leaves the block size in the request's u64Value: the allocating
// thread sizes its area from it without touching the pool again.
int32_t CM_BlockAllocate(CmServiceRequest* psRequest) {
  BlockPoolControlBlock* pool = BlockPools::Dispatched(*psRequest);
  if (pool == nullptr) return 0;
  psRequest->u64Value = pool->u32BlockSize;
  if (pool->u32AvailableBlocks != 0) {
    --pool->u32AvailableBlocks;
    CompleteLocked(*psRequest, LX_SUCCESS);
    return 0;
  }
  ParkRequest(*psRequest, pool->sSuspendCtrl, LX_STATE_BLOCK_POOL_WAIT, LX_NO_MEMORY, CM_SUSPEND_COUNT_UP);
  return 0;
}

int32_t CM_BlockRlelase(CmServiceRequest* psRequest) {
  BlockPoolControlBlock* pool = BlockPools::Dispatched(*psRequest);
  if (pool == nullptr) return 0;
  SuspendCtrl& list = pool->sSuspendCtrl;
  if (list.i32SuspendCount > 0) {  // the block passes to the longest waiter
    CM_RemoveTargetFromSuspendListEx(&list, list.psFirstSuspend, CM_REMOVE_SUCCESS, CM_STATUS_UNUSED);
  } else {
    ++pool->u32AvailableBlocks;
  }
  CompleteLocked(*psRequest, LX_SUCCESS);
  return 0;
}

int32_t CM_BlockDelete(CmServiceRequest* psRequest) {
  BlockPools::DeleteLocked(*psRequest);
  return 0;
}

int32_t CM_BlockPrioritize(CmServiceRequest* psRequest) {
  BlockPoolControlBlock* pool = BlockPools::Dispatched(*psRequest);
  if (pool != nullptr) PrioritizeWaiters(BlockPools::kClass, *psRequest, pool->sSuspendCtrl);
  return 0;
}

void CM_BlockWakeUp(CmServiceRequest* psDriver) { WakeUpWaiter(BlockPools::kClass, *psDriver); }

void CM_BlockWaitAbort(CmServiceRequest* psRequest) { WaitAbortWaiter(BlockPools::kClass, *psRequest); }

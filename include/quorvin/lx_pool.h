/*
 * quorvin: block pools and byte pools.
 *
 * A pool is an admission counter on the dispatcher side: a block pool counts
 * blocks of one size, a byte pool counts a budget of bytes. The memory handed
 * out is a zero-filled heap area taken by the allocating thread once the
 * dispatcher has granted it, preceded by a header naming the pool (8 bytes
 * for a block; 12 bytes for a byte allocation, the pool handle then the size).
 * The pool area given at creation is recorded and never used. Waiting
 * allocations (no wait, ticks or forever) are served first come, first
 * served; a byte-pool waiter that does not fit holds back every waiter
 * behind it.
 */
#ifndef QUORVIN_LX_POOL_H
#define QUORVIN_LX_POOL_H

#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct BlockPoolControlBlock {
  char acName[20];             /* NUL-terminated, at most 19 characters */
  void* pvPoolStart;           /* as given to create; never used */
  uint32_t u32BlockSize;       /* bytes per block */
  SuspendCtrl sSuspendCtrl;    /* allocations waiting for a block */
  uint32_t u32TotalBlocks;     /* pool size / block size */
  uint32_t u32AvailableBlocks; /* not bounded by the total: every unclaimed release adds one */
} BlockPoolControlBlock;

typedef struct BytePoolControlBlock {
  char acName[20];            /* NUL-terminated, at most 19 characters */
  void* pvPoolStart;          /* as given to create; never used */
  uint32_t u32PoolSize;       /* the budget in bytes */
  uint32_t u32AvailableBytes; /* not bounded by the budget: a release adds its size */
  SuspendCtrl sSuspendCtrl;   /* allocations waiting for bytes, in arrival order */
} BytePoolControlBlock;

/* Pool handle words; services take their addresses. */
typedef BlockPoolControlBlock* LX_BLOCK_POOL;
typedef BytePoolControlBlock* LX_BYTE_POOL;

/* Service codes of the two classes. */
#define CM_BLOCK_ALLOCATE 0x11
#define CM_BLOCK_DELETE 0x13
#define CM_BLOCK_PRIORITIZE 0x15
#define CM_BLOCK_RELEASE 0x16
#define CM_BYTE_ALLOCATE 0x21
#define CM_BYTE_DELETE 0x23
#define CM_BYTE_PRIORITIZE 0x25
#define CM_BYTE_RELEASE 0x26

QV_API LX_STATUS _lx_BlockPoolCreate(LX_BLOCK_POOL* psPool, const char* pcName, uint32_t u32BlockSize,
                                     void* pvPoolStart, uint32_t u32PoolSize);
QV_API LX_STATUS _lx_BlockAllocate(LX_BLOCK_POOL* psPool, void** ppvBlock, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_BlockRelease(void* pvBlock);
QV_API LX_STATUS _lx_BlockPoolDelete(LX_BLOCK_POOL* psPool);
/* In-use is total minus available, in unsigned 32-bit arithmetic. The
 * next-pool output must not be NULL and is never written. */
QV_API LX_STATUS _lx_BlockPoolInfoGet(LX_BLOCK_POOL* psPool, char** ppcName, uint32_t* pu32InUse,
                                      uint32_t* pu32Total, SuspendNode** ppsFirstSuspended,
                                      uint32_t* pu32SuspendedCount, LX_BLOCK_POOL** ppsNextPool);
QV_API LX_STATUS _lx_BlockPoolPrioritize(LX_BLOCK_POOL* psPool);

QV_API LX_STATUS _lx_BytePoolCreate(LX_BYTE_POOL* psPool, const char* pcName, void* pvPoolStart,
                                    uint32_t u32PoolSize);
QV_API LX_STATUS _lx_ByteAllocate(LX_BYTE_POOL* psPool, void** ppvMemory, uint64_t u64Size,
                                  uint32_t u32WaitOption);
QV_API LX_STATUS _lx_ByteRelease(void* pvMemory);
QV_API LX_STATUS _lx_BytePoolDelete(LX_BYTE_POOL* psPool);
/* The available bytes are not reported: the third output receives 0 and the
 * fourth 1. The next-pool output must not be NULL and is never written. */
QV_API LX_STATUS _lx_BytePoolInfoGet(LX_BYTE_POOL* psPool, char** ppcName, uint32_t* pu32Reserved,
                                     uint32_t* pu32Fragments, SuspendNode** ppsFirstSuspended,
                                     uint32_t* pu32SuspendedCount, LX_BYTE_POOL** ppsNextPool);
QV_API LX_STATUS _lx_BytePoolPrioritize(LX_BYTE_POOL* psPool);

/* Dispatcher side: dispatcher thread, component-manager lock held. The
 * release handler of the block class is named CM_BlockRlelase. */
QV_API void CM_BlockFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_BlockAllocate(CmServiceRequest* psRequest);
QV_API int32_t CM_BlockRlelase(CmServiceRequest* psRequest);
QV_API int32_t CM_BlockDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_BlockPrioritize(CmServiceRequest* psRequest);
QV_API void CM_BlockWakeUp(CmServiceRequest* psDriver);
QV_API void CM_BlockWaitAbort(CmServiceRequest* psRequest);

QV_API void CM_ByteFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_ByteAllocate(CmServiceRequest* psRequest);
QV_API int32_t CM_ByteRelease(CmServiceRequest* psRequest);
QV_API int32_t CM_ByteDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_BytePrioritize(CmServiceRequest* psRequest);
QV_API void CM_ByteWakeUp(CmServiceRequest* psDriver);
QV_API void CM_ByteWaitAbort(CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_POOL_H */

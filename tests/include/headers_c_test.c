/* The public headers compile as strict C11, and the records that cross the
 * interface keep their field order and natural alignment. */
#include <stddef.h>

#include "quorvin/quorvin.h"

_Static_assert(offsetof(SuspendNode, psOwner) == 0, "SuspendNode.psOwner");
_Static_assert(offsetof(SuspendNode, psNext) == 8, "SuspendNode.psNext");
_Static_assert(offsetof(SuspendNode, psPrev) == 16, "SuspendNode.psPrev");
_Static_assert(sizeof(SuspendNode) == 24, "SuspendNode size");

_Static_assert(offsetof(SuspendCtrl, psLastSuspend) == 0, "SuspendCtrl.psLastSuspend");
_Static_assert(offsetof(SuspendCtrl, psFirstSuspend) == 8, "SuspendCtrl.psFirstSuspend");
_Static_assert(offsetof(SuspendCtrl, i32SuspendCount) == 16, "SuspendCtrl.i32SuspendCount");
_Static_assert(sizeof(SuspendCtrl) == 24, "SuspendCtrl size");

_Static_assert(offsetof(CmServiceRequest, psTarget) == 0, "psTarget");
_Static_assert(offsetof(CmServiceRequest, psThread) == 8, "psThread");
_Static_assert(offsetof(CmServiceRequest, psNext) == 16, "psNext");
_Static_assert(offsetof(CmServiceRequest, psSleepNext) == 24, "psSleepNext");
_Static_assert(offsetof(CmServiceRequest, pvObject) == 32, "pvObject");
_Static_assert(offsetof(CmServiceRequest, pvData) == 40, "pvData");
_Static_assert(offsetof(CmServiceRequest, u64InSleepAgent) == 48, "u64InSleepAgent");
_Static_assert(offsetof(CmServiceRequest, ai32ReplyPipe) == 56, "ai32ReplyPipe");
_Static_assert(offsetof(CmServiceRequest, u32WaitOption) == 64, "u32WaitOption");
_Static_assert(offsetof(CmServiceRequest, u64Value) == 72, "u64Value");
_Static_assert(offsetof(CmServiceRequest, u64Option) == 80, "u64Option");
_Static_assert(offsetof(CmServiceRequest, u16Service) == 88, "u16Service");
_Static_assert(offsetof(CmServiceRequest, u16Status) == 90, "u16Status");
_Static_assert(offsetof(CmServiceRequest, sSuspendNode) == 96, "sSuspendNode");
_Static_assert(sizeof(CmServiceRequest) == 120, "CmServiceRequest size");

_Static_assert(offsetof(ThreadControlBlock, acName) == 0, "acName");
_Static_assert(offsetof(ThreadControlBlock, hThread) == 24, "hThread");
_Static_assert(offsetof(ThreadControlBlock, pfnEntry) == 32, "pfnEntry");
_Static_assert(offsetof(ThreadControlBlock, u64EntryInput) == 40, "u64EntryInput");
_Static_assert(offsetof(ThreadControlBlock, u16AutoStart) == 48, "u16AutoStart");
_Static_assert(offsetof(ThreadControlBlock, u16TimeSlice) == 50, "u16TimeSlice");
_Static_assert(offsetof(ThreadControlBlock, u16Priority) == 52, "u16Priority");
_Static_assert(offsetof(ThreadControlBlock, u16PreemptThreshold) == 54, "u16PreemptThreshold");
_Static_assert(offsetof(ThreadControlBlock, u16State) == 56, "u16State");
_Static_assert(offsetof(ThreadControlBlock, psSelf) == 64, "psSelf");
_Static_assert(offsetof(ThreadControlBlock, u32PoolIndex) == 72, "u32PoolIndex");
_Static_assert(offsetof(ThreadControlBlock, sRequest) == 80, "sRequest");

_Static_assert(offsetof(MqQueueCtrl, i32MqDes) == 0, "MqQueueCtrl.i32MqDes");
_Static_assert(offsetof(QueueMemNode, psPrevNode) == 0, "QueueMemNode.psPrevNode");
_Static_assert(offsetof(QueueMemNode, psNextNode) == 8, "QueueMemNode.psNextNode");
_Static_assert(offsetof(QueueMemNode, pvSlot) == 16, "QueueMemNode.pvSlot");
_Static_assert(offsetof(QueueMemNode, u32Free) == 24, "QueueMemNode.u32Free");
_Static_assert(offsetof(QueueListCtrl, psHead) == 0, "QueueListCtrl.psHead");
_Static_assert(offsetof(QueueListCtrl, psTail) == 8, "QueueListCtrl.psTail");
_Static_assert(offsetof(QueueListCtrl, i32Count) == 16, "QueueListCtrl.i32Count");
_Static_assert(offsetof(QueueListCtrl, i32Capacity) == 20, "QueueListCtrl.i32Capacity");
_Static_assert(offsetof(QueueListCtrl, i32MessageBytes) == 24, "QueueListCtrl.i32MessageBytes");
_Static_assert(offsetof(QueueListCtrl, i32MessageWords) == 28, "QueueListCtrl.i32MessageWords");
_Static_assert(offsetof(QueueListCtrl, paNodes) == 32, "QueueListCtrl.paNodes");
_Static_assert(offsetof(QueueListCtrl, pvStorage) == 40, "QueueListCtrl.pvStorage");
_Static_assert(offsetof(QueueListCtrl, sListLock) == 48, "QueueListCtrl.sListLock");
_Static_assert(offsetof(QueueListCtrl, sReceiveGate) == 48 + sizeof(pthread_mutex_t), "QueueListCtrl.sReceiveGate");
_Static_assert(offsetof(CmQueueCtrl, psList) == 0, "CmQueueCtrl.psList");
_Static_assert(offsetof(CmQueueCtrl, sSuspendCtrl) == 8, "CmQueueCtrl.sSuspendCtrl");
_Static_assert(offsetof(CmQueueCtrl, u32Capacity) == 32, "CmQueueCtrl.u32Capacity");
_Static_assert(offsetof(CmQueueCtrl, u32FreeSlots) == 36, "CmQueueCtrl.u32FreeSlots");
_Static_assert(offsetof(FramedQueueCtrl, psMsgQueue) == 0, "FramedQueueCtrl.psMsgQueue");
_Static_assert(offsetof(FramedQueueCtrl, pu8SlotArea) == 8, "FramedQueueCtrl.pu8SlotArea");
_Static_assert(offsetof(FramedQueueCtrl, u8Locked) == 16, "FramedQueueCtrl.u8Locked");
_Static_assert(offsetof(FramedQueueCtrl, psLockSemaphore) == 24, "FramedQueueCtrl.psLockSemaphore");
_Static_assert(offsetof(FramedQueueCtrl, u16MessageSize) == 32, "FramedQueueCtrl.u16MessageSize");
_Static_assert(offsetof(FramedQueueCtrl, u8SlotCount) == 34, "FramedQueueCtrl.u8SlotCount");

_Static_assert(offsetof(BlockPoolControlBlock, acName) == 0, "BlockPool.acName");
_Static_assert(offsetof(BlockPoolControlBlock, pvPoolStart) == 24, "BlockPool.pvPoolStart");
_Static_assert(offsetof(BlockPoolControlBlock, u32BlockSize) == 32, "BlockPool.u32BlockSize");
_Static_assert(offsetof(BlockPoolControlBlock, sSuspendCtrl) == 40, "BlockPool.sSuspendCtrl");
_Static_assert(offsetof(BlockPoolControlBlock, u32TotalBlocks) == 64, "BlockPool.u32TotalBlocks");
_Static_assert(offsetof(BlockPoolControlBlock, u32AvailableBlocks) == 68, "BlockPool.u32AvailableBlocks");
_Static_assert(sizeof(BlockPoolControlBlock) == 72, "BlockPoolControlBlock size");

_Static_assert(offsetof(BytePoolControlBlock, acName) == 0, "BytePool.acName");
_Static_assert(offsetof(BytePoolControlBlock, pvPoolStart) == 24, "BytePool.pvPoolStart");
_Static_assert(offsetof(BytePoolControlBlock, u32PoolSize) == 32, "BytePool.u32PoolSize");
_Static_assert(offsetof(BytePoolControlBlock, u32AvailableBytes) == 36, "BytePool.u32AvailableBytes");
_Static_assert(offsetof(BytePoolControlBlock, sSuspendCtrl) == 40, "BytePool.sSuspendCtrl");
_Static_assert(sizeof(BytePoolControlBlock) == 64, "BytePoolControlBlock size");
_Static_assert(offsetof(CmSemaphoreControlBlock, sSuspendCtrl) == 24, "CmSemaphore.sSuspendCtrl");
_Static_assert(offsetof(CmSemaphoreControlBlock, u32Ceiling) == 48, "CmSemaphore.u32Ceiling");
_Static_assert(offsetof(CmSemaphoreControlBlock, u32Count) == 52, "CmSemaphore.u32Count");

_Static_assert(offsetof(EventFlagsControlBlock, acName) == 0, "EventFlags.acName");
_Static_assert(offsetof(EventFlagsControlBlock, u32CurrentFlags) == 20, "EventFlags.u32CurrentFlags");
_Static_assert(offsetof(EventFlagsControlBlock, sSuspendCtrl) == 24, "EventFlags.sSuspendCtrl");
_Static_assert(offsetof(EventFlagsControlBlock, u32WaitCount) == 48, "EventFlags.u32WaitCount");
_Static_assert(offsetof(EventFlagsControlBlock, sLock) == 56, "EventFlags.sLock");
_Static_assert(offsetof(EventFlagsControlBlock, psFirstWaiter) == 56 + sizeof(pthread_mutex_t), "psFirstWaiter");
_Static_assert(offsetof(EventFlagsWaiter, psThread) == 8, "EventFlagsWaiter.psThread");
_Static_assert(offsetof(EventFlagsWaiter, u32RequestedFlags) == 16, "EventFlagsWaiter.u32RequestedFlags");
_Static_assert(offsetof(EventFlagsWaiter, u16GetOption) == 20, "EventFlagsWaiter.u16GetOption");
_Static_assert(offsetof(EventFlagsWaiter, u32ActualFlags) == 24, "EventFlagsWaiter.u32ActualFlags");
_Static_assert(offsetof(EventFlagsWaiter, sSemaphore) == 32, "EventFlagsWaiter.sSemaphore");

int main(void) {
  /* The exported data and services are declared with the expected types. */
  LX_THREAD* (*identify)(void) = _lx_ThreadIdentify;
  LX_STATUS (*create)(LX_THREAD*, const char*, LX_THREAD_ENTRY, uint64_t, void*, uint32_t, uint16_t,
                      uint16_t, uint32_t, uint16_t) = _lx_ThreadCreate;
  void (*request)(CmServiceRequest*) = CM_Request;
  (void)identify;
  (void)create;
  (void)request;
  return LX_SUCCESS + (LX_WAIT_FOREVER == 0xFFFFFFFFu ? 0 : 1);
}

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

/* The public headers compile as strict C11, and the records that cross the
 * interface keep their field order and natural alignment: every field of the
 * request block, the thread control block and the suspend list, and the size
 * or the last field of every other record that applications embed. */
#include <stddef.h>

#include "quorvin/quorvin.h"

#define AT(type, field, offset) _Static_assert(offsetof(type, field) == (offset), #type "." #field)
#define SIZE(type, size) _Static_assert(sizeof(type) == (size), "sizeof " #type)

AT(SuspendNode, psOwner, 0);
AT(SuspendNode, psNext, 8);
AT(SuspendNode, psPrev, 16);
SIZE(SuspendNode, 24);
AT(SuspendCtrl, psLastSuspend, 0);
AT(SuspendCtrl, psFirstSuspend, 8);
AT(SuspendCtrl, i32SuspendCount, 16);
AT(CmServiceRequest, psTarget, 0);
AT(CmServiceRequest, psThread, 8);
AT(CmServiceRequest, psNext, 16);
AT(CmServiceRequest, psSleepNext, 24);
AT(CmServiceRequest, pvObject, 32);
AT(CmServiceRequest, pvData, 40);
AT(CmServiceRequest, u64InSleepAgent, 48);
AT(CmServiceRequest, ai32ReplyPipe, 56);
AT(CmServiceRequest, u32WaitOption, 64);
AT(CmServiceRequest, u64Value, 72);
AT(CmServiceRequest, u64Option, 80);
AT(CmServiceRequest, u16Service, 88);
AT(CmServiceRequest, u16Status, 90);
AT(CmServiceRequest, sSuspendNode, 96);
AT(ThreadControlBlock, hThread, 24);
AT(ThreadControlBlock, pfnEntry, 32);
AT(ThreadControlBlock, u64EntryInput, 40);
AT(ThreadControlBlock, u16AutoStart, 48);
AT(ThreadControlBlock, u16TimeSlice, 50);
AT(ThreadControlBlock, u16Priority, 52);
AT(ThreadControlBlock, u16PreemptThreshold, 54);
AT(ThreadControlBlock, u16State, 56);
AT(ThreadControlBlock, psSelf, 64);
AT(ThreadControlBlock, u32PoolIndex, 72);
AT(ThreadControlBlock, sRequest, 80);
SIZE(CmServiceRequest, 120);
SIZE(SuspendCtrl, 24);
SIZE(BlockPoolControlBlock, 72);
SIZE(BytePoolControlBlock, 64);
AT(QueueMemNode, u32Free, 24);
AT(CmQueueCtrl, u32FreeSlots, 36);
AT(FramedQueueCtrl, u8SlotCount, 34);
AT(QueueListCtrl, sReceiveGate, 48 + sizeof(pthread_mutex_t));
AT(CmSemaphoreControlBlock, u32Count, 52);
AT(EventFlagsWaiter, sSemaphore, 32);
AT(EventFlagsControlBlock, psFirstWaiter, 56 + sizeof(pthread_mutex_t));

int main(void) {
  /* The services are declared with the expected types. */
  LX_STATUS (*create)
  (LX_THREAD*, const char*, LX_THREAD_ENTRY, uint64_t, void*, uint32_t, uint16_t, uint16_t, uint32_t, uint16_t) =
      _lx_ThreadCreate;
  void (*request)(CmServiceRequest*) = CM_Request;
  LX_THREAD* (*identify)(void) = _lx_ThreadIdentify;
  return (create != _lx_ThreadCreate || request != CM_Request || identify() != NULL) ? 1 : LX_SUCCESS;
}

/* The public headers compile as strict C11, and the records that cross the
 * interface keep their field order and natural alignment: every field of the
 * request block, the thread control block and the suspend list, and the size
 * or the last field of every other record that applications embed. */
#include <stddef.h>

#include "quorvin/quorvin.h"

/* Each record's fields at their offsets, and its size where given. */
#define AT(type, field, offset) (offsetof(type, field) == (offset))
typedef CmServiceRequest Request;
typedef ThreadControlBlock Tcb;
_Static_assert(AT(SuspendNode, psOwner, 0) && AT(SuspendNode, psNext, 8) && AT(SuspendNode, psPrev, 16) &&
                   sizeof(SuspendNode) == 24,
               "SuspendNode");
_Static_assert(AT(SuspendCtrl, psLastSuspend, 0) && AT(SuspendCtrl, psFirstSuspend, 8) &&
                   AT(SuspendCtrl, i32SuspendCount, 16) && sizeof(SuspendCtrl) == 24,
               "SuspendCtrl");
_Static_assert(AT(Request, psTarget, 0) && AT(Request, psThread, 8) && AT(Request, psNext, 16) &&
                   AT(Request, psSleepNext, 24) && AT(Request, pvObject, 32) && AT(Request, pvData, 40) &&
                   AT(Request, u64InSleepAgent, 48) && AT(Request, ai32ReplyPipe, 56) &&
                   AT(Request, u32WaitOption, 64) && AT(Request, u64Value, 72) && AT(Request, u64Option, 80) &&
                   AT(Request, u16Service, 88) && AT(Request, u16Status, 90) && AT(Request, sSuspendNode, 96) &&
                   sizeof(Request) == 120,
               "CmServiceRequest");
_Static_assert(AT(Tcb, hThread, 24) && AT(Tcb, pfnEntry, 32) && AT(Tcb, u64EntryInput, 40) &&
                   AT(Tcb, u16AutoStart, 48) && AT(Tcb, u16TimeSlice, 50) && AT(Tcb, u16Priority, 52) &&
                   AT(Tcb, u16PreemptThreshold, 54) && AT(Tcb, u16State, 56) && AT(Tcb, psSelf, 64) &&
                   AT(Tcb, u32PoolIndex, 72) && AT(Tcb, sRequest, 80),
               "ThreadControlBlock");
_Static_assert(sizeof(BlockPoolControlBlock) == 72 && sizeof(BytePoolControlBlock) == 64 &&
                   AT(QueueMemNode, u32Free, 24) && AT(CmQueueCtrl, u32FreeSlots, 36) &&
                   AT(FramedQueueCtrl, u8SlotCount, 34) &&
                   AT(QueueListCtrl, sReceiveGate, 48 + sizeof(pthread_mutex_t)) &&
                   AT(CmSemaphoreControlBlock, u32Count, 52) && AT(EventFlagsWaiter, sSemaphore, 32) &&
                   AT(EventFlagsControlBlock, psFirstWaiter, 56 + sizeof(pthread_mutex_t)),
               "the last field or the size of the other records");

/* The services are declared with the argument widths applications were written against. */
_Static_assert(_Generic(&_lx_ThreadCreate,
                        LX_STATUS (*)(LX_THREAD*, const char*, LX_THREAD_ENTRY, uint64_t, void*, uint32_t, uint16_t,
                                      uint16_t, uint32_t, uint16_t) : 1,
                        default : 0) &&
                   _Generic(&CM_Request, void (*)(CmServiceRequest*) : 1, default : 0),
               "service types");

int main(void) { return _lx_ThreadIdentify() != NULL; }

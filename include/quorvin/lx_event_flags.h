/*
 * quorvin: event-flag groups.
 *
 * A group is a word of 32 flags. Threads set flags (OR) or keep only some
 * (AND), and wait until any (LX_OR) or all (LX_AND) of a chosen set is
 * present, optionally clearing what they asked for. The services run in the
 * calling thread on the group's own POSIX mutex; a waiting thread sleeps on a
 * POSIX semaphore of its own and the setter wakes it.
 *
 * The dispatcher also serves requests of the event-flags class (0x30) on the
 * same groups, for components that build requests themselves. Use one side
 * per group: the two sides do not see each other's waiters.
 */
#ifndef QUORVIN_LX_EVENT_FLAGS_H
#define QUORVIN_LX_EVENT_FLAGS_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One record per thread and group, made on the thread's first wait on the
 * group and reused for every later one; lives as long as the group. */
typedef struct EventFlagsWaiter {
  struct EventFlagsWaiter* psNext; /* next record of the group; NULL at the end */
  LX_THREAD* psThread;             /* the waiting thread's handle */
  uint32_t u32RequestedFlags;      /* flags of the armed wait; 0: not armed */
  uint16_t u16GetOption;           /* get option of the armed wait */
  uint32_t u32ActualFlags;         /* the flags when a set satisfied the wait */
  sem_t sSemaphore;                /* the thread sleeps on it; a set posts it */
} EventFlagsWaiter;

typedef struct EventFlagsControlBlock {
  char acName[20];                 /* NUL-terminated, at most 19 characters */
  uint32_t u32CurrentFlags;        /* the 32 flags */
  SuspendCtrl sSuspendCtrl;        /* dispatcher-class gets waiting on the group */
  uint32_t u32WaitCount;           /* armed direct waits */
  pthread_mutex_t sLock;           /* guards the direct side's flags, count and records */
  EventFlagsWaiter* psFirstWaiter; /* first waiter record; NULL while nobody ever waited */
} EventFlagsControlBlock;

/* A group handle word; services take its address. */
typedef EventFlagsControlBlock* LX_EVENT_FLAGS;

/* Get options: bit 1 asks for all flags, bit 0 clears on success. Set
 * options: LX_OR and LX_AND only. */
#define LX_OR 0
#define LX_OR_CLEAR 1
#define LX_AND 2
#define LX_AND_CLEAR 3

/* Service codes of the event-flags class. */
#define CM_EVENT_FLAGS_DELETE 0x32
#define CM_EVENT_FLAGS_GET 0x33
#define CM_EVENT_FLAGS_SET 0x35

/* 1 when the flags satisfy the request; never for zero flags or a zero request. */
QV_API uint32_t EventFlagCmp(uint32_t u32CurrentFlags, uint32_t u32RequestedFlags, uint16_t u16Option);

QV_API LX_STATUS _lx_EventFlagsCreate(LX_EVENT_FLAGS* psGroup, const char* pcName);
QV_API LX_STATUS _lx_EventFlagsGet(LX_EVENT_FLAGS* psGroup, uint32_t u32RequestedFlags, uint16_t u16GetOption,
                                   uint32_t* pu32ActualFlags, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_EventFlagsSet(LX_EVENT_FLAGS* psGroup, uint32_t u32Flags, uint16_t u16SetOption);
/* The name output receives the group's record (it begins with the name);
 * the next-group output receives NULL. */
QV_API LX_STATUS _lx_EventFlagsInfoGet(LX_EVENT_FLAGS* psGroup, char** ppcName, uint32_t* pu32CurrentFlags,
                                       LX_THREAD** ppsFirstSuspended, uint32_t* pu32SuspendedCount,
                                       LX_EVENT_FLAGS** ppsNextGroup);
/* Not implemented: prints one line and returns LX_SUCCESS; the group stays. */
QV_API LX_STATUS _lx_EventFlagsDelete(LX_EVENT_FLAGS* psGroup);

/* Dispatcher side: dispatcher thread, component-manager lock held. */
QV_API void CM_EventFlagsFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_EventFlagsGet(CmServiceRequest* psRequest);
QV_API int32_t CM_EventFlagsSet(CmServiceRequest* psRequest);
QV_API int32_t CM_EventFlagsDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_EventFlagsStatusChecking(CmServiceRequest* psRequest);
QV_API void CM_EventFlagsWakeUp(CmServiceRequest* psRequest);
QV_API void CM_EventFlagsWaitAbort(CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_EVENT_FLAGS_H */

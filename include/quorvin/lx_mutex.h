/*
 * quorvin: mutexes.
 *
 * A mutex lives on the dispatcher side. A get on an owned mutex waits (no
 * wait, ticks or forever); a put hands the mutex to the longest waiter, or,
 * for a mutex created with the inherit option, to the waiter with the highest
 * priority. There is no ownership count and no ownership check.
 */
#ifndef QUORVIN_LX_MUTEX_H
#define QUORVIN_LX_MUTEX_H

#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MutexControlBlock {
  char acName[20];          /* NUL-terminated, at most 19 characters */
  LX_THREAD* psOwner;       /* owning thread's handle; NULL while free */
  SuspendCtrl sSuspendCtrl; /* requests waiting for the mutex */
  uint32_t u32Inherit;      /* 1: a put hands over to the highest-priority waiter */
  uint32_t u32Available;    /* 1: free */
} MutexControlBlock;

/* A mutex handle word; services take its address. */
typedef MutexControlBlock* LX_MUTEX;

#define LX_NO_INHERIT 0
#define LX_INHERIT 1

/* Service codes of the mutex class. */
#define CM_MUTEX_DELETE 0x52
#define CM_MUTEX_GET 0x53
#define CM_MUTEX_PRIORITIZE 0x55
#define CM_MUTEX_PUT 0x56

QV_API LX_STATUS _lx_MutexCreate(LX_MUTEX* psMutex, const char* pcName, uint16_t u16Inherit);
QV_API LX_STATUS _lx_MutexGet(LX_MUTEX* psMutex, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_MutexPut(LX_MUTEX* psMutex);
QV_API LX_STATUS _lx_MutexDelete(LX_MUTEX* psMutex);
QV_API LX_STATUS _lx_MutexPrioritize(LX_MUTEX* psMutex);
/* The next-mutex output is left unwritten. */
QV_API LX_STATUS _lx_MutexInfoGet(LX_MUTEX* psMutex, char** ppcName, uint32_t* pu32Count,
                                  LX_THREAD** ppsOwner, SuspendNode** ppsFirstSuspended,
                                  uint32_t* pu32SuspendedCount, LX_MUTEX** ppsNextMutex);

/* Dispatcher side: dispatcher thread, component-manager lock held. */
QV_API void CM_MutexFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_MutexGet(CmServiceRequest* psRequest);
QV_API int32_t CM_MutexPut(CmServiceRequest* psRequest);
QV_API int32_t CM_MutexDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_MutexPrioritize(CmServiceRequest* psRequest);
QV_API void CM_MutexWakeUp(CmServiceRequest* psDriver);
QV_API void CM_MutexWaitAbort(CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_MUTEX_H */

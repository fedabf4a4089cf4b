/*
 * quorvin: counting semaphores.
 *
 * The interface's semaphores are POSIX unnamed semaphores served in the
 * calling thread: a get waits with no wait, for a number of ticks or for
 * ever; any thread may put (the timer thread included). Delete, info-get and
 * prioritize are not implemented: they log a line and report success.
 *
 * The dispatcher also has a semaphore class of its own (0x70), with a ceiling
 * and FIFO hand-over, for components that build requests themselves. Its
 * control block is provided by the party that issues the requests.
 */
#ifndef QUORVIN_LX_SEMAPHORE_H
#define QUORVIN_LX_SEMAPHORE_H

#include <semaphore.h>
#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A semaphore handle word (it names a heap block holding the POSIX
 * semaphore); services take its address. */
typedef sem_t* LX_SEMAPHORE;

/* Control block of the dispatcher's semaphore class. No operation creates
 * one: its user allocates it zero-filled on the heap (delete frees it), sets
 * u32Ceiling (at least 1) and u32Count (at most the ceiling) and stores its
 * address in the handle word that requests name. */
typedef struct CmSemaphoreControlBlock {
  uint8_t au8Head[24];      /* not used by the handlers */
  SuspendCtrl sSuspendCtrl; /* gets waiting for a count */
  uint32_t u32Ceiling;      /* a put never raises the count beyond it */
  uint32_t u32Count;        /* current count */
} CmSemaphoreControlBlock;

/* Service codes of the semaphore class. */
#define CM_SEMAPHORE_DELETE 0x72
#define CM_SEMAPHORE_GET 0x73
#define CM_SEMAPHORE_PRIORITIZE 0x75
#define CM_SEMAPHORE_PUT 0x76

QV_API LX_STATUS _lx_SemaphoreCreate(LX_SEMAPHORE* psSemaphore, const char* pcName, uint32_t u32InitialCount);
QV_API LX_STATUS _lx_SemaphoreGet(LX_SEMAPHORE* psSemaphore, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_SemaphorePut(LX_SEMAPHORE* psSemaphore);
/* Not implemented: they log one line, read nothing, write no output and
 * return LX_SUCCESS. */
QV_API LX_STATUS _lx_SemaphoreDelete(LX_SEMAPHORE* psSemaphore);
QV_API LX_STATUS _lx_SemaphoreInfoGet(LX_SEMAPHORE* psSemaphore, char** ppcName, uint32_t* pu32CurrentValue,
                                      LX_THREAD** ppsFirstSuspended, uint32_t* pu32SuspendedCount,
                                      LX_SEMAPHORE** ppsNextSemaphore);
QV_API LX_STATUS _lx_SemaphorePrioritize(LX_SEMAPHORE* psSemaphore);

/* Dispatcher side: dispatcher thread, component-manager lock held. */
QV_API void CM_SemaphoreFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_SemaphoreGet(CmServiceRequest* psRequest);
QV_API int32_t CM_SemaphorePut(CmServiceRequest* psRequest);
QV_API int32_t CM_SemaphoreDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_SemaphorePrioritize(CmServiceRequest* psRequest);
QV_API void CM_SemaphoreWakeUp(CmServiceRequest* psDriver);
QV_API void CM_SemaphoreWaitAbort(CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_SEMAPHORE_H */

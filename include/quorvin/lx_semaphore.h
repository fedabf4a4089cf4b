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

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_SEMAPHORE_H */

/*
 * quorvin: creating and using a dispatcher queue.
 *
 * A dispatcher queue keeps its messages in a queue list store and lets its
 * senders and receivers wait in the dispatcher (class 0x60), where a thread
 * wait abort and the tick-counted time-outs reach them. These helpers are
 * inline: they build the queue from the heap and issue requests from the
 * calling thread's own request block, which must be a thread of the system.
 */
#ifndef QUORVIN_LX_CM_QUEUE_H
#define QUORVIN_LX_CM_QUEUE_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "lx_cm.h"
#include "lx_queue.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a queue of u32Capacity (at least 1) messages of u32MessageWords
 * (1, 2, 4, 8 or 16) words in *psQueue. pvStorage: the caller's message
 * storage (u32Capacity x u32MessageWords x 4 bytes, 4-byte aligned, kept
 * until the queue is deleted), or NULL to make it in the queue's own heap
 * block, which the delete releases. LX_QUEUE_ERROR: NULL handle or no memory;
 * LX_SIZE_ERROR: capacity 0 or another word count. */
static inline LX_STATUS CmQueueCreate(CM_QUEUE* psQueue, uint32_t u32Capacity, uint32_t u32MessageWords,
                                      void* pvStorage) {
  CmQueueCtrl* psCtrl;
  size_t uStorageBytes;
  if (psQueue == NULL) return LX_QUEUE_ERROR;
  if (u32Capacity == 0 || (u32MessageWords != 1 && u32MessageWords != 2 && u32MessageWords != 4 &&
                           u32MessageWords != 8 && u32MessageWords != 16)) {
    return LX_SIZE_ERROR;
  }
  uStorageBytes = pvStorage != NULL ? 0 : (size_t)u32Capacity * u32MessageWords * 4u;
  psCtrl = (CmQueueCtrl*)calloc(1, sizeof(CmQueueCtrl) + uStorageBytes);
  if (psCtrl == NULL) return LX_QUEUE_ERROR;
  psCtrl->psList = QueueListCreate(u32Capacity, u32MessageWords, pvStorage != NULL ? pvStorage : (void*)(psCtrl + 1));
  if (psCtrl->psList == NULL) {
    free(psCtrl);
    return LX_QUEUE_ERROR;
  }
  psCtrl->u32Capacity = u32Capacity;
  psCtrl->u32FreeSlots = u32Capacity;
  /* Published with a release store: the dispatcher reads the word atomically,
   * also for requests of other threads that name it meanwhile. */
  __atomic_store_n(psQueue, psCtrl, __ATOMIC_RELEASE);
  return LX_SUCCESS;
}

/* Issues one queue-class request from the caller's own block. The wait
 * option is always set (0 where no wait applies), so a value left by an
 * earlier request never gets the timer thread refused. A caller that is not
 * a thread of the system gets LX_QUEUE_ERROR. */
static inline LX_STATUS CmQueueIssue(CM_QUEUE* psQueue, uint16_t u16Service, void* pvData, uint32_t u32WaitOption) {
  LX_THREAD* psSelf = _lx_ThreadIdentify();
  CmServiceRequest* psRequest;
  if (psSelf == NULL || *psSelf == NULL) return LX_QUEUE_ERROR;
  psRequest = &(*psSelf)->sRequest;
  __atomic_store_n(&psRequest->u16Service, u16Service, __ATOMIC_RELAXED);
  psRequest->psTarget = NULL;
  psRequest->psThread = psSelf;
  psRequest->pvObject = psQueue;
  psRequest->pvData = pvData;
  __atomic_store_n(&psRequest->u32WaitOption, u32WaitOption, __ATOMIC_RELAXED);
  CM_Request(psRequest);
  return psRequest->u16Status;
}

/* Send at the back or the front, waiting while the queue is full. */
static inline LX_STATUS CmQueueSend(CM_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption) {
  return CmQueueIssue(psQueue, CM_QUEUE_SEND, pvSource, u32WaitOption);
}
static inline LX_STATUS CmQueueFrontSend(CM_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption) {
  return CmQueueIssue(psQueue, CM_QUEUE_FRONT_SEND, pvSource, u32WaitOption);
}
/* Receive the front message, waiting while the queue is empty. */
static inline LX_STATUS CmQueueReceive(CM_QUEUE* psQueue, void* pvDestination, uint32_t u32WaitOption) {
  return CmQueueIssue(psQueue, CM_QUEUE_RECEIVE, pvDestination, u32WaitOption);
}
/* Drops every message and releases waiting senders with LX_SUCCESS. */
static inline LX_STATUS CmQueueFlush(CM_QUEUE* psQueue) {
  return CmQueueIssue(psQueue, CM_QUEUE_FLUSH, NULL, LX_NO_WAIT);
}
/* Moves the waiter with the highest priority below 31 to the front. */
static inline LX_STATUS CmQueuePrioritize(CM_QUEUE* psQueue) {
  return CmQueueIssue(psQueue, CM_QUEUE_PRIORITIZE, NULL, LX_NO_WAIT);
}
/* Releases every waiter with LX_DELETED, frees the queue, clears *psQueue. */
static inline LX_STATUS CmQueueDelete(CM_QUEUE* psQueue) {
  return CmQueueIssue(psQueue, CM_QUEUE_DELETE, NULL, LX_NO_WAIT);
}

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_CM_QUEUE_H */

/*
 * quorvin: message queues.
 *
 * The _lx_Queue services carry messages of 1, 2, 4, 8 or 16 32-bit words
 * through the host's POSIX message queues, named "/mq_<name>". Senders and
 * receivers wait inside the host's queue (no wait, ticks or forever). A queue
 * is a named object of the host: it outlives the process, and creating it
 * again under the same name opens and empties it.
 *
 * The queue list store (QueueList*, QueueMem*) is an in-memory message list
 * with a fixed node pool; it holds the messages of the dispatcher's queue
 * class (CM_Queue*, service class 0x60), whose senders and receivers wait on
 * a suspend list in the dispatcher. See lx_cm_queue.h for creating such a
 * queue and issuing its requests.
 */
#ifndef QUORVIN_LX_QUEUE_H
#define QUORVIN_LX_QUEUE_H

#include <pthread.h>
#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Queues on POSIX message queues ---- */

/* What a queue handle word points to. */
typedef struct MqQueueCtrl {
  int32_t i32MqDes; /* the host queue's descriptor, read and write; -1 if opening failed */
} MqQueueCtrl;

/* A queue handle word; services take its address. */
typedef MqQueueCtrl* LX_QUEUE;

/* Message priorities of a send at the back and at the front. */
#define LX_QUEUE_BACK_PRIORITY 10u
#define LX_QUEUE_FRONT_PRIORITY 100u

/* Serialises _lx_QueueCreate. */
QV_API extern pthread_mutex_t G_sQueueLock;

QV_API LX_STATUS _lx_QueueCreate(LX_QUEUE* psQueue, const char* pcName, uint16_t u16MessageWords,
                                 void* pvQueueStart, uint32_t u32QueueBytes);
QV_API LX_STATUS _lx_QueueSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_QueueFrontSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption);
QV_API LX_STATUS LP_QueueSend(LX_QUEUE* psQueue, void* pvSource, uint32_t u32WaitOption,
                              uint32_t u32Priority);
QV_API LX_STATUS _lx_QueueReceive(LX_QUEUE* psQueue, void* pvDestination, uint32_t u32WaitOption);
QV_API LX_STATUS _lx_QueueFlush(LX_QUEUE* psQueue);
/* Not implemented: each prints one line and returns LX_SUCCESS, reading no
 * argument and writing no output; the queue keeps working. */
QV_API LX_STATUS _lx_QueueDelete(LX_QUEUE* psQueue);
QV_API LX_STATUS _lx_QueueInfoGet(LX_QUEUE* psQueue, char** ppcName, uint32_t* pu32Enqueued,
                                  uint32_t* pu32AvailableStorage, LX_THREAD** ppsFirstSuspended,
                                  uint32_t* pu32SuspendedCount, LX_QUEUE** ppsNextQueue);
QV_API LX_STATUS _lx_QueuePrioritize(LX_QUEUE* psQueue);

/* ---- Queue list store ---- */

/* One node of the store's pool; node i always uses message slot i. */
typedef struct QueueMemNode {
  struct QueueMemNode* psPrevNode; /* circular: the head's previous node is the tail */
  struct QueueMemNode* psNextNode; /* circular: the tail's next node is the head */
  void* pvSlot;                    /* this node's message slot while in use */
  uint32_t u32Free;                /* 1: free; 0: holds a message */
} QueueMemNode;

/* A gate any thread may open; opening an open gate does nothing. */
typedef struct QueueGate {
  uint32_t u32Open; /* 1: open; changed atomically */
} QueueGate;

typedef struct QueueListCtrl {
  QueueMemNode* psHead;     /* next message to receive; NULL when empty */
  QueueMemNode* psTail;     /* newest message; NULL when empty */
  int32_t i32Count;         /* messages stored */
  int32_t i32Capacity;      /* nodes, and message slots */
  int32_t i32MessageBytes;  /* i32MessageWords x 4 */
  int32_t i32MessageWords;  /* 1, 2, 4, 8 or 16 */
  QueueMemNode* paNodes;    /* the node pool, in the same block as this record */
  void* pvStorage;          /* the caller's message slots, 4-byte aligned */
  pthread_mutex_t sListLock; /* tried by a send, taken by flush and delete */
  QueueGate sReceiveGate;   /* closed at creation; opened by every send */
} QueueListCtrl;

/* Results of the store besides 0 (done). */
#define QUEUE_LIST_EMPTY 1 /* receive: nothing stored; send: no free node, nothing stored */
#define QUEUE_LIST_BUSY 4  /* the list lock or the receive gate is held elsewhere */

/* NULL for word counts other than 1, 2, 4, 8, 16, NULL storage or no memory. */
QV_API QueueListCtrl* QueueListCreate(uint32_t u32Capacity, uint32_t u32MessageWords, void* pvStorage);
QV_API int32_t QueueListSend(QueueListCtrl* psList, const void* pvSource, int32_t i32AtBack,
                             int32_t i32LockHeld);
QV_API int32_t QueueListReceive(QueueListCtrl* psList, void* pvDestination, int32_t i32FromBack,
                                int32_t i32LockHeld);
QV_API int32_t QueueListFlush(QueueListCtrl* psList);
QV_API int32_t QueueListDelete(QueueListCtrl* psList);
QV_API int32_t QueueMemInit(QueueListCtrl* psList);
QV_API QueueMemNode* QueueMemAlloc(QueueListCtrl* psList);
QV_API int32_t QueueMemFree(QueueListCtrl* psList, QueueMemNode* psNode);

/* ---- The dispatcher's queue class ---- */

/* A dispatcher queue; a request's pvObject is the address of its handle word. */
typedef struct CmQueueCtrl {
  QueueListCtrl* psList;    /* the messages */
  SuspendCtrl sSuspendCtrl; /* count < 0: receivers wait (empty); > 0: senders wait (full) */
  uint32_t u32Capacity;     /* messages the queue holds, at least 1 */
  uint32_t u32FreeSlots;    /* free places: u32Capacity when empty, 0 when full */
} CmQueueCtrl;

/* A dispatcher queue handle word. */
typedef CmQueueCtrl* CM_QUEUE;

/* Service codes of the queue class. */
#define CM_QUEUE_DELETE 0x62
#define CM_QUEUE_FLUSH 0x63
#define CM_QUEUE_FRONT_SEND 0x64
#define CM_QUEUE_PRIORITIZE 0x66
#define CM_QUEUE_RECEIVE 0x67
#define CM_QUEUE_SEND 0x68

/* Dispatcher thread, component-manager lock held. */
QV_API void CM_QueueFunction(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_QueueSend(uint16_t u16Service, CmServiceRequest* psRequest);
QV_API int32_t CM_QueueReceive(CmServiceRequest* psRequest);
QV_API int32_t CM_QueueFlush(CmServiceRequest* psRequest);
QV_API int32_t CM_QueueDelete(CmServiceRequest* psRequest);
QV_API int32_t CM_QueuePrioritize(CmServiceRequest* psRequest);
QV_API void CM_QueueWakeUp(CmServiceRequest* psDriver);
QV_API void CM_QueueWaitAbort(CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_QUEUE_H */

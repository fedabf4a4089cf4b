/*
 * quorvin: framed queues.
 *
 * A framed queue carries messages of a fixed size S of 0 to 65535 bytes in N
 * slots (1 to 255) of a buffer the application provides; only the 32-bit
 * offset of a message's slot travels through an underlying word queue (see
 * lx_queue.h). Optionally a semaphore serialises the work on the slots, which
 * any number of threads may then share; without it, sends and receives on
 * one framed queue must not overlap.
 *
 * Buffer (QueueCalcSize(S, N) bytes, from the start): N slots of one state
 * byte (0 free, 1 full) and S body bytes; filler up to A = (N x (S + 1)
 * rounded down to a multiple of 4) + 4; then 4 x N bytes reserved as the
 * underlying queue's nominal storage, which is never read or written.
 */
#ifndef QUORVIN_LX_FRAMED_QUEUE_H
#define QUORVIN_LX_FRAMED_QUEUE_H

#include <stdint.h>

#include "lx_queue.h"
#include "lx_semaphore.h"
#include "lx_status.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Allocated by the application and passed by address to every call. */
typedef struct FramedQueueCtrl {
  LX_QUEUE psMsgQueue;           /* the underlying queue's handle word */
  uint8_t* pu8SlotArea;          /* the application's buffer */
  uint8_t u8Locked;              /* 1: psLockSemaphore serialises the slots */
  LX_SEMAPHORE psLockSemaphore;  /* the lock, created with count 1 */
  uint16_t u16MessageSize;       /* S */
  uint8_t u8SlotCount;           /* N */
} FramedQueueCtrl;

/* Placement of QueueSend: 1 at the back; anything else at the front. */
#define FRAMED_QUEUE_AT_BACK 1

/* Bytes of the buffer for N slots of S-byte messages. */
QV_API uint32_t QueueCalcSize(uint16_t u16MessageSize, uint8_t u8SlotCount);
/* u32Unused is not read; the buffer must hold QueueCalcSize(S, N) bytes,
 * which cannot be checked. A nonzero i32Locked creates the lock. */
QV_API LX_STATUS QueueCreate(FramedQueueCtrl* psQueue, const char* pcName, uint16_t u16MessageSize,
                             uint8_t u8SlotCount, void* pvBuffer, uint32_t u32Unused, int32_t i32Locked);
/* Never waits for a free slot (LX_QUEUE_FULL); with i32NoWait 0 it waits up
 * to 100 ticks for the lock and again up to 100 ticks in the underlying send. */
QV_API LX_STATUS QueueSend(FramedQueueCtrl* psQueue, const void* pvSource, int32_t i32NoWait,
                           int32_t i32Placement);
QV_API LX_STATUS QueueReceive(FramedQueueCtrl* psQueue, void* pvDestination, uint32_t u32WaitOption);
QV_API LX_STATUS QueueFlush(FramedQueueCtrl* psQueue);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_FRAMED_QUEUE_H */

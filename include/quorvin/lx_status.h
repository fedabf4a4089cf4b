/*
 * quorvin: status codes, wait options, thread states and the export marker.
 *
 * Every service returns one of the LX_* status codes below; there is no other
 * failure channel. This header compiles as C11 and as C++.
 */
#ifndef QUORVIN_LX_STATUS_H
#define QUORVIN_LX_STATUS_H

#include <stdint.h>

/* Marks a name of the library's interface. Everything else stays hidden. */
#if defined(__GNUC__)
#define QV_API __attribute__((visibility("default")))
#else
#define QV_API
#endif

/* Status of a service. Values below 32; held in 16 bits inside a request. */
typedef uint32_t LX_STATUS;

#define LX_SUCCESS 0
#define LX_DELETED 1
#define LX_POOL_ERROR 2
#define LX_PTR_ERROR 3
#define LX_WAIT_ERROR 4
#define LX_SIZE_ERROR 5
#define LX_GROUP_ERROR 6
#define LX_NO_EVENTS 7
#define LX_OPTION_ERROR 8
#define LX_QUEUE_ERROR 9
#define LX_QUEUE_EMPTY 10
#define LX_QUEUE_FULL 11
#define LX_SEMAPHORE_ERROR 12
#define LX_NO_INSTANCE 13
#define LX_THREAD_ERROR 14
#define LX_PRIORITY_ERROR 15
#define LX_NO_MEMORY 16
#define LX_DELETE_ERROR 17
#define LX_CALLER_ERROR 19
#define LX_TIMER_ERROR 21
#define LX_TICK_ERROR 22
#define LX_ACTIVATE_ERROR 23
#define LX_THRESH_ERROR 24
#define LX_WAIT_ABORTED 26
#define LX_WAIT_ABORT_ERROR 27
#define LX_MUTEX_ERROR 28
#define LX_NOT_AVAILABLE 29
#define LX_INHERIT_ERROR 31

/* Wait options: anything between the two is a number of 10 ms ticks. */
#define LX_NO_WAIT 0u
#define LX_WAIT_FOREVER 0xFFFFFFFFu

/* Thread states (ThreadControlBlock.u16State): why a thread is not running. */
#define LX_STATE_READY 0
#define LX_STATE_TERMINATED 2
#define LX_STATE_SUSPENDED 3
#define LX_STATE_SLEEPING 4
#define LX_STATE_QUEUE_WAIT 5
#define LX_STATE_SEMAPHORE_WAIT 6
#define LX_STATE_EVENT_FLAGS_WAIT 7
#define LX_STATE_BLOCK_POOL_WAIT 8
#define LX_STATE_BYTE_POOL_WAIT 9
#define LX_STATE_MUTEX_WAIT 13

/* Priorities run from 0 (highest) to 32 (lowest). */
#define LX_MAX_PRIORITY 32

#endif /* QUORVIN_LX_STATUS_H */

/*
 * quorvin: the component manager's interface.
 *
 * A service that may wait fills the CmServiceRequest inside its thread's
 * control block and hands it to CM_Request. The dispatcher thread "CMRH"
 * completes it, or parks it on an object's suspend list (optionally timed by
 * the sleep agent) until a release, a time-out, a wait abort or a delete.
 */
#ifndef QUORVIN_LX_CM_H
#define QUORVIN_LX_CM_H

#include <stdint.h>

#include "lx_status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ThreadControlBlock;

/* Link of a waiting request on an object's suspend list. */
typedef struct SuspendNode {
  struct ThreadControlBlock** psOwner; /* handle of the waiting thread */
  struct SuspendNode* psNext;          /* toward psLastSuspend; NULL at the last node */
  struct SuspendNode* psPrev;          /* toward psFirstSuspend; NULL at the first node */
} SuspendNode;

/* Head of a suspend list, embedded in every object that requests wait on. */
typedef struct SuspendCtrl {
  SuspendNode* psLastSuspend;  /* ordinary waiters are appended here */
  SuspendNode* psFirstSuspend; /* releases take waiters from here */
  int32_t i32SuspendCount;     /* |count| = linked nodes; the sign is the class's */
} SuspendCtrl;

/* One service request; every thread owns exactly one, inside its control block. */
typedef struct CmServiceRequest {
  struct ThreadControlBlock** psTarget; /* thread acted on (thread services, time-out, abort) */
  struct ThreadControlBlock** psThread; /* thread that issued the request and waits for it */
  struct CmServiceRequest* psNext;      /* request list link */
  struct CmServiceRequest* psSleepNext; /* sleep agent list link */
  void* pvObject;                       /* handle of the object acted on */
  void* pvData;                         /* message buffer, or where flags are stored */
  uint64_t u64InSleepAgent;             /* 1 while registered with the sleep agent */
  int32_t ai32ReplyPipe[2];             /* reply pipe: read end, write end */
  uint32_t u32WaitOption;               /* LX_NO_WAIT, LX_WAIT_FOREVER or ticks left */
  uint64_t u64Value;                    /* first value argument */
  uint64_t u64Option;                   /* second value argument */
  uint16_t u16Service;                  /* class | operation; 0 = no request in progress */
  uint16_t u16Status;                   /* completion status */
  SuspendNode sSuspendNode;             /* link while parked on a suspend list */
} CmServiceRequest;

/* Service classes: the bits of a service code above the low four. */
#define CM_CLASS_SYSTEM 0x00
#define CM_CLASS_BLOCK_POOL 0x10
#define CM_CLASS_BYTE_POOL 0x20
#define CM_CLASS_EVENT_FLAGS 0x30
#define CM_CLASS_MUTEX 0x50
#define CM_CLASS_QUEUE 0x60
#define CM_CLASS_SEMAPHORE 0x70
#define CM_CLASS_THREAD 0x80

/* Operations of the system class. */
#define CM_OP_TIMEOUT 0x0001

/* Flags of CM_AddToSuspendList. */
#define CM_SUSPEND_COUNT_UP 0x01 /* count +1 (clear: -1) */
#define CM_SUSPEND_AT_FRONT 0x02 /* insert at psFirstSuspend (clear: append) */

/* Modes of CM_RemoveTargetFromSuspendListEx. */
#define CM_REMOVE_UNLINK_ONLY 0     /* unlink, do not release */
#define CM_REMOVE_SUCCESS 1         /* release with LX_SUCCESS */
#define CM_REMOVE_WITH_STATUS 2     /* release with the status argument */
#define CM_REMOVE_ABORTED 3         /* release with LX_WAIT_ABORTED */
#define CM_STATUS_UNUSED 0xFFFF     /* status argument where the mode ignores it */

/* Class function: called by the dispatcher with the full service code. */
typedef void (*CM_CLASS_FUNCTION)(uint16_t u16Service, CmServiceRequest* psRequest);

/* The request list. */
QV_API extern CmServiceRequest* S_psTop;
QV_API extern CmServiceRequest* S_psEnd;

QV_API void CM_Initial(void);
QV_API void CM_Request(CmServiceRequest* psRequest);
QV_API void CM_RequestAdd(CmServiceRequest* psRequest);
QV_API void CM_RequestFree(void);
QV_API void* ComponentManagerRequestHandle(void* pvArg);
QV_API int32_t CM_SystemFunction(uint16_t u16Service, CmServiceRequest* psRequest);

/* One-byte pipe primitives. */
QV_API int32_t CM_WakeUpThreadEx(int32_t i32Fd);
QV_API int32_t CM_WaitingSignalEx(int32_t i32Fd);
QV_API int32_t CM_WakeUpThread(CmServiceRequest* psRequest);
QV_API int32_t CM_WaitingSignal(CmServiceRequest* psRequest);

/* Suspend lists; dispatcher thread, component-manager lock held. */
QV_API void CM_AddToSuspendList(CmServiceRequest* psRequest, SuspendCtrl* psSuspendCtrl,
                                uint8_t u8Flags);
QV_API void CM_RemoveTargetFromSuspendListEx(SuspendCtrl* psSuspendCtrl, SuspendNode* psNode,
                                             uint8_t u8Mode, uint16_t u16Status);
QV_API void CM_WakeUpAllThreadInSuspendList(CmServiceRequest* psRequest,
                                            SuspendCtrl* psSuspendCtrl, uint16_t u16Status);

/* Sleep agent: finite waits counted down one tick per pass. */
QV_API void SleepAgentAddRequest(CmServiceRequest* psRequest);
QV_API void SleepAgentRemoveRequest(CmServiceRequest* psRequest);
QV_API void SleepAgentEx(void);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_CM_H */

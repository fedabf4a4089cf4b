/*
 * quorvin: threads.
 *
 * Every kernel thread is a POSIX thread with one ThreadControlBlock. A thread
 * is named by its handle: the address of an application-owned word into which
 * _lx_ThreadCreate stores the block's address.
 */
#ifndef QUORVIN_LX_THREAD_H
#define QUORVIN_LX_THREAD_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>

#include "lx_cm.h"
#include "lx_status.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Entry function of a thread; its result becomes the POSIX thread's result. */
typedef void* (*LX_THREAD_ENTRY)(uint64_t u64Input);

typedef struct ThreadControlBlock {
  char acName[20];                /* NUL-terminated, at most 19 characters */
  pthread_t hThread;              /* POSIX thread id */
  LX_THREAD_ENTRY pfnEntry;       /* entry function */
  uint64_t u64EntryInput;         /* its argument */
  uint16_t u16AutoStart;          /* 1: run at once; 0: wait for the first resume */
  uint16_t u16TimeSlice;          /* stored and reported only */
  uint16_t u16Priority;           /* 0 (highest) to 32 (lowest) */
  uint16_t u16PreemptThreshold;   /* threshold at creation; applied nice increment later */
  uint16_t u16State;              /* LX_STATE_* */
  struct ThreadControlBlock** psSelf; /* the thread's handle */
  uint32_t u32PoolIndex;          /* pool count when the thread was created */
  CmServiceRequest sRequest;      /* the thread's own service request */
} ThreadControlBlock;

/* A thread handle word; services take its address. */
typedef ThreadControlBlock* LX_THREAD;

#define LX_THREAD_POOL_SLOTS 50

/* The thread pool: entries 0..count-1 registered, entry count is NULL. */
QV_API extern ThreadControlBlock* S_paThreadPool[LX_THREAD_POOL_SLOTS];
QV_API extern int32_t S_i32ThreadPoolIndex;
QV_API extern pthread_mutex_t G_sThreadPoolLock;
QV_API extern pthread_mutex_t G_sThreadCreateLock;
QV_API extern pthread_mutex_t G_sThreadInitLock;
/* While nonzero, new threads hold back before running their entry. */
QV_API extern uint8_t G_u8ThreadLock;
/* {SIGUSR1, SIGALRM}: blocked in every thread. (__sigset_t is glibc's sigset_t,
 * named so that the header also compiles in strict ISO C mode.) */
QV_API extern __sigset_t G_sSignalMasktTble;

QV_API LX_THREAD* _lx_ThreadIdentify(void);
QV_API void _lx_ThreadInitialize(void);
QV_API LX_STATUS _lx_ThreadCreate(LX_THREAD* psThread, const char* pcName, LX_THREAD_ENTRY pfnEntry,
                                  uint64_t u64EntryInput, void* pvStackStart,
                                  uint32_t u32StackSize, uint16_t u16Priority,
                                  uint16_t u16PreemptThreshold, uint32_t u32TimeSlice,
                                  uint16_t u16AutoStart);
QV_API void* ChildThreadEntry(ThreadControlBlock* psTcb);
QV_API void ThreadSignalServiceRoutine(int iSignal);

QV_API LX_STATUS _lx_ThreadPreemptionChange(LX_THREAD* psThread, uint16_t u16NewThreshold,
                                            uint16_t* pu16OldThreshold);
QV_API LX_STATUS _lx_ThreadPriorityChange(LX_THREAD* psThread, uint16_t u16NewPriority,
                                          uint16_t* pu16OldPriority);

/* Thread services. */
QV_API LX_STATUS _lx_ThreadSleep(uint32_t u32Ticks);
QV_API LX_STATUS _lx_ThreadResume(LX_THREAD* psThread);
QV_API LX_STATUS _lx_ThreadSuspend(LX_THREAD* psThread);
QV_API LX_STATUS _lx_ThreadWaitAbort(LX_THREAD* psThread);
/* Does not return when psThread is the caller's own handle. */
QV_API LX_STATUS _lx_ThreadTerminate(LX_THREAD* psThread);
QV_API LX_STATUS _lx_ThreadDelete(LX_THREAD* psThread);
/* Run count is always 0; both next pointers are NULL. */
QV_API LX_STATUS _lx_ThreadInfoGet(LX_THREAD* psThread, char** ppcName, uint16_t* pu16State,
                                   uint32_t* pu32RunCount, uint16_t* pu16Priority,
                                   uint16_t* pu16PreemptThreshold, uint32_t* pu32TimeSlice,
                                   LX_THREAD** ppsNextThread, LX_THREAD** ppsNextSuspended);

/* Service codes of the thread class. */
#define CM_THREAD_SLEEP 0x88
#define CM_THREAD_SUSPEND 0x89
#define CM_THREAD_TERMINATE 0x8A
#define CM_THREAD_WAIT_ABORT 0x8C

/* Dispatcher side: dispatcher thread, component-manager lock held. */
QV_API void CM_ThreadFunction(uint16_t u16Service, CmServiceRequest* psRequest);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_THREAD_H */

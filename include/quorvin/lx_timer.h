/*
 * quorvin: system time, the tick, application timers and the timer thread.
 *
 * One tick is 10 ms. The tick thread "SoftTimer" writes one byte per tick into
 * the timer pipe; the timer thread "TimerISR" takes one byte per tick, runs
 * one sleep-agent pass (waits with a finite wait option) and then counts the
 * application timers down, calling the expiration functions of those that
 * expire, in table order.
 */
#ifndef QUORVIN_LX_TIMER_H
#define QUORVIN_LX_TIMER_H

#include <stdint.h>

#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Expiration function of an application timer. */
typedef void (*TimerExpirationFunction)(uint32_t u32Input);

typedef struct TimerControlBlock {
  char acName[20];                            /* NUL-terminated, at most 19 characters */
  TimerExpirationFunction pfnExpirationCheck; /* second copy, compared before each call */
  TimerExpirationFunction pfnExpiration;      /* called by the timer thread at expiry */
  uint32_t u32ExpirationInput;                /* its argument */
  uint16_t u16Active;                         /* 1: counting down */
  uint32_t u32RemainingTicks;                 /* ticks to the next expiry */
  uint32_t u32InitialTicks;                   /* as last given to create or change */
  uint32_t u32RescheduleTicks;                /* reloaded after each expiry; 0: one-shot */
} TimerControlBlock;

/* A timer handle word; services take its address. */
typedef TimerControlBlock* LX_TIMER;

#define LX_TIMER_TABLE_SLOTS 100

/* Address of the timer thread's handle word, from load time on. A caller is
 * the timer thread when _lx_ThreadIdentify() == G_psTimer. */
QV_API extern LX_THREAD* G_psTimer;
/* Ticks signalled by the tick thread and not yet processed (atomic). */
QV_API extern int32_t G_i32Ticks;
/* The timer pipe: read end, write end; both -1 until it exists. */
QV_API extern int32_t G_i32TimerPIPE[2];

/* System time in 10 ms units since the epoch, modulo 2^32. */
QV_API uint32_t _lx_TimeGet(void);
QV_API void _lx_TimeSet(uint32_t u32Time);
QV_API void _lx_TimeInitialize(void);

QV_API LX_STATUS _lx_TimerCreate(LX_TIMER* psTimer, const char* pcName,
                                 TimerExpirationFunction pfnExpiration, uint32_t u32ExpirationInput,
                                 uint32_t u32InitialTicks, uint32_t u32RescheduleTicks,
                                 uint16_t u16AutoActivate);
QV_API LX_STATUS _lx_TimerDelete(LX_TIMER* psTimer);
QV_API LX_STATUS _lx_TimerActivate(LX_TIMER* psTimer);
QV_API LX_STATUS _lx_TimerDeactivate(LX_TIMER* psTimer);
QV_API LX_STATUS _lx_TimerChange(LX_TIMER* psTimer, uint32_t u32InitialTicks,
                                 uint32_t u32RescheduleTicks);
/* The sixth pointer must not be NULL and is never written; any object pointer fits. */
QV_API LX_STATUS _lx_TimerInfoGet(LX_TIMER* psTimer, char** ppcName, uint16_t* pu16Active,
                                  uint32_t* pu32RemainingTicks, uint32_t* pu32RescheduleTicks,
                                  void* pvReserved);

QV_API void _lx_TimerInitialize(void);
QV_API void* _lx_TimerISR(uint64_t u64Input);
QV_API void _lx_SoftTimerEnable(void);
QV_API void _lx_TimerTunerStart(void);
QV_API void _lx_TickAdjust(uint32_t u32Input);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_TIMER_H */

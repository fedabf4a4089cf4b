/*
 * quorvin: kernel entry, start-up and the fatal-signal handler.
 *
 * An application starts everything with one call from its initial thread:
 *
 *     _lx_initialize_kernel_enter(NULL, NULL, app_define);
 *
 * app_define creates the application's objects and threads; the call then
 * turns the initial thread into the tick thread and never returns.
 */
#ifndef QUORVIN_LX_KERNEL_H
#define QUORVIN_LX_KERNEL_H

#include <pthread.h>
#include <stdint.h>

#include "lx_status.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 0xF0F0F0F0 during start-up, 0 once the application is defined. Set it to
 * 0xF0F0F0F1 before the entry to skip the low- and high-level initialisation. */
QV_API extern uint32_t _lx_thread_system_state;

/* SIGQUIT: the thread told to finish (0 = none), and the flag it reads. */
QV_API extern pthread_t g_zloop_thread_id;
QV_API extern int32_t g_zloop_exit_id;

/* The two pointer arguments are accepted and ignored. */
QV_API void _lx_initialize_kernel_enter(void* pvUnused1, void* pvUnused2, void (*pfnAppDefine)(void));
QV_API void _lx_initialize_low_level(void);
QV_API void _lx_initialize_high_level(void);
QV_API void _lx_thread_schedule(void);
QV_API void _lx_LowLevHardWareInitial(void);
QV_API void SchedParamInitial(void);

/* Initialisation hooks; they do nothing. */
QV_API void ColdResetInitial(void);
QV_API void _lx_HighLevHardWareInitial(void);
QV_API void _lx_AppHardWareInitial(void);
QV_API void _lx_SemaphoreInitialize(void);
QV_API void _lx_QueueInitialize(void);
QV_API void _lx_EventFlagsInitialize(void);
QV_API void _lx_BlockPoolInitialize(void);
QV_API void _lx_BytePoolInitialize(void);
QV_API void _lx_MutexInitialize(void);

/* SIGQUIT: orderly exit; SIGILL, SIGABRT, SIGFPE: backtrace, then the
 * signal's default action. */
QV_API void _lx_sighandler(int iSignal);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_KERNEL_H */

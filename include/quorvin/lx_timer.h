/*
 * quorvin: the timer thread.
 */
#ifndef QUORVIN_LX_TIMER_H
#define QUORVIN_LX_TIMER_H

#include "lx_status.h"
#include "lx_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Address of the timer thread's handle word, from load time on. A caller is
 * the timer thread when _lx_ThreadIdentify() == G_psTimer. */
QV_API extern LX_THREAD* G_psTimer;

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_TIMER_H */

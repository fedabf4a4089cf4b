/*
 * quorvin: the whole interface of libquorvin.
 */
#ifndef QUORVIN_H
#define QUORVIN_H

#include "lx_status.h"
#include "lx_cm.h"
#include "lx_event_flags.h"
#include "lx_kernel.h"
#include "lx_log.h"
#include "lx_mutex.h"
#include "lx_pool.h"
#include "lx_queue.h"
#include "lx_cm_queue.h"
#include "lx_framed_queue.h"
#include "lx_semaphore.h"
#include "lx_thread.h"
#include "lx_timer.h"

#endif /* QUORVIN_H */

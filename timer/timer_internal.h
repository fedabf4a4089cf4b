// Timer internals shared by the timer thread and the timer services.
#pragma once

#include <pthread.h>

#include "quorvin/lx_timer.h"

namespace quorvin::detail {

extern LX_THREAD S_psTimerThread;  // the timer thread's handle word

// The tick tuner (timer/system_time.cpp).
extern LX_TIMER S_psTunerTimer;     // the "_lx_TunerTimeout" timer
extern uint32_t S_u32TunerStartMs;  // wall-clock ms at the start of the measurement
extern uint32_t S_u32TickTuning;    // 10000 at load, recomputed by each _lx_TickAdjust

// One walk over the application timers, under the timer lock: the timer
// thread's work after the sleep-agent pass of each tick.
void RunTimerTick() noexcept;

// Whether the timer pipe exists.
bool TimerPipeReady() noexcept;

}  // namespace quorvin::detail

// The timer thread's handle word, known from load time on so that the
// dispatcher, the sleep agent and thread start can recognise the timer thread
// before it exists.
#include "quorvin/lx_timer.h"

namespace quorvin::detail {
LX_THREAD S_psTimerThread = nullptr;
}  // namespace quorvin::detail

LX_THREAD* G_psTimer = &quorvin::detail::S_psTimerThread;

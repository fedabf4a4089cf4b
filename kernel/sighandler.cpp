// The fatal-signal handler, installed for SIGQUIT, SIGILL, SIGABRT and SIGFPE.
//
// SIGQUIT is the orderly shutdown: the application thread named by
// g_zloop_thread_id is told (g_zloop_exit_id, then SIGTERM) and given a
// second, and the process exits with status 0. The fault signals write the
// faulting thread's backtrace to standard error, restore the default action
// and raise the signal again; it is blocked while the handler runs and is
// delivered as it returns, so the process ends by the real cause.
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "quorvin/lx_kernel.h"

pthread_t g_zloop_thread_id = 0;
int32_t g_zloop_exit_id = 0;

void _lx_sighandler(int iSignal) {
  if (iSignal == SIGQUIT) {
    const pthread_t thread = std::atomic_ref<pthread_t>(g_zloop_thread_id).load(std::memory_order_relaxed);
    if (thread != 0) {
      std::atomic_ref<int32_t>(g_zloop_exit_id).store(1, std::memory_order_release);
      if (pthread_kill(thread, SIGTERM) == 0) ::sleep(1);
    }
    std::exit(0);
  }
  void* frames[20];
  const int count = backtrace(frames, 20);
  backtrace_symbols_fd(frames, count, STDERR_FILENO);
  signal(iSignal, SIG_DFL);
  raise(iSignal);
}

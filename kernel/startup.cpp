// Kernel entry and the start-up sequence.
//
// _lx_initialize_kernel_enter runs on the application's initial thread:
// signal dispositions, log streams and the emptied pid list, the low-level
// initialisation (normal scheduling policy), the high-level initialisation
// (the "Scheduler" entry and the dispatcher, the timer pipe and the timer
// thread), the application's definition function, the start-up time line,
// and finally the tick loop, from which it never returns.
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "quorvin/quorvin.h"

uint32_t _lx_thread_system_state = 0xF0F0F0F0u;

namespace {

constexpr uint32_t kStartingUp = 0xF0F0F0F0u;
constexpr uint32_t kSkipInitialisation = 0xF0F0F0F1u;

void StoreSystemState(uint32_t value) {
  std::atomic_ref<uint32_t>(_lx_thread_system_state).store(value, std::memory_order_release);
}

// The first backtrace loads the unwinder; doing it here means the fatal-signal
// handler never has to load anything.
void PrimeBacktrace() {
  void* frames[4];
  backtrace(frames, 4);
}

[[noreturn]] void FatalStartup() {
  static constexpr char kMessage[] = "\n= RTOS: Initial error\n";
  static_assert(sizeof kMessage - 1 == 23);
  FILE* stream = hCM_Error != nullptr ? hCM_Error : stderr;
  std::fwrite(kMessage, 1, sizeof kMessage - 1, stream);
  std::fflush(stream);
  std::exit(0);
}

}  // namespace

void _lx_initialize_kernel_enter(void*, void*, void (*pfnAppDefine)(void)) {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
  action.sa_handler = _lx_sighandler;
  for (int signal : {SIGQUIT, SIGILL, SIGABRT, SIGFPE}) sigaction(signal, &action, nullptr);
  PrimeBacktrace();

  timespec start{};
  clock_gettime(CLOCK_REALTIME, &start);
  RTOS_LogInit();
  if (std::atomic_ref<uint32_t>(_lx_thread_system_state).load() != kSkipInitialisation) {
    StoreSystemState(kStartingUp);
    _lx_initialize_low_level();
    _lx_initialize_high_level();
  }
  StoreSystemState(kStartingUp);
  _lx_AppHardWareInitial();
  if (pfnAppDefine != nullptr) pfnAppDefine();
  StoreSystemState(0);

  timespec end{};
  clock_gettime(CLOCK_REALTIME, &end);
  long seconds = static_cast<long>(end.tv_sec - start.tv_sec);
  long nanoseconds = end.tv_nsec - start.tv_nsec;
  if (nanoseconds < 0) {
    nanoseconds += 1000000000L;
    --seconds;
  }
  if (seconds < 0) seconds = nanoseconds = 0;  // the wall clock was set back meanwhile
  std::printf("IPMI initial costs %ld seconds, %ld nanoseconds\n", seconds, nanoseconds);
  std::fflush(stdout);
  _lx_thread_schedule();
}

void _lx_initialize_low_level(void) { _lx_LowLevHardWareInitial(); }

void _lx_LowLevHardWareInitial(void) {
  ColdResetInitial();
  SchedParamInitial();
}

void SchedParamInitial(void) {
  int policy = 0;
  sched_param parameters{};
  if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0) FatalStartup();
  parameters.sched_priority = 0;
  if (pthread_setschedparam(pthread_self(), SCHED_OTHER, &parameters) != 0) FatalStartup();
}

void _lx_initialize_high_level(void) {
  _lx_HighLevHardWareInitial();
  _lx_ThreadInitialize();
  _lx_TimerInitialize();
  _lx_SemaphoreInitialize();
  _lx_QueueInitialize();
  _lx_EventFlagsInitialize();
  _lx_BlockPoolInitialize();
  _lx_BytePoolInitialize();
  _lx_MutexInitialize();
}

void _lx_thread_schedule(void) {
  std::atomic_ref<uint8_t>(G_u8ThreadLock).store(0, std::memory_order_release);
  _lx_SoftTimerEnable();
}

void ColdResetInitial(void) {}
void _lx_HighLevHardWareInitial(void) {}
void _lx_AppHardWareInitial(void) {}
void _lx_SemaphoreInitialize(void) {}
void _lx_QueueInitialize(void) {}
void _lx_EventFlagsInitialize(void) {}
void _lx_BlockPoolInitialize(void) {}
void _lx_BytePoolInitialize(void) {}
void _lx_MutexInitialize(void) {}

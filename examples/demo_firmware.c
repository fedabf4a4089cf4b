/*
 * A small firmware application on quorvin.
 *
 * It boots the system with one call and runs for a given number of seconds
 * (default 5): a sampler thread takes readings, a reporter thread prints them,
 * a periodic heartbeat timer counts ticks, a one-shot timer fires once, and a
 * supervisor thread ends the run with a summary. SIGQUIT ends it early, in
 * order: the supervisor is told through g_zloop_exit_id and SIGTERM, prints
 * the summary, and the system exits with status 0.
 *
 * Usage: demo_firmware [seconds]
 */
#define _GNU_SOURCE
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <quorvin/quorvin.h>

#define TICKS_PER_SECOND 100u

static LX_THREAD s_sampler;
static LX_THREAD s_reporter;
static LX_THREAD s_supervisor;
static LX_TIMER s_heartbeat;
static LX_TIMER s_startupCheck;

static unsigned s_runSeconds = 5;
static struct timespec s_started;

static atomic_uint s_heartbeatTicks;  /* ticks counted by the heartbeat timer */
static atomic_uint s_timersFired;
static atomic_uint s_samples;
static atomic_uint s_reports;
static atomic_uint s_lastReading;

static double SecondsSince(const struct timespec* start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) + (double)(now.tv_nsec - start->tv_nsec) / 1e9;
}

static void SleepMs(long ms) {
  const struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

/* Timer expiration functions run on the timer thread, one tick at a time. */
static void Heartbeat(uint32_t period) {
  atomic_fetch_add(&s_heartbeatTicks, period);
  atomic_fetch_add(&s_timersFired, 1);
  printf("[%6.2f s] heartbeat: %u ticks counted\n", SecondsSince(&s_started),
         atomic_load(&s_heartbeatTicks));
}

static void StartupCheck(uint32_t input) {
  (void)input;
  atomic_fetch_add(&s_timersFired, 1);
  printf("[%6.2f s] one-shot check: %u samples taken so far\n", SecondsSince(&s_started),
         atomic_load(&s_samples));
}

static void* Sampler(uint64_t input) {
  unsigned value = (unsigned)input;
  for (;;) {
    value = value * 1103515245u + 12345u;
    atomic_store(&s_lastReading, (value >> 16) % 1000u);
    atomic_fetch_add(&s_samples, 1);
    SleepMs(20);
  }
  return NULL;
}

static void* Reporter(uint64_t input) {
  (void)input;
  for (;;) {
    SleepMs(500);
    atomic_fetch_add(&s_reports, 1);
    printf("[%6.2f s] reporter: %u samples, last reading %u\n", SecondsSince(&s_started),
           atomic_load(&s_samples), atomic_load(&s_lastReading));
  }
  return NULL;
}

static void PrintSummary(const char* why) {
  const double wall = SecondsSince(&s_started);
  char* name = NULL;
  uint16_t active = 0;
  uint32_t remaining = 0, reschedule = 0, reserved = 0;
  _lx_TimerInfoGet(&s_heartbeat, &name, &active, &remaining, &reschedule, &reserved);
  const unsigned counted = atomic_load(&s_heartbeatTicks) + (reschedule - remaining);
  printf("\n== demo summary (%s) ==\n", why);
  printf("wall time           %.2f s\n", wall);
  printf("ticks counted       %u (%.1f per second of wall time, nominal %u)\n", counted,
         wall > 0 ? counted / wall : 0.0, TICKS_PER_SECOND);
  printf("timers fired        %u\n", atomic_load(&s_timersFired));
  printf("samples taken       %u\n", atomic_load(&s_samples));
  printf("reports printed     %u\n", atomic_load(&s_reports));
  fflush(stdout);
}

/* Ends the run after the set time, or at once when SIGQUIT's handler sends
 * SIGTERM (blocked in every thread, so it is taken here by sigtimedwait). */
static void* Supervisor(uint64_t input) {
  (void)input;
  sigset_t terminate;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  const struct timespec limit = {(time_t)s_runSeconds, 0};
  if (sigtimedwait(&terminate, NULL, &limit) == SIGTERM && g_zloop_exit_id == 1) {
    PrintSummary("SIGQUIT");
    return NULL; /* the signal handler exits the process */
  }
  PrintSummary("time is up");
  exit(0);
}

static void DefineApplication(void) {
  printf("defining the application (state word 0x%08X)\n", _lx_thread_system_state);
  _lx_ThreadCreate(&s_sampler, "sampler", Sampler, 7, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_reporter, "reporter", Reporter, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_supervisor, "supervisor", Supervisor, 0, NULL, 0, 32, 0, 0, 1);
  g_zloop_thread_id = s_supervisor->hThread;
  _lx_TimerCreate(&s_heartbeat, "heartbeat", Heartbeat, TICKS_PER_SECOND, TICKS_PER_SECOND,
                  TICKS_PER_SECOND, 1);
  _lx_TimerCreate(&s_startupCheck, "startup-check", StartupCheck, 0, 50, 0, 1);
}

int main(int argc, char** argv) {
  if (argc > 1) {
    const long seconds = strtol(argv[1], NULL, 10);
    if (seconds <= 0 || seconds > 86400) {
      fprintf(stderr, "usage: %s [seconds 1..86400]\n", argv[0]);
      return 2;
    }
    s_runSeconds = (unsigned)seconds;
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  /* SIGTERM is taken by the supervisor with sigtimedwait: block it in every
   * thread (they all inherit this mask). */
  sigset_t terminate;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &terminate, NULL);
  clock_gettime(CLOCK_MONOTONIC, &s_started);
  printf("quorvin demo firmware: running for %u s (SIGQUIT ends it early)\n", s_runSeconds);
  _lx_initialize_kernel_enter(NULL, NULL, DefineApplication);
  return 0; /* never reached */
}

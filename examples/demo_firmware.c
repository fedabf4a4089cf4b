/*
 * A small firmware application on quorvin.
 *
 * It boots the system with one call and runs for a given number of seconds
 * (default 5): a sampler thread takes readings into a record guarded by a
 * mutex with priority inheritance, a reporter thread prints them, a poller
 * asks for a busy mutex with a finite wait that times out, a worker is
 * suspended and resumed by a periodic timer, a waiter's endless wait is
 * aborted, a periodic heartbeat timer counts ticks, a one-shot timer fires
 * once, a packer passes pool buffers to an unpacker, and a supervisor thread ends the run with a summary. SIGQUIT ends it early, in
 * order: the supervisor is told through g_zloop_exit_id and SIGTERM, prints
 * the summary, and the system exits with status 0.
 *
 * Usage: demo_firmware [seconds]
 */
#define _GNU_SOURCE
#include <signal.h>
#include <mqueue.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <quorvin/quorvin.h>

#define TICKS_PER_SECOND 100u

static LX_THREAD s_sampler;
static LX_THREAD s_reporter;
static LX_THREAD s_supervisor;
static LX_THREAD s_poller;
static LX_THREAD s_worker;
static LX_THREAD s_waiter;
static LX_MUTEX s_record;   /* guards the latest reading */
static LX_MUTEX s_busy;     /* held for long stretches by the supervisor */
static LX_MUTEX s_gate;     /* taken during start-up and never given back */
static LX_TIMER s_toggle;
static LX_TIMER s_abort;
static LX_TIMER s_heartbeat;
static LX_TIMER s_startupCheck;

static unsigned s_runSeconds = 5;
static struct timespec s_started;

static atomic_uint s_heartbeatTicks;  /* ticks counted by the heartbeat timer */
static atomic_uint s_timersFired;
static atomic_uint s_samples;
static atomic_uint s_reports;
static atomic_uint s_lastReading;
static atomic_uint s_mutexGets;
static atomic_uint s_timeouts;
static atomic_uint s_aborts;
static atomic_uint s_suspends;
static atomic_uint s_workDone;

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

/* Suspends the worker on one expiry and resumes it on the next. */
static void ToggleWorker(uint32_t input) {
  (void)input;
  if (__atomic_load_n(&s_worker->u16State, __ATOMIC_RELAXED) == LX_STATE_SUSPENDED) {
    _lx_ThreadResume(&s_worker);
  } else if (_lx_ThreadSuspend(&s_worker) == LX_SUCCESS) {
    atomic_fetch_add(&s_suspends, 1);
  }
}

static void AbortWaiter(uint32_t input) {
  (void)input;
  atomic_fetch_add(&s_timersFired, 1);
  _lx_ThreadWaitAbort(&s_waiter);
}

static void* Sampler(uint64_t input) {
  unsigned value = (unsigned)input;
  for (;;) {
    value = value * 1103515245u + 12345u;
    if (_lx_MutexGet(&s_record, LX_WAIT_FOREVER) == LX_SUCCESS) {
      atomic_fetch_add(&s_mutexGets, 1);
      atomic_store(&s_lastReading, (value >> 16) % 1000u);
      atomic_fetch_add(&s_samples, 1);
      _lx_MutexPut(&s_record);
    }
    SleepMs(20);
  }
  return NULL;
}

/* Asks for the busy mutex with a 20-tick wait: while the supervisor holds it
 * the wait times out. */
static void* Poller(uint64_t input) {
  (void)input;
  for (;;) {
    const LX_STATUS status = _lx_MutexGet(&s_busy, 20);
    if (status == LX_SUCCESS) {
      _lx_MutexPut(&s_busy);
      SleepMs(100);
    } else if (status == LX_NOT_AVAILABLE) {
      atomic_fetch_add(&s_timeouts, 1);
    }
  }
  return NULL;
}

static void* Worker(uint64_t input) {
  (void)input;
  for (;;) {
    atomic_fetch_add(&s_workDone, 1);
    SleepMs(10);
  }
  return NULL;
}

/* Waits for ever on the gate until its wait is aborted. */
static void* Waiter(uint64_t input) {
  (void)input;
  const LX_STATUS status = _lx_MutexGet(&s_gate, LX_WAIT_FOREVER);
  if (status == LX_WAIT_ABORTED) atomic_fetch_add(&s_aborts, 1);
  printf("[%6.2f s] waiter: endless wait ended with status %u\n", SecondsSince(&s_started), status);
  if (status == LX_SUCCESS) _lx_MutexPut(&s_gate);
  return NULL;
}

static void* Reporter(uint64_t input) {
  (void)input;
  for (;;) {
    SleepMs(500);
    unsigned reading = 0;
    if (_lx_MutexGet(&s_record, LX_WAIT_FOREVER) == LX_SUCCESS) {
      atomic_fetch_add(&s_mutexGets, 1);
      reading = atomic_load(&s_lastReading);
      _lx_MutexPut(&s_record);
    }
    atomic_fetch_add(&s_reports, 1);
    printf("[%6.2f s] reporter: %u samples, last reading %u, poller time-outs %u\n",
           SecondsSince(&s_started), atomic_load(&s_samples), reading, atomic_load(&s_timeouts));
  }
  return NULL;
}

/* ---- Message queue: a producer sends records, a consumer waits for them in
 * ticks. Every fifth record is urgent and overtakes with a front send; the
 * producer's longer pauses make the consumer time out now and then. ---- */
static LX_QUEUE s_records;
static uint32_t s_recordStorage[2 * 8]; /* eight records of two words: within the host's defaults */
static LX_THREAD s_producer;
static LX_THREAD s_consumer;
static atomic_uint s_recordsSent;
static atomic_uint s_recordsReceived;
static atomic_uint s_queueTimeouts;

static void* Producer(uint64_t input) {
  (void)input;
  uint32_t record[2] = {0, 0};
  for (;;) {
    record[0]++;
    record[1] = atomic_load(&s_lastReading);
    const LX_STATUS status = record[0] % 5 == 0 ? _lx_QueueFrontSend(&s_records, record, 10)
                                                : _lx_QueueSend(&s_records, record, 10);
    if (status == LX_SUCCESS) atomic_fetch_add(&s_recordsSent, 1);
    SleepMs(record[0] % 8 == 0 ? 300 : 40);
  }
  return NULL;
}

static void* Consumer(uint64_t input) {
  (void)input;
  for (;;) {
    uint32_t record[2];
    const LX_STATUS status = _lx_QueueReceive(&s_records, record, 20);
    if (status == LX_SUCCESS) {
      atomic_fetch_add(&s_recordsReceived, 1);
    } else if (status == LX_QUEUE_EMPTY) {
      atomic_fetch_add(&s_queueTimeouts, 1);
      printf("[%6.2f s] consumer: no record within 20 ticks\n", SecondsSince(&s_started));
    }
  }
  return NULL;
}

static void StartQueueDemo(void) {
  if (_lx_QueueCreate(&s_records, "demo_records", 2, s_recordStorage, sizeof s_recordStorage) == LX_SUCCESS) {
    /* The open descriptor keeps working without the name: no queue is left behind. */
    mq_unlink("/mq_demo_records");
  }
  _lx_ThreadCreate(&s_producer, "producer", Producer, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_consumer, "consumer", Consumer, 0, NULL, 0, 32, 0, 0, 1);
}

static void PrintQueueSummary(void) {
  printf("queue records       %u sent, %u received, %u consumer time-outs\n", atomic_load(&s_recordsSent),
         atomic_load(&s_recordsReceived), atomic_load(&s_queueTimeouts));
}

/* --- Framed queue and dispatcher queue. A logger passes lines of varying
 * length through a locked framed queue to a listener, which flushes it once
 * halfway; a mailbox thread waits without limit on a dispatcher queue that
 * nobody sends to, and a one-shot timer releases it with a wait abort. */
#define LOG_LINE_BYTES 48u
#define LOG_SLOTS 4u
static FramedQueueCtrl s_log;
static uint8_t s_logBuffer[256]; /* at least QueueCalcSize(48, 4), checked at start-up */
static CM_QUEUE s_letterbox;
static LX_THREAD s_logger, s_listener, s_letterboxThread;
static LX_TIMER s_letterboxAbort;
static atomic_uint s_linesSent, s_linesHeard, s_logFlushes, s_letterboxStatus = 0xFFFFu;

static void* Logger(uint64_t input) {
  (void)input;
  for (unsigned n = 1;; ++n) {
    char line[LOG_LINE_BYTES] = {0};
    snprintf(line, sizeof line, "line %u%.*s", n, (int)(n % 20), "....................");
    if (QueueSend(&s_log, line, 0, FRAMED_QUEUE_AT_BACK) == LX_SUCCESS) atomic_fetch_add(&s_linesSent, 1);
    SleepMs(60);
  }
  return NULL;
}

static void* Listener(uint64_t input) {
  (void)input;
  for (;;) {
    char line[LOG_LINE_BYTES];
    if (QueueReceive(&s_log, line, 50) == LX_SUCCESS) atomic_fetch_add(&s_linesHeard, 1);
    if (atomic_load(&s_linesHeard) == 10 && atomic_load(&s_logFlushes) == 0) {
      QueueFlush(&s_log);
      atomic_fetch_add(&s_logFlushes, 1);
      printf("[%6.2f s] listener: log queue flushed\n", SecondsSince(&s_started));
    }
  }
  return NULL;
}

static void* LetterboxWaiter(uint64_t input) {
  (void)input;
  uint32_t message[1];
  const LX_STATUS status = CmQueueReceive(&s_letterbox, message, LX_WAIT_FOREVER);
  atomic_store(&s_letterboxStatus, status);
  printf("[%6.2f s] mailbox: endless receive ended with status %u\n", SecondsSince(&s_started), status);
  return NULL;
}

static void AbortLetterbox(uint32_t input) {
  (void)input;
  _lx_ThreadWaitAbort(&s_letterboxThread);
}

static void StartMessageDemo(void) {
  if (QueueCalcSize(LOG_LINE_BYTES, LOG_SLOTS) <= sizeof s_logBuffer &&
      QueueCreate(&s_log, "demo_log", LOG_LINE_BYTES, LOG_SLOTS, s_logBuffer, 0, 1) == LX_SUCCESS) {
    mq_unlink("/mq_demo_log"); /* nothing left behind on the machine */
  }
  CmQueueCreate(&s_letterbox, 4, 1, NULL);
  _lx_ThreadCreate(&s_logger, "logger", Logger, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_listener, "listener", Listener, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_letterboxThread, "mailbox", LetterboxWaiter, 0, NULL, 0, 32, 0, 0, 1);
  _lx_TimerCreate(&s_letterboxAbort, "mailbox-abort", AbortLetterbox, 0, 120, 0, 1);
}

static void PrintMessageSummary(void) {
  printf("log lines           %u sent, %u heard, %u flush\n", atomic_load(&s_linesSent),
         atomic_load(&s_linesHeard), atomic_load(&s_logFlushes));
}

/* --- Pools. A packer takes message buffers from a block pool and the text
 * of each message from a byte pool, faster than an unpacker gives them back,
 * so some of its timed allocations find the buffer pool dry and time out. */
#define MESSAGE_BLOCK 32u
#define MESSAGE_BLOCKS 4u
#define MAILBOX_SLOTS 8u

typedef struct Message {
  unsigned number;
  char* text; /* from the byte pool */
} Message;

static LX_BLOCK_POOL s_buffers;
static LX_BYTE_POOL s_texts;
static LX_THREAD s_packer;
static LX_THREAD s_unpacker;
static char s_bufferArea[MESSAGE_BLOCK * MESSAGE_BLOCKS]; /* named at creation */
static char s_textArea[256];
static Message* _Atomic s_mailbox[MAILBOX_SLOTS];
static atomic_uint s_produced;
static atomic_uint s_consumed;
static atomic_uint s_bufferTimeouts;

static void* Packer(uint64_t input) {
  (void)input;
  for (unsigned number = 1;; SleepMs(20)) {
    void* buffer = NULL;
    const LX_STATUS status = _lx_BlockAllocate(&s_buffers, &buffer, 5);
    if (status != LX_SUCCESS) {
      if (status == LX_NO_MEMORY && atomic_fetch_add(&s_bufferTimeouts, 1) == 0) {
        printf("[%6.2f s] packer: buffer pool dry, allocation timed out\n", SecondsSince(&s_started));
      }
      continue;
    }
    char text[24];
    const int length = snprintf(text, sizeof text, "reading %u", number);
    void* copy = NULL;
    if (_lx_ByteAllocate(&s_texts, &copy, (uint64_t)length + 1, LX_WAIT_FOREVER) != LX_SUCCESS) {
      _lx_BlockRelease(buffer);
      continue;
    }
    Message* message = buffer;
    message->text = memcpy(copy, text, (size_t)length + 1);
    message->number = number++;
    for (unsigned slot = 0;; slot = (slot + 1) % MAILBOX_SLOTS) { /* more slots than buffers */
      Message* empty = NULL;
      if (atomic_compare_exchange_strong(&s_mailbox[slot], &empty, message)) break;
    }
    atomic_fetch_add(&s_produced, 1);
  }
  return NULL;
}

/* Gives one message back every 150 ms. */
static void* Unpacker(uint64_t input) {
  (void)input;
  for (unsigned slot = 0;; slot = (slot + 1) % MAILBOX_SLOTS) {
    Message* message = atomic_exchange(&s_mailbox[slot], NULL);
    if (message == NULL) {
      SleepMs(5);
      continue;
    }
    if (atomic_fetch_add(&s_consumed, 1) == 0) {
      printf("[%6.2f s] unpacker: first message \"%s\"\n", SecondsSince(&s_started), message->text);
    }
    _lx_ByteRelease(message->text);
    _lx_BlockRelease(message);
    SleepMs(150);
  }
  return NULL;
}

static void DefinePools(void) {
  _lx_BlockPoolCreate(&s_buffers, "buffers", MESSAGE_BLOCK, s_bufferArea, sizeof s_bufferArea);
  _lx_BytePoolCreate(&s_texts, "texts", s_textArea, sizeof s_textArea);
  _lx_ThreadCreate(&s_packer, "packer", Packer, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_unpacker, "unpacker", Unpacker, 0, NULL, 0, 32, 0, 0, 1);
}

static void PrintPoolSummary(void) {
  printf("pool messages       %u produced, %u consumed, %u buffer time-outs\n", atomic_load(&s_produced),
         atomic_load(&s_consumed), atomic_load(&s_bufferTimeouts));
}
/* --- End of pools. */

/* --- Semaphores and event flags ---------------------------------------
 * A signaller puts the sample semaphore ten times at 50 ms, then pauses half
 * a second; the collector's 20-tick gets time out during the pauses. A timer
 * sets FLAG_TIMER every 30 ticks for the flag worker (LX_OR_CLEAR); the
 * collector (every fifth sample) and the flag worker each raise their done
 * flag, and the coordinator waits for both with LX_AND_CLEAR. */
#define FLAG_TIMER 0x1u
#define FLAG_CONSUMER_DONE 0x2u
#define FLAG_WORKER_DONE 0x4u

static LX_THREAD s_semProducer, s_semConsumer, s_flagWorker, s_coordinator;
static LX_SEMAPHORE s_sampleReady;
static LX_EVENT_FLAGS s_events;
static LX_TIMER s_flagTimer;
static atomic_uint s_semGets, s_semTimeouts, s_flagWakeUps, s_rounds;

static void SetTimerFlag(uint32_t input) {
  (void)input;
  _lx_EventFlagsSet(&s_events, FLAG_TIMER, LX_OR); /* allowed on the timer thread */
}

static void* SampleProducer(uint64_t input) {
  (void)input;
  for (unsigned n = 1;; ++n) {
    _lx_SemaphorePut(&s_sampleReady);
    SleepMs(n % 10 == 0 ? 500 : 50);
  }
  return NULL;
}

static void* SampleConsumer(uint64_t input) {
  (void)input;
  for (;;) {
    const LX_STATUS status = _lx_SemaphoreGet(&s_sampleReady, 20);
    if (status == LX_NO_INSTANCE) {
      printf("[%6.2f s] collector: no sample for 20 ticks\n", SecondsSince(&s_started));
      atomic_fetch_add(&s_semTimeouts, 1);
    } else if (status == LX_SUCCESS && atomic_fetch_add(&s_semGets, 1) % 5 == 4) {
      _lx_EventFlagsSet(&s_events, FLAG_CONSUMER_DONE, LX_OR);
    }
  }
  return NULL;
}

static void* FlagWorker(uint64_t input) {
  (void)input;
  for (;;) {
    uint32_t actual = 0;
    if (_lx_EventFlagsGet(&s_events, FLAG_TIMER, LX_OR_CLEAR, &actual, LX_WAIT_FOREVER) == LX_SUCCESS) {
      atomic_fetch_add(&s_flagWakeUps, 1);
      _lx_EventFlagsSet(&s_events, FLAG_WORKER_DONE, LX_OR);
    }
  }
  return NULL;
}

static void* Coordinator(uint64_t input) {
  (void)input;
  for (;;) {
    uint32_t actual = 0;
    if (_lx_EventFlagsGet(&s_events, FLAG_CONSUMER_DONE | FLAG_WORKER_DONE, LX_AND_CLEAR, &actual,
                          LX_WAIT_FOREVER) == LX_SUCCESS) {
      atomic_fetch_add(&s_rounds, 1);
    }
  }
  return NULL;
}

static void DefineSyncDemo(void) {
  _lx_SemaphoreCreate(&s_sampleReady, "sample-ready", 0);
  _lx_EventFlagsCreate(&s_events, "demo-events");
  _lx_ThreadCreate(&s_semProducer, "signaller", SampleProducer, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_semConsumer, "collector", SampleConsumer, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_flagWorker, "flagworker", FlagWorker, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_coordinator, "coordinator", Coordinator, 0, NULL, 0, 32, 0, 0, 1);
  _lx_TimerCreate(&s_flagTimer, "flag-timer", SetTimerFlag, 0, 30, 30, 1);
}

static void PrintSyncSummary(void) {
  printf("semaphore gets      %u (%u time-outs)\n", atomic_load(&s_semGets), atomic_load(&s_semTimeouts));
  printf("flag wake-ups       %u (%u coordinator rounds)\n", atomic_load(&s_flagWakeUps),
         atomic_load(&s_rounds));
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
  printf("mutex gets          %u\n", atomic_load(&s_mutexGets));
  printf("wait time-outs      %u\n", atomic_load(&s_timeouts));
  printf("waits aborted       %u\n", atomic_load(&s_aborts));
  printf("worker suspensions  %u (%u work items)\n", atomic_load(&s_suspends), atomic_load(&s_workDone));
  PrintSyncSummary();
  PrintMessageSummary();
  PrintQueueSummary();
  PrintPoolSummary();
  fflush(stdout);
}

/* Ends the run after the set time, or at once when SIGQUIT's handler sends
 * SIGTERM (blocked in every thread, so it is taken here by sigtimedwait). */
static void* Supervisor(uint64_t input) {
  (void)input;
  sigset_t terminate;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  /* Holds the busy mutex for most of each second, so the poller's waits
   * time out, and checks for SIGTERM in between. */
  const struct timespec hold = {0, 700000000L};
  const struct timespec release = {0, 300000000L};
  const struct timespec* pause = &hold;
  for (;;) {
    if (SecondsSince(&s_started) >= s_runSeconds) break;
    const int busy = pause == &hold && _lx_MutexGet(&s_busy, LX_WAIT_FOREVER) == LX_SUCCESS;
    const int taken = sigtimedwait(&terminate, NULL, pause);
    if (busy) _lx_MutexPut(&s_busy);
    if (taken == SIGTERM && __atomic_load_n(&g_zloop_exit_id, __ATOMIC_ACQUIRE) == 1) {
      PrintSummary("SIGQUIT");
      return NULL; /* the signal handler exits the process */
    }
    pause = pause == &hold ? &release : &hold;
  }
  PrintSummary("time is up");
  exit(0);
}

static void DefineApplication(void) {
  printf("defining the application (state word 0x%08X)\n", _lx_thread_system_state);
  _lx_MutexCreate(&s_record, "record", LX_INHERIT);
  _lx_MutexCreate(&s_busy, "busy", LX_NO_INHERIT);
  _lx_MutexCreate(&s_gate, "gate", LX_NO_INHERIT);
  _lx_MutexGet(&s_gate, LX_NO_WAIT);
  _lx_ThreadCreate(&s_sampler, "sampler", Sampler, 7, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_reporter, "reporter", Reporter, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_supervisor, "supervisor", Supervisor, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_poller, "poller", Poller, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_worker, "worker", Worker, 0, NULL, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&s_waiter, "waiter", Waiter, 0, NULL, 0, 32, 0, 0, 1);
  StartQueueDemo();
  StartMessageDemo();
  DefinePools();
  g_zloop_thread_id = s_supervisor->hThread;
  _lx_TimerCreate(&s_toggle, "toggle-worker", ToggleWorker, 0, 50, 50, 1);
  _lx_TimerCreate(&s_abort, "abort-waiter", AbortWaiter, 0, 150, 0, 1);
  _lx_TimerCreate(&s_heartbeat, "heartbeat", Heartbeat, TICKS_PER_SECOND, TICKS_PER_SECOND,
                  TICKS_PER_SECOND, 1);
  _lx_TimerCreate(&s_startupCheck, "startup-check", StartupCheck, 0, 50, 0, 1);
  DefineSyncDemo();
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

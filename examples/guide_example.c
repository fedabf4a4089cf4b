/*
 * The user's guide example: a timer paces a producer, which sends readings
 * through a message queue to a consumer, which adds them up under a mutex.
 * The consumer's finite wait times out once the producer is done, and the
 * program ends with exit status 0 when the sum is right.
 */
#include <mqueue.h>
#include <stdio.h>
#include <stdlib.h>

#include <quorvin/quorvin.h>

#define READINGS 10u

static LX_THREAD s_producer, s_consumer;
static LX_TIMER s_pace;
static LX_SEMAPHORE s_due;          /* one count per timer expiry */
static LX_QUEUE s_readings;         /* one 32-bit word per message */
static uint32_t s_queueArea[8];     /* room for 8 messages */
static LX_MUTEX s_sumLock;
static uint32_t s_sum;              /* guarded by s_sumLock */

/* Runs on the timer thread: it must not wait, so it only posts. */
static void OnPace(uint32_t input) {
  (void)input;
  _lx_SemaphorePut(&s_due);
}

static void* Producer(uint64_t input) {
  (void)input;
  for (uint32_t reading = 1; reading <= READINGS; ++reading) {
    _lx_SemaphoreGet(&s_due, LX_WAIT_FOREVER);
    _lx_QueueSend(&s_readings, &reading, LX_WAIT_FOREVER);
  }
  return NULL; /* the thread ends; its entry stays in the thread pool */
}

static void* Consumer(uint64_t input) {
  (void)input;
  uint32_t reading, count = 0;
  LX_STATUS status;
  /* Wait at most 100 ticks (1 s) for each reading. */
  while ((status = _lx_QueueReceive(&s_readings, &reading, 100)) == LX_SUCCESS) {
    _lx_MutexGet(&s_sumLock, LX_WAIT_FOREVER);
    s_sum += reading;
    _lx_MutexPut(&s_sumLock);
    ++count;
  }
  printf("consumer: %u readings, sum %u; the next receive ended with status %u (LX_QUEUE_EMPTY)\n",
         count, s_sum, status);
  fflush(stdout);
  exit(count == READINGS && s_sum == READINGS * (READINGS + 1) / 2 ? 0 : 1);
}

/* Runs once, on the initial thread, before any tick. */
static void Define(void) {
  LX_STATUS status = _lx_SemaphoreCreate(&s_due, "due", 0);
  if (status == LX_SUCCESS) status = _lx_MutexCreate(&s_sumLock, "sum", LX_NO_INHERIT);
  if (status == LX_SUCCESS) {
    status = _lx_QueueCreate(&s_readings, "guide_readings", 1, s_queueArea, sizeof s_queueArea);
  }
  /* The queue is a named object of the host that outlives the process: drop
   * its name, the open queue keeps working. */
  mq_unlink("/mq_guide_readings");
  /* Every 5 ticks (50 ms), starting 5 ticks from now. */
  if (status == LX_SUCCESS) status = _lx_TimerCreate(&s_pace, "pace", OnPace, 0, 5, 5, 1);
  /* Priority 20, preemption threshold 20, no time slice, started at once. */
  if (status == LX_SUCCESS) {
    status = _lx_ThreadCreate(&s_producer, "producer", Producer, 0, NULL, 0, 20, 20, 0, 1);
  }
  if (status == LX_SUCCESS) {
    status = _lx_ThreadCreate(&s_consumer, "consumer", Consumer, 0, NULL, 0, 20, 20, 0, 1);
  }
  if (status != LX_SUCCESS) {
    printf("start-up failed with status %u\n", status);
    exit(1);
  }
}

int main(void) {
  _lx_initialize_kernel_enter(NULL, NULL, Define); /* never returns */
  return 0;
}

/* A firmware with known waiters for the debugger tests: "owner" holds mutex
 * "guard" (waiters "first", forever, then "timed", 3000 ticks), takes both
 * blocks of pool "empty" ("hungry" waits for it) and fills a dispatcher
 * queue of one message ("sender" waits to send). Then it calls
 * fixture_ready(), where the tests stop it, and, given "abort", aborts. */
#include <quorvin/quorvin.h>
#include <stdlib.h>
#include <string.h>

static LX_THREAD s_owner, s_waiters[4];
static LX_MUTEX s_guard;
static LX_BLOCK_POOL s_empty;
static CM_QUEUE s_queue;
static char s_area[64];
static int s_abort;

__attribute__((noinline)) void fixture_ready(void) { __asm__ volatile(""); }

/* Waiter 0 waits for the mutex for ever, 1 for 3000 ticks, 2 for a block, 3 to send. */
static void* Wait(uint64_t what) {
  void* block;
  uint32_t message = 2;
  if (what < 2) _lx_MutexGet(&s_guard, what == 0 ? LX_WAIT_FOREVER : 3000);
  if (what == 2) _lx_BlockAllocate(&s_empty, &block, LX_WAIT_FOREVER);
  if (what == 3) CmQueueSend(&s_queue, &message, LX_WAIT_FOREVER);
  _lx_ThreadSleep(LX_WAIT_FOREVER);
  return NULL;
}

static void* Owner(uint64_t unused) {
  static const char* const names[] = {"first", "timed", "hungry", "sender"};
  static const uint16_t states[] = {LX_STATE_MUTEX_WAIT, LX_STATE_MUTEX_WAIT, LX_STATE_BLOCK_POOL_WAIT,
                                    LX_STATE_QUEUE_WAIT};
  void* block;
  uint32_t message = 1;
  (void)unused;
  _lx_MutexGet(&s_guard, LX_WAIT_FOREVER);
  _lx_BlockAllocate(&s_empty, &block, LX_NO_WAIT);
  _lx_BlockAllocate(&s_empty, &block, LX_NO_WAIT);
  CmQueueSend(&s_queue, &message, LX_NO_WAIT);
  for (uint64_t i = 0; i < 4; ++i) { /* each one waits before the next starts */
    _lx_ThreadCreate(&s_waiters[i], names[i], Wait, i, NULL, 0, 10, 10, 0, 1);
    while (s_waiters[i]->u16State != states[i]) _lx_ThreadSleep(1);
  }
  fixture_ready();
  if (s_abort) abort();
  _lx_ThreadSleep(LX_WAIT_FOREVER);
  return NULL;
}

static void Define(void) {
  _lx_MutexCreate(&s_guard, "guard", LX_NO_INHERIT);
  _lx_BlockPoolCreate(&s_empty, "empty", 16, s_area, 32);
  CmQueueCreate(&s_queue, 1, 1, NULL);
  _lx_ThreadCreate(&s_owner, "owner", Owner, 0, NULL, 0, 5, 5, 0, 1);
}

int main(int argc, char** argv) {
  s_abort = argc > 1 && strcmp(argv[1], "abort") == 0;
  _lx_initialize_kernel_enter(NULL, NULL, Define);
  return 0;
}

/* A firmware with known waiters for the debugger tests: "owner" holds mutex
 * "guard" (waiters "first", forever, then "timed", 3000 ticks), takes the
 * only block of pool "empty" ("hungry" waits for it) and fills a dispatcher
 * queue of one message ("sender" waits to send). Then it calls
 * fixture_ready(), where the tests stop it, and, given "abort", aborts. */
#include <quorvin/quorvin.h>
#include <stdlib.h>
#include <string.h>

static LX_THREAD s_owner, s_first, s_timed, s_hungry, s_sender;
static LX_MUTEX s_guard;
static LX_BLOCK_POOL s_empty;
static CM_QUEUE s_queue;
static char s_area[64];
static int s_abort;

__attribute__((noinline)) void fixture_ready(void) { __asm__ volatile(""); }

static void* Wait(uint64_t what) {
  void* block;
  uint32_t message = 2;
  if (what == 0) _lx_MutexGet(&s_guard, LX_WAIT_FOREVER);
  if (what == 1) _lx_MutexGet(&s_guard, 3000);
  if (what == 2) _lx_BlockAllocate(&s_empty, &block, LX_WAIT_FOREVER);
  if (what == 3) CmQueueSend(&s_queue, &message, LX_WAIT_FOREVER);
  _lx_ThreadSleep(LX_WAIT_FOREVER);
  return NULL;
}

static void Start(LX_THREAD* thread, const char* name, uint64_t what, uint16_t state) {
  _lx_ThreadCreate(thread, name, Wait, what, NULL, 0, 10, 10, 0, 1);
  while ((*thread)->u16State != state) _lx_ThreadSleep(1);
}

static void* Owner(uint64_t unused) {
  void* block;
  uint32_t message = 1;
  (void)unused;
  _lx_MutexGet(&s_guard, LX_WAIT_FOREVER);
  _lx_BlockAllocate(&s_empty, &block, LX_NO_WAIT);
  _lx_BlockAllocate(&s_empty, &block, LX_NO_WAIT);
  CmQueueSend(&s_queue, &message, LX_NO_WAIT);
  Start(&s_first, "first", 0, LX_STATE_MUTEX_WAIT);
  Start(&s_timed, "timed", 1, LX_STATE_MUTEX_WAIT);
  Start(&s_hungry, "hungry", 2, LX_STATE_BLOCK_POOL_WAIT);
  Start(&s_sender, "sender", 3, LX_STATE_QUEUE_WAIT);
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

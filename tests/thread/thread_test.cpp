// Threads: creation (the order of its checks, the pool of 49), priority and threshold refusals, and the
// services: sleep, suspend and resume, wait abort, terminate wherever a thread waits, delete.
#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ThreadTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
void Spin(std::atomic<int>& rounds) {  // counts while it runs; usleep is a cancellation point
  for (;; ::usleep(1000)) ++rounds;
}
int Stops(std::atomic<int>& rounds) {  // returns the count once it has not changed for 100 ms
  for (int seen = -1; seen != rounds;) seen = rounds, std::this_thread::sleep_for(100ms);
  return rounds;
}
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
uint32_t Sleep(uint32_t ticks) {  // a bare sleep through the dispatcher, counted by sleep-agent passes
  return OwnRequest().psTarget = _lx_ThreadIdentify(), Issue(CM_THREAD_SLEEP, nullptr, ticks);
}

// Each row also fails every later check, the last the pool of 49 being full; a registered handle is found
// before the entry is checked. A handle or handle word of NULL is refused by every service.
TEST_F(ThreadTest, CreateAndPriorityRefusalsFollowTheCheckOrderAndThePoolHolds49) {
  static LX_THREAD registered = nullptr, fresh = nullptr, finished = nullptr, quitter = nullptr, handles[49] = {};
  ASSERT_EQ(_lx_ThreadCreate(&registered, "registered", Noop, 0, nullptr, 0, 20, 0, 0, 0), LX_SUCCESS);
  uint16_t old = 0xBEEF;
  for (auto [handle, value, output, priority, threshold] :  // fresh: a handle word of NULL
       {std::tuple{(LX_THREAD*)nullptr, 33, (uint16_t*)nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
        {&fresh, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
        {_lx_ThreadIdentify(), 33, &old, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
        {_lx_ThreadIdentify(), 32, nullptr, LX_PTR_ERROR, LX_PTR_ERROR}}) {
    EXPECT_EQ(_lx_ThreadPriorityChange(handle, value, output), priority) << value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(handle, value, output), threshold) << value;
  }
  for (LX_THREAD* handle : {(LX_THREAD*)nullptr, &fresh})  // a NULL handle or handle word
    EXPECT_EQ((Statuses{_lx_ThreadSuspend(handle), _lx_ThreadResume(handle), _lx_ThreadWaitAbort(handle),
                        _lx_ThreadTerminate(handle), _lx_ThreadDelete(handle)}),
              Statuses(5, LX_THREAD_ERROR));
  // A thread made at 20 runs at the normal Linux priority, which only 32 maps to; the new one is kept.
  ASSERT_EQ(_lx_ThreadPriorityChange(&registered, 32, &old), LX_SUCCESS);
  EXPECT_EQ(std::tuple(old, Peek(registered->u16Priority)), std::tuple(32, 32));
  EXPECT_EQ(_lx_ThreadPriorityChange(&registered, 20, &old), LX_CALLER_ERROR);
  EXPECT_EQ(_lx_ThreadPreemptionChange(&registered, 10, &old), LX_SUCCESS);  // not started: kept for its start
  // An unstarted thread (registered) is suspended; an ended one must be terminated before delete.
  ASSERT_EQ(Spawn(&finished, "finished", [] {}), LX_SUCCESS);
  ASSERT_EQ(Spawn(&quitter, "quitter", [] { _lx_ThreadTerminate(&quitter); }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return StateOf(quitter) == LX_STATE_TERMINATED; }));
  std::this_thread::sleep_for(100ms);  // the finished one, made first, has ended too
  EXPECT_EQ((Statuses{StateOf(registered), _lx_ThreadTerminate(&registered), _lx_ThreadDelete(&registered),
                      _lx_ThreadDelete(&finished), _lx_ThreadTerminate(&finished), _lx_ThreadDelete(&finished),
                      _lx_ThreadDelete(&quitter)}),
            (Statuses{LX_STATE_SUSPENDED, 0, 0, LX_DELETE_ERROR, 0, 0, 0}));
  for (int i = 0; S_i32ThreadPoolIndex < 49; ++i)
    ASSERT_EQ(_lx_ThreadCreate(&handles[i], "p", Noop, 0, nullptr, 0, 32, 0, 0, 0), LX_SUCCESS);
  for (auto [handle, entry, priority, threshold, start, status] : {std::tuple{&fresh, &Noop, 5, 6, 1, LX_THRESH_ERROR},
                                                                   {&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR},
                                                                   {&handles[0], nullptr, 5, 6, 1, LX_THREAD_ERROR},
                                                                   {&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY},
                                                                   {&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR},
                                                                   {nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR},
                                                                   {&fresh, &Noop, 32, 0, 1, LX_THREAD_ERROR}}) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(handle, "x", entry, 0, nullptr, 0, priority, threshold, 0, start), status);
    EXPECT_TRUE(S_i32ThreadPoolIndex == 49 && fresh == kUntouched);
  }
}

// Terminate resumes a suspended thread so that it ends.
TEST_F(ThreadTest, SuspendHoldsAThreadUntilResumeOrTerminateWaitAbortAnswersByItsStateAndSleepsTakeTheirTicks) {
  static std::atomic<int> rounds{0};
  static LX_THREAD spinner = nullptr, *next = nullptr, *suspended = nullptr;  // with info-get's last outputs
  ASSERT_EQ(Spawn(&spinner, "spinner", [] { Spin(rounds); }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return rounds > 0; }));
  ASSERT_EQ(_lx_ThreadSuspend(&spinner), LX_SUCCESS);
  const int count = Stops(rounds);
  EXPECT_EQ((Statuses{StateOf(spinner), _lx_ThreadWaitAbort(&spinner)}),
            (Statuses{LX_STATE_SUSPENDED, LX_WAIT_ABORT_ERROR}));
  EXPECT_EQ(_lx_ThreadResume(&spinner), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return rounds > count; }));  // runs again: info-get reports it ready
  char* name = nullptr;
  uint16_t state = 0, priority = 0, threshold = 0, old = 0;
  uint32_t runs = 0, slice = 0;
  for (int i = 0; i < 8; ++i)  // each output missing in turn
    EXPECT_EQ(_lx_ThreadInfoGet(&spinner, i == 0 ? nullptr : &name, i == 1 ? nullptr : &state, i == 2 ? nullptr : &runs,
                                i == 3 ? nullptr : &priority, i == 4 ? nullptr : &threshold, i == 5 ? nullptr : &slice,
                                i == 6 ? nullptr : &next, i == 7 ? nullptr : &suspended),
              LX_PTR_ERROR);
  ASSERT_EQ(_lx_ThreadInfoGet(&spinner, &name, &state, &runs, &priority, &threshold, &slice, &next, &suspended), 0);
  EXPECT_EQ(std::tuple(std::string(name), state, priority), std::tuple("spinner", LX_STATE_READY, 32));
  EXPECT_EQ(_lx_ThreadPreemptionChange(&spinner, 20, &old), LX_SUCCESS);  // a running thread's nice is raised
  ASSERT_EQ(_lx_ThreadSuspend(&spinner), LX_SUCCESS);
  Stops(rounds);
  ASSERT_EQ(_lx_ThreadTerminate(&spinner), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadDelete(&spinner), LX_SUCCESS);
  Waiters waiters;
  Waiter& timed = waiters.Start(std::bind(Sleep, 3), [] { return SleepAgentEntries() == 1; });
  EXPECT_EQ((Timer().RunPasses(3), StateOf(timed.handle)), LX_STATE_SLEEPING);
  Timer().RunPasses(1);  // a sleep of N ticks ends on pass N + 1
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(timed.handle), Waiters::StatusOf(timed)),
            std::tuple(size_t{0}, LX_STATE_READY, LX_SUCCESS));
  Waiter& aborted = waiters.Start(std::bind(Sleep, 50), [] { return SleepAgentEntries() == 1; });
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), Waiters::StatusOf(aborted)), std::tuple(size_t{0}, LX_WAIT_ABORTED));
}

// A thread terminated wherever it waits ends (delete joins it) without returning from its call, leaves
// nothing behind, and no armed wait of it takes a count or a message.
TEST_F(ThreadTest, AThreadTerminatedInAnyWaitEndsAndTheObjectServesOn) {
  LX_MUTEX mutex = nullptr;
  LX_SEMAPHORE semaphore = nullptr;
  LX_QUEUE queue = nullptr;
  LX_EVENT_FLAGS group = nullptr;
  FramedQueueCtrl framed{};
  static uint32_t storage[4], slots[16], taken = 0, word = 7;
  ASSERT_EQ((Statuses{_lx_MutexCreate(&mutex, "m", 0), _lx_MutexGet(&mutex, LX_NO_WAIT),
                      _lx_SemaphoreCreate(&semaphore, "s", 0), _lx_QueueCreate(&queue, "q", 1, storage, sizeof storage),
                      _lx_EventFlagsCreate(&group, "g"), QueueCreate(&framed, "f", 4, 4, slots, 0, 1)}),
            Statuses(6, LX_SUCCESS));
  Timer().RunPasses(1);  // its thread has started: no descriptor of its start open any more
  const int descriptors = OpenDescriptorCount(), pooled = S_i32ThreadPoolIndex;
  const auto terminateInside = [&](const char* what, std::function<void()> wait, bool bare = false) {
    static LX_THREAD victim = nullptr;
    static std::atomic<int> stage{0};
    ASSERT_EQ(Spawn(&victim, "victim", [wait] { stage = 1, wait(), stage = 2; }), LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([] { return stage == 1; }));
    SCOPED_TRACE(what);
    std::this_thread::sleep_for(50ms);                      // well inside the wait
    EXPECT_EQ(_lx_ThreadDelete(&victim), LX_DELETE_ERROR);  // not terminated
    // The bare operation cancels the thread where it waits.
    ASSERT_EQ(bare ? (OwnRequest().psTarget = &victim, Issue(CM_THREAD_TERMINATE)) : _lx_ThreadTerminate(&victim), 0);
    EXPECT_EQ(std::tuple(StateOf(victim), _lx_ThreadDelete(&victim)), std::tuple(LX_STATE_TERMINATED, LX_SUCCESS));
    Timer().RunPasses(6);  // no expiry of the dead wait may reach anybody
    EXPECT_EQ(std::tuple(stage.exchange(0), S_i32ThreadPoolIndex, Waiting(mutex->sSuspendCtrl), SleepAgentEntries()),
              std::tuple(1, pooled, 0, size_t{0}));
    EXPECT_LE(OpenDescriptorCount(), descriptors);  // one open at the start may be a start-up line
  };
  for (uint32_t wait : {LX_WAIT_FOREVER, 500u}) {
    // The service aborts a dispatcher wait first; the thread is cancelled where it goes on to wait (a sleep).
    const auto mutexWait = [&, wait] {
      if (_lx_MutexGet(&mutex, wait) == LX_WAIT_ABORTED) _lx_ThreadSleep(LX_WAIT_FOREVER);
    };
    terminateInside("mutex", mutexWait);
    terminateInside("mutex, bare terminate", mutexWait, true);
    terminateInside("semaphore", [&, wait] { _lx_SemaphoreGet(&semaphore, wait); });
    terminateInside("queue receive", [&, wait] { _lx_QueueReceive(&queue, &taken, wait); });
    terminateInside("framed receive", [&, wait] { QueueReceive(&framed, &taken, wait); });
    terminateInside("flags", [&, wait] { _lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &taken, wait); });
  }
  for (int i = 0; i < 4; ++i) ASSERT_EQ(_lx_QueueSend(&queue, &word, LX_NO_WAIT), LX_SUCCESS);
  terminateInside("queue send", [&] { _lx_QueueSend(&queue, &word, LX_WAIT_FOREVER); });
  EXPECT_EQ((Statuses{_lx_QueueFlush(&queue), _lx_SemaphorePut(&semaphore), _lx_SemaphoreGet(&semaphore, LX_NO_WAIT),
                      _lx_QueueSend(&queue, &word, LX_NO_WAIT), _lx_QueueReceive(&queue, &taken, LX_NO_WAIT),
                      _lx_MutexPut(&mutex)}),
            Statuses(6, LX_SUCCESS));
}

}  // namespace
}  // namespace quorvin::test

// Threads: creation (the order of its checks, the pool of 49, names, a POSIX thread that cannot be
// started), priority and threshold refusals, and the services: sleep, suspend and resume, wait abort,
// terminate wherever a thread waits, delete. pthread_create is replaced in this program (the library is
// linked statically): it fails on demand and otherwise forwards.
#include <dlfcn.h>

#include <algorithm>

#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace {
std::atomic<int> g_failures{0};  // calls still to fail
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) noexcept {
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  return g_failures.load() > 0 && g_failures.fetch_sub(1) > 0 ? EAGAIN : real(thread, attributes, start, argument);
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ThreadTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);

TEST_F(ThreadTest, CreateRefusalsFollowTheCheckOrderNamesAreCutAndThePoolHolds49) {
  static LX_THREAD registered = nullptr, fresh = nullptr, named = nullptr, handles[49] = {};
  ASSERT_EQ(Spawn(&registered, "registered", [] {}, 32, 0, 0), LX_SUCCESS);
  const int32_t count = S_i32ThreadPoolIndex;
  // Each row also fails every later check; a registered handle is found before the entry is checked.
  for (auto [handle, entry, priority, threshold, start, status] :
       {std::tuple{&fresh, &Noop, 5, 6, 1, LX_THRESH_ERROR}, {&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR}, {&registered, nullptr, 5, 6, 1, LX_THREAD_ERROR},
        {&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY}, {&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR}, {nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR}}) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(handle, "x", entry, 0, nullptr, 0, priority, threshold, 0, start), status);
    EXPECT_TRUE(S_i32ThreadPoolIndex == count && fresh == kUntouched);
  }
  ASSERT_EQ(Spawn(&named, "ABCDEFGHIJKLMNOPQRSTUVWXY", [] {}), LX_SUCCESS);
  EXPECT_STREQ(named->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_TRUE(WaitUntil([] { return std::ranges::any_of(PidListLines(), [](auto& l) { return l.starts_with("Name: ABCDEFGHIJKLMNOPQRS, pid:"); }); }));
  for (int i = 0; S_i32ThreadPoolIndex < 49; ++i) ASSERT_EQ(_lx_ThreadCreate(&handles[i], "p", Noop, 0, nullptr, 0, 32, 0, 0, 0), LX_SUCCESS);
  fresh = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&fresh, "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_TRUE(S_i32ThreadPoolIndex == 49 && fresh == kUntouched);
}

TEST_F(ThreadTest, PriorityAndThresholdRefusalsComeInOrderAndAFailedStartIsRolledBack) {
  LX_THREAD* self = _lx_ThreadIdentify();
  LX_THREAD empty = nullptr;
  uint16_t old = 0xBEEF;
  for (auto [handle, value, output, priority, threshold] :
       {std::tuple{(LX_THREAD*)nullptr, 33, (uint16_t*)nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR}, {&empty, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
        {self, 33, &old, LX_PRIORITY_ERROR, LX_THRESH_ERROR}, {self, 32, nullptr, LX_PTR_ERROR, LX_PTR_ERROR}}) {
    EXPECT_EQ(_lx_ThreadPriorityChange(handle, value, output), priority) << value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(handle, value, output), threshold) << value;
  }
  EXPECT_EQ(OnTimerThread([&] { return Statuses{_lx_ThreadPriorityChange(G_psTimer, 32, &old), _lx_ThreadPreemptionChange(self, 7, &old)}; }),
            Statuses(2, LX_CALLER_ERROR));
  EXPECT_EQ(old, 0xBEEF);
  static LX_THREAD failing = nullptr;
  static std::atomic<bool> ran{false};
  const int32_t count = S_i32ThreadPoolIndex;
  g_failures = 1;
  EXPECT_EQ(Spawn(&failing, "failing", [] { ran = true; }), LX_THREAD_ERROR);
  EXPECT_EQ(std::tuple(g_failures.load(), failing, S_i32ThreadPoolIndex), std::tuple(0, nullptr, count));
  ASSERT_EQ(Spawn(&failing, "failing", [] { ran = true; }), LX_SUCCESS);  // the handle serves again
  EXPECT_TRUE(WaitUntil([] { return ran.load(); }));
}

TEST_F(ThreadTest, SuspendHoldsAThreadUntilResumeAndWaitAbortAnswersByItsState) {
  static std::atomic<int> rounds{0};
  static LX_THREAD spinner = nullptr;
  ASSERT_EQ(Spawn(&spinner, "spinner", [] { for (;; sched_yield()) ++rounds; }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return rounds > 0; }));
  ASSERT_EQ(OnTimerThread([] { return OwnRequest().u32WaitOption = 7, Statuses{_lx_ThreadSuspend(&spinner)}; }), Statuses{LX_SUCCESS});
  std::this_thread::sleep_for(50ms);
  const int count = rounds;
  EXPECT_FALSE(WaitUntil([&] { return rounds != count; }, 100ms));
  EXPECT_EQ(std::tuple(StateOf(spinner), _lx_ThreadWaitAbort(&spinner)), std::tuple(LX_STATE_SUSPENDED, LX_WAIT_ABORT_ERROR));
  EXPECT_EQ(_lx_ThreadResume(&spinner), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return rounds > count; }));
  EXPECT_EQ(std::tuple(StateOf(spinner), _lx_ThreadWaitAbort(&spinner)), std::tuple(LX_STATE_READY, LX_SUCCESS));  // nothing to abort
  LX_MUTEX mutex = nullptr;
  ASSERT_EQ(_lx_MutexCreate(&mutex, "m", 0), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);
  Waiters waiters;
  Waiter& waiter = waiters.StartOn(mutex->sSuspendCtrl, [&] { return _lx_MutexGet(&mutex, LX_WAIT_FOREVER); });
  EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_WAIT_ABORTED);
  EXPECT_EQ(std::tuple(StateOf(waiter.handle), Waiting(mutex->sSuspendCtrl)), std::tuple(LX_STATE_READY, 0));
}

TEST_F(ThreadTest, BadHandlesOutsidersAndUnknownOperationsAreRefusedAndSleepsTakeTheirTicks) {
  static LX_THREAD w = nullptr;
  LX_THREAD empty = nullptr;
  ASSERT_EQ(_lx_ThreadCreate(&w, "w", Noop, 0, nullptr, 0, 10, 0, 0, 0), LX_SUCCESS);
  for (LX_THREAD* h : {static_cast<LX_THREAD*>(nullptr), &empty})
    for (LX_STATUS s : {_lx_ThreadSuspend(h), _lx_ThreadResume(h), _lx_ThreadWaitAbort(h), _lx_ThreadTerminate(h), _lx_ThreadDelete(h)})
      EXPECT_EQ(s, LX_THREAD_ERROR);
  std::thread([] {  // a caller outside the pool has no request block to ask with
    for (LX_STATUS s : {_lx_ThreadSuspend(&w), _lx_ThreadTerminate(&w), _lx_ThreadWaitAbort(&w)}) EXPECT_EQ(s, LX_THREAD_ERROR);
  }).join();
  OwnRequest().psTarget = &w;
  for (uint16_t code : {0x80, 0x8B, 0x8F}) EXPECT_EQ(Issue(code), LX_NOT_AVAILABLE) << code;
  const auto sleep = [](uint32_t ticks) { return [ticks]() -> uint32_t { return OwnRequest().psTarget = _lx_ThreadIdentify(), Issue(CM_THREAD_SLEEP, nullptr, ticks); }; };
  Waiters waiters;
  Waiter &timed = waiters.Start(sleep(3), [] { return SleepAgentEntries() == 1; });
  Timer().RunPasses(3);
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_SLEEPING);
  Timer().RunPasses(1);  // a sleep of N ticks ends on pass N + 1
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(timed.handle), Waiters::StatusOf(timed)), std::tuple(size_t{0}, LX_STATE_READY, LX_SUCCESS));
  Waiter& aborted = waiters.Start(sleep(50), [] { return SleepAgentEntries() == 1; });
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), Waiters::StatusOf(aborted)), std::tuple(size_t{0}, LX_WAIT_ABORTED));
}

// A thread terminated wherever it waits ends (delete joins it) without returning from its call, leaves
// nothing behind, and the object serves on.
TEST_F(ThreadTest, AThreadTerminatedInAnyWaitEndsAndTheObjectServesOn) {
  LX_MUTEX mutex = nullptr;
  LX_SEMAPHORE semaphore = nullptr;
  LX_QUEUE queue = nullptr;
  LX_EVENT_FLAGS group = nullptr;
  FramedQueueCtrl framed{};
  static uint32_t storage[4], taken = 0, word = 7;
  static uint8_t slots[64];
  for (LX_STATUS status : {_lx_MutexCreate(&mutex, "m", 0), _lx_MutexGet(&mutex, LX_NO_WAIT), _lx_SemaphoreCreate(&semaphore, "s", 0),
                           _lx_QueueCreate(&queue, "q", 1, storage, sizeof storage), _lx_EventFlagsCreate(&group, "g"),
                           QueueCreate(&framed, "f", 4, 4, slots, 0, 1)})
    ASSERT_EQ(status, LX_SUCCESS);
  Timer().RunPasses(1);  // its thread has started: no descriptor of its start open any more
  const int descriptors = OpenDescriptorCount();
  const int32_t pooled = S_i32ThreadPoolIndex;
  const auto terminateInside = [&](const char* what, std::function<void()> wait, bool bare = false) {
    SCOPED_TRACE(what);
    static LX_THREAD victim = nullptr;
    static std::atomic<int> stage{0};
    stage = 0;
    ASSERT_EQ(Spawn(&victim, "victim", [wait] { stage = 1, wait(), stage = 2; }), LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([] { return stage == 1; }));
    std::this_thread::sleep_for(50ms);  // well inside the wait
    EXPECT_EQ(_lx_ThreadDelete(&victim), LX_DELETE_ERROR);  // not terminated
    OwnRequest().psTarget = &victim;  // the bare operation cancels the thread where it waits
    ASSERT_EQ(bare ? Issue(CM_THREAD_TERMINATE) : _lx_ThreadTerminate(&victim), LX_SUCCESS);
    EXPECT_EQ(StateOf(victim), LX_STATE_TERMINATED);
    EXPECT_EQ(_lx_ThreadDelete(&victim), LX_SUCCESS);
    Timer().RunPasses(6);  // no expiry of the dead wait may reach anybody
    EXPECT_EQ(std::tuple(stage.load(), S_i32ThreadPoolIndex, Waiting(mutex->sSuspendCtrl), SleepAgentEntries(), OpenDescriptorCount()),
              std::tuple(1, pooled, 0, size_t{0}, descriptors));
  };
  for (uint32_t wait : {LX_WAIT_FOREVER, 500u}) {
    // The service aborts a dispatcher wait first; the thread is cancelled where it goes on to wait.
    const auto mutexWait = [&, wait] { if (_lx_MutexGet(&mutex, wait) == LX_WAIT_ABORTED) for (;;) ::pause(); };
    terminateInside("mutex", mutexWait);
    terminateInside("mutex, bare terminate", mutexWait, true);
    terminateInside("semaphore", [&, wait] { _lx_SemaphoreGet(&semaphore, wait); });
    terminateInside("queue receive", [&, wait] { _lx_QueueReceive(&queue, &taken, wait); });
    terminateInside("framed receive", [&, wait] { QueueReceive(&framed, &taken, wait); });
    terminateInside("flags", [&, wait] { _lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &taken, wait); });
  }
  terminateInside("sleep", [] { _lx_ThreadSleep(1000); });
  for (int i = 0; i < 4; ++i) ASSERT_EQ(_lx_QueueSend(&queue, &word, LX_NO_WAIT), LX_SUCCESS);
  terminateInside("queue send", [&] { _lx_QueueSend(&queue, &word, LX_WAIT_FOREVER); });
  ASSERT_EQ(_lx_QueueFlush(&queue), LX_SUCCESS);
  ASSERT_EQ(QueueSend(&framed, &word, 1, FRAMED_QUEUE_AT_BACK), LX_SUCCESS);
  ASSERT_EQ(_lx_SemaphoreGet(&framed.psLockSemaphore, LX_NO_WAIT), LX_SUCCESS);  // a receiver that took a message
  terminateInside("framed receive, lock wait", [&] { QueueReceive(&framed, &taken, LX_WAIT_FOREVER); });  // puts it back
  ASSERT_EQ(_lx_SemaphorePut(&framed.psLockSemaphore), LX_SUCCESS);
  // Every object serves on, and no armed wait of a dead thread takes a count, a message or a flag.
  for (LX_STATUS status : {_lx_MutexPut(&mutex), _lx_MutexGet(&mutex, LX_NO_WAIT), _lx_SemaphorePut(&semaphore),
                           _lx_SemaphoreGet(&semaphore, LX_NO_WAIT), _lx_QueueSend(&queue, &word, LX_NO_WAIT),
                           _lx_QueueReceive(&queue, &taken, LX_NO_WAIT), QueueReceive(&framed, &taken, LX_NO_WAIT),
                           _lx_EventFlagsSet(&group, 0x1, LX_OR), _lx_EventFlagsGet(&group, 0x1, LX_OR, &taken, LX_NO_WAIT)})
    EXPECT_EQ(status, LX_SUCCESS);
  EXPECT_EQ(std::tuple(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), _lx_QueueReceive(&queue, &taken, LX_NO_WAIT)), std::tuple(LX_NO_INSTANCE, LX_QUEUE_EMPTY));
}

TEST_F(ThreadTest, SuspendedUnstartedAndEndedThreadsAreTerminatedAndDeletedButARunningOneIsWaitedForOnlyAWhile) {
  static LX_THREAD unstarted = nullptr, finished = nullptr, quitter = nullptr, spinner = nullptr, held = nullptr;
  static std::atomic<bool> go{false}, inside{false};
  ASSERT_EQ(_lx_ThreadCreate(&unstarted, "unstarted", Noop, 0, nullptr, 0, 32, 0, 0, 0), LX_SUCCESS);
  ASSERT_EQ(Spawn(&finished, "finished", [] { go = true; }), LX_SUCCESS);
  ASSERT_EQ(Spawn(&quitter, "quitter", [] { _lx_ThreadTerminate(&quitter); }), LX_SUCCESS);
  ASSERT_EQ(Spawn(&held, "held", [] { for (inside = true;;) ::pause(); }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return go && inside && StateOf(unstarted) == LX_STATE_SUSPENDED && StateOf(quitter) == LX_STATE_TERMINATED; }));
  std::this_thread::sleep_for(100ms);  // the finished one's Linux thread has ended
  ASSERT_EQ(_lx_ThreadSuspend(&held), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadDelete(&finished), LX_DELETE_ERROR);  // ended, never terminated
  for (LX_THREAD* thread : {&unstarted, &finished, &held}) EXPECT_EQ(_lx_ThreadTerminate(thread), LX_SUCCESS);
  for (LX_THREAD* thread : {&unstarted, &finished, &quitter, &held}) EXPECT_EQ(_lx_ThreadDelete(thread), LX_SUCCESS);
  go = false;
  ASSERT_EQ(Spawn(&spinner, "spinner", [] { while (!go.load(std::memory_order_relaxed)) {} }), LX_SUCCESS);
  const int32_t pooled = S_i32ThreadPoolIndex;
  ASSERT_EQ(_lx_ThreadTerminate(&spinner), LX_SUCCESS);  // never reaches a cancellation point
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(_lx_ThreadDelete(&spinner), LX_DELETE_ERROR);
  EXPECT_TRUE(std::chrono::steady_clock::now() - start >= 900ms && std::chrono::steady_clock::now() - start < 5000ms);
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled);
  go = true;
  EXPECT_EQ(_lx_ThreadDelete(&spinner), LX_SUCCESS);  // once it has ended
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled - 1);
}

}  // namespace
}  // namespace quorvin::test

// Threads: creation (the order of its checks, the pool of 49, names and
// pid-list lines, the first resume, the hold-back, a POSIX thread that cannot
// be started), priority and preemption threshold, and the services: sleep,
// suspend and resume, wait abort, terminate wherever a thread waits, delete,
// information, the thread class.
//
// pthread_create is replaced in this program (the library is linked
// statically): it fails on demand and otherwise forwards.
#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <gmock/gmock.h>

#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace {
std::atomic<int> g_failures{0};        // calls still to fail
std::function<void()> g_whileFailing;  // runs inside a failing call
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  if (g_failures.load() <= 0 || g_failures.fetch_sub(1) <= 0) return real(thread, attributes, start, argument);
  if (g_whileFailing) g_whileFailing();
  return EAGAIN;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using ThreadTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
bool Listed(const std::string& prefix) {
  return std::ranges::any_of(PidListLines(), [&](const std::string& line) { return line.starts_with(prefix); });
}
int NiceOf(pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }
// Whether a thread blocks a signal; signal 12 is blocked exactly while it runs its suspension handler.
bool Blocked(pid_t tid, int signal) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("SigBlk:")) {
  }
  return line.starts_with("SigBlk:") && (std::stoull(line.substr(7), nullptr, 16) >> (signal - 1)) & 1;
}
pid_t TidOf(LX_THREAD thread) {
  const ThreadRecord* record = PooledRecord(thread);
  return record != nullptr ? Peek(record->kernelTid) : 0;
}
bool Held(LX_THREAD thread) { return Blocked(TidOf(thread), SIGUSR2); }
// Not under qemu-user, which keeps the program's signal masks to itself.
#define REQUIRE_VISIBLE_MASKS()                                            \
  if (!Blocked(gettid(), SIGUSR1) || Blocked(gettid(), SIGUSR2)) GTEST_SKIP() \
      << "thread signal masks are not visible in /proc"

TEST_F(ThreadTest, CreateRefusalsFollowTheCheckOrderAndChangeNothing) {
  static LX_THREAD registered = nullptr, fresh = nullptr;
  ASSERT_EQ(Spawn(&registered, "registered", [] {}, 32, 0, 0), LX_SUCCESS);
  ThreadControlBlock* const first = registered;
  const int32_t count = S_i32ThreadPoolIndex;
  // Each row also fails every later check; a registered handle is found before the entry is checked.
  for (auto [handle, entry, priority, threshold, start, status] :
       {std::tuple{&fresh, &Noop, 5, 6, 1, LX_THRESH_ERROR}, {&fresh, nullptr, 5, 6, 1, LX_PTR_ERROR},
        {&registered, nullptr, 5, 6, 1, LX_THREAD_ERROR}, {&fresh, nullptr, 32, 33, 2, LX_NO_MEMORY},
        {&fresh, nullptr, 33, 34, 2, LX_PRIORITY_ERROR}, {nullptr, nullptr, 33, 34, 2, LX_THREAD_ERROR}}) {
    fresh = kUntouched;
    EXPECT_EQ(_lx_ThreadCreate(handle, "x", entry, 0, nullptr, 0, priority, threshold, 0, start), status);
    EXPECT_TRUE(S_i32ThreadPoolIndex == count && S_paThreadPool[count] == nullptr);
    EXPECT_TRUE(fresh == kUntouched && registered == first);
  }
}

TEST_F(ThreadTest, PoolHolds49AndNewThreadsAreNamedListedAndWaitForSignal10Or14) {
  EXPECT_EQ(_lx_ThreadIdentify(), &S_psScheduler);
  static LX_THREAD handles[49] = {};
  static std::atomic<LX_THREAD*> self[48] = {};
  static std::atomic<pid_t> tid{0};
  static char kernelName[16] = {};
  const LX_THREAD_ENTRY observe = [](uint64_t i) -> void* {
    if (i == 0) ::prctl(PR_GET_NAME, kernelName), tid = gettid();
    self[i] = _lx_ThreadIdentify();
    return nullptr;
  };
  ASSERT_EQ(_lx_ThreadCreate(&handles[0], "ABCDEFGHIJKLMNOPQRSTUVWXY", observe, 0, nullptr, 0, 32, 0, 0x12345, 0), 0);
  for (uint64_t i = 1; i < 48; ++i)
    ASSERT_EQ(_lx_ThreadCreate(&handles[i], i == 1 ? nullptr : "p", observe, i, nullptr, 0, 32, 0, 0, 0), 0) << i;
  handles[48] = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&handles[48], "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_TRUE(S_i32ThreadPoolIndex == 49 && S_paThreadPool[49] == nullptr && handles[48] == kUntouched);
  EXPECT_EQ(handles[0]->u16TimeSlice, 0x2345);  // not validated
  EXPECT_STREQ(handles[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_STREQ(handles[1]->acName, "");
  const auto all = [](uint16_t state) { return std::ranges::all_of(handles, handles + 48, [&](LX_THREAD h) { return StateOf(h) == state; }); };
  ASSERT_TRUE(WaitUntil([&] { return all(LX_STATE_SUSPENDED); }));
  EXPECT_TRUE(std::ranges::none_of(self, [](auto& s) { return s.load() != nullptr; }));
  for (int i = 0; i < 48; ++i) ASSERT_EQ(pthread_kill(handles[i]->hThread, i % 2 ? SIGALRM : SIGUSR1), 0);
  for (int i = 0; i < 48; ++i) EXPECT_TRUE(WaitUntil([&] { return self[i] == &handles[i]; })) << i;
  EXPECT_TRUE(all(LX_STATE_READY));
  EXPECT_STREQ(kernelName, "ABCDEFGHIJKLMNO");
  EXPECT_THAT(PidListLines(), testing::Contains("Name: ABCDEFGHIJKLMNOPQRS, pid:" + std::to_string(tid)));
  EXPECT_TRUE(Listed("Name: , pid:"));
  EXPECT_FALSE(Listed("Name: Scheduler"));  // the start-up thread lists itself only as the tick thread
}

TEST_F(ThreadTest, ThreadLockHoldsThreadsBackAndAnEarlyResumeIsKept) {
  struct Clear { ~Clear() { StoreRelaxed(G_u8ThreadLock, uint8_t{0}); } } clear;
  StoreRelaxed(G_u8ThreadLock, uint8_t{1});
  static LX_THREAD held = nullptr, early = nullptr;
  static std::atomic<bool> ran[2] = {false, false};
  ASSERT_EQ(Spawn(&held, "held", [] { ran[0] = true; }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return Listed("Name: held,"); }));
  ASSERT_EQ(Spawn(&early, "early", [] { ran[1] = true; }, 32, 0, 0), LX_SUCCESS);  // not held up by "held"
  ASSERT_EQ(pthread_kill(early->hThread, SIGUSR1), 0);  // before it can reach its first-resume wait
  ASSERT_TRUE(WaitUntil([] { return Listed("Name: early,"); }));
  const uint8_t spin = LoadRelaxed(S_u8ThreadLockSpin);  // the shared back-off counter moves while they wait
  EXPECT_TRUE(WaitUntil([&] { return LoadRelaxed(S_u8ThreadLockSpin) != spin; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(ran[0] || ran[1]);
  EXPECT_EQ(StateOf(early), LX_STATE_READY);  // held back before its first-resume wait
  StoreRelaxed(G_u8ThreadLock, uint8_t{0});
  ASSERT_TRUE(WaitUntil([] { return ran[0] && ran[1]; }));
}

TEST_F(ThreadTest, PriorityAndThresholdRefusalsComeInOrderAndOnlyPriority32IsAccepted) {
  LX_THREAD* self = _lx_ThreadIdentify();  // "Scheduler": priority 0 recorded, normal policy
  LX_THREAD empty = nullptr;
  uint16_t old = 0xBEEF;
  for (auto [handle, value, output, priority, threshold] :
       {std::tuple{(LX_THREAD*)nullptr, 33, (uint16_t*)nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR},
        {&empty, 33, nullptr, LX_THREAD_ERROR, LX_THREAD_ERROR}, {self, 33, &old, LX_PRIORITY_ERROR, LX_THRESH_ERROR},
        {self, 33, nullptr, LX_PRIORITY_ERROR, LX_THRESH_ERROR}, {self, 32, nullptr, LX_PTR_ERROR, LX_PTR_ERROR}}) {
    EXPECT_EQ(_lx_ThreadPriorityChange(handle, value, output), priority) << value;
    EXPECT_EQ(_lx_ThreadPreemptionChange(handle, value, output), threshold) << value;
  }
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {_lx_ThreadPriorityChange(G_psTimer, 32, &old), _lx_ThreadPreemptionChange(self, 7, &old)};
            }),
            Statuses(2, LX_CALLER_ERROR));
  EXPECT_EQ(std::tuple(old, (*self)->u16PreemptThreshold), std::tuple(0xBEEF, 0));
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 10, &old), LX_CALLER_ERROR);
  EXPECT_EQ(std::tuple(old, (*self)->u16Priority), std::tuple(32, 0));  // written before the platform refused
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &(old = 0)), LX_SUCCESS);
  EXPECT_EQ(std::tuple(old, (*self)->u16Priority), std::tuple(32, 32));
  // Another thread's static priority s reads back as 32 - s / 2; the change returns it to the normal policy.
  static LX_THREAD parked = nullptr;
  ASSERT_EQ(Spawn(&parked, "parked", [] {}, 32, 0, 0), LX_SUCCESS);
  sched_param parameters{.sched_priority = 10};
  if (pthread_setschedparam(parked->hThread, SCHED_FIFO, &parameters) != 0) GTEST_SKIP() << "no SCHED_FIFO";
  EXPECT_EQ(_lx_ThreadPriorityChange(&parked, 32, &old), LX_SUCCESS);
  int policy = -1;
  pthread_getschedparam(parked->hThread, &policy, &parameters);
  EXPECT_EQ(std::tuple(old, policy), std::tuple(27, SCHED_OTHER));
}

TEST_F(ThreadTest, ThresholdsRaiseTheCallersNiceAndAreAppliedAtStartBeforeTheEntry) {
  const int mine = NiceOf(gettid());
  static LX_THREAD handles[2] = {};
  static std::atomic<int> niceAtEntry{-100};
  static uint16_t thresholdAtEntry = 0, priorityAtEntry = 0;
  ASSERT_EQ(Spawn(&handles[0], "self", [] {
    const int base = NiceOf(gettid());  // accumulating: +2 (threshold 3), +4 (8), +20 (31), clamped at 19
    for (auto [threshold, previous, total] : {std::tuple{3, 0, 2}, {8, 2, 6}, {31, 4, 26}}) {
      uint16_t old = 0xBEEF;
      EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], threshold, &old), LX_SUCCESS);
      EXPECT_EQ(std::tuple(old, NiceOf(gettid())), std::tuple(previous, std::min(base + total, 19))) << threshold;
    }
    EXPECT_EQ(handles[0]->u16PreemptThreshold, 20);  // the increment, not the threshold
  }), LX_SUCCESS);
  ASSERT_TRUE(Join(handles[0]));
  ASSERT_EQ(Spawn(&handles[1], "waiting", [] {
    thresholdAtEntry = Peek(handles[1]->u16PreemptThreshold);
    priorityAtEntry = Peek(handles[1]->u16Priority);
    niceAtEntry = NiceOf(gettid());
  }, 7, 7, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return StateOf(handles[1]) == LX_STATE_SUSPENDED; }));
  EXPECT_EQ(handles[1]->u16PreemptThreshold, 7);  // nothing applied before the first resume
  ASSERT_EQ(_lx_ThreadResume(&handles[1]), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return niceAtEntry != -100; }));
  EXPECT_EQ(std::tuple(niceAtEntry.load(), thresholdAtEntry, priorityAtEntry), std::tuple(std::min(mine + 4, 19), 4, 7));
  EXPECT_EQ(NiceOf(gettid()), mine);
}

TEST_F(ThreadTest, AFailedStartIsRolledBackAndTheHandleCanBeUsedAgain) {
  static LX_THREAD failing = nullptr, later = nullptr;
  static std::atomic<LX_THREAD*> seen[2] = {nullptr, nullptr};
  const int32_t count = S_i32ThreadPoolIndex;
  // A second creation registers behind the failing one and waits; the roll-back moves it down.
  std::thread creator;
  LX_STATUS laterStatus = 0xFF;
  g_whileFailing = [&] {
    creator = std::thread([&] { laterStatus = Spawn(&later, "later", [] { seen[1] = _lx_ThreadIdentify(); }); });
    WaitUntil([&] { return LoadRelaxed(S_i32ThreadPoolIndex) == count + 2; });
  };
  g_failures = 1;
  EXPECT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_THREAD_ERROR);
  creator.join();
  ASSERT_EQ(g_failures, 0) << "pthread_create was not called";
  EXPECT_EQ(std::tuple(failing, laterStatus, S_i32ThreadPoolIndex), std::tuple(nullptr, LX_SUCCESS, count + 1));
  EXPECT_TRUE(S_paThreadPool[count] == later && S_paThreadPool[count + 1] == nullptr);
  ASSERT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_SUCCESS);
  EXPECT_TRUE(WaitUntil([] { return seen[0] == &failing && seen[1] == &later; }));
}

TEST_F(ThreadTest, SuspensionsAndResumesPairUpWhateverTheirOrder) {
  REQUIRE_VISIBLE_MASKS();
  static LX_THREAD thread = nullptr;
  static std::atomic<int> stage{0};
  static std::atomic<bool> go{false};
  ASSERT_EQ(Spawn(&thread, "w", [] {
    stage = _lx_ThreadSuspend(&thread) == LX_SUCCESS ? 1 : -1;
    WaitUntil([] { return go.load(); });
    stage = _lx_ThreadSuspend(&thread) == LX_SUCCESS ? 2 : -2;
  }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return Held(thread); }));
  EXPECT_EQ(StateOf(thread), LX_STATE_SUSPENDED);
  // Suspended again while held: signal 12 stays pending until the first resume has been taken.
  EXPECT_EQ(_lx_ThreadSuspend(&thread), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadResume(&thread), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return StateOf(thread) == LX_STATE_READY && Held(thread); }));
  EXPECT_FALSE(WaitUntil([] { return stage != 0; }, 100ms));
  EXPECT_EQ(_lx_ThreadResume(&thread), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return stage == 1; }));
  EXPECT_EQ(_lx_ThreadResume(&thread), LX_SUCCESS);  // not suspended: kept for its next suspension
  go = true;
  EXPECT_TRUE(WaitUntil([] { return stage == 2; }));
}

TEST_F(ThreadTest, SuspendHoldsAThreadUntilSignal10AndAWaitAbortAnswersByItsState) {
  REQUIRE_VISIBLE_MASKS();
  LX_MUTEX mutex = nullptr;
  ASSERT_EQ(_lx_MutexCreate(&mutex, "m", 0), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);
  static std::atomic<int> rounds{0};
  static LX_THREAD spinner = nullptr;
  ASSERT_EQ(Spawn(&spinner, "spinner", [] { for (;; sched_yield()) ++rounds; }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return rounds > 0; }));
  const Statuses suspended = OnTimerThread([] {  // whatever wait option an earlier request left in its block
    OwnRequest().u32WaitOption = 7;
    return Statuses{_lx_ThreadSuspend(&spinner)};
  });
  EXPECT_EQ(suspended, Statuses{LX_SUCCESS});
  ASSERT_TRUE(WaitUntil([] { return Held(spinner); }));
  const int count = rounds;
  ASSERT_EQ(pthread_kill(spinner->hThread, SIGALRM), 0);  // not a resume
  EXPECT_FALSE(WaitUntil([&] { return rounds != count; }, 50ms));
  EXPECT_EQ(StateOf(spinner), LX_STATE_SUSPENDED);
  EXPECT_EQ(_lx_ThreadWaitAbort(&spinner), LX_WAIT_ABORT_ERROR);
  EXPECT_EQ(_lx_ThreadResume(&spinner), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return rounds > count; }));
  EXPECT_EQ(StateOf(spinner), LX_STATE_READY);
  EXPECT_EQ(_lx_ThreadWaitAbort(&spinner), LX_SUCCESS);  // nothing to abort
  Waiters waiters;
  Waiter& waiter = waiters.StartOn(mutex->sSuspendCtrl, [&] { return _lx_MutexGet(&mutex, LX_WAIT_FOREVER); });
  EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_WAIT_ABORTED);
  EXPECT_EQ(std::tuple(StateOf(waiter.handle), Waiting(mutex->sSuspendCtrl)), std::tuple(LX_STATE_READY, 0));
}

TEST_F(ThreadTest, ASuspensionInsideASystemSectionWaitsForItsEnd) {
  REQUIRE_VISIBLE_MASKS();
  static LX_THREAD thread = nullptr;
  static std::atomic<int> stage{0};
  ASSERT_EQ(Spawn(&thread, "w", [] {
    {
      SystemSection section;  // as while holding the component-manager lock
      stage = 1;
      WaitUntil([] { return stage == 2; });
    }
    stage = 3;
  }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return stage == 1; }));
  EXPECT_EQ(_lx_ThreadSuspend(&thread), LX_SUCCESS);  // the suspender is not kept waiting
  stage = 2;
  EXPECT_FALSE(WaitUntil([] { return stage == 3; }, 100ms));  // suspended as it left the section
  EXPECT_EQ(StateOf(thread), LX_STATE_SUSPENDED);
  EXPECT_EQ(_lx_ThreadResume(&thread), LX_SUCCESS);
  EXPECT_TRUE(WaitUntil([] { return stage == 3; }));
}

TEST_F(ThreadTest, InfoGetReportsTheBlockAndBadHandlesOutsidersAndUnknownOperationsAreRefused) {
  static LX_THREAD w = nullptr;
  ASSERT_EQ(_lx_ThreadCreate(&w, "w", Noop, 0, nullptr, 0, 10, 0, 0x12345, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return StateOf(w) == LX_STATE_SUSPENDED; }));
  char* name = nullptr;
  uint16_t state = 0xFFFF, priority = 0xFFFF, threshold = 0xFFFF;
  uint32_t runs = 0xFFFF, slice = 0;
  LX_THREAD *next = &w, *nextSuspended = &w, empty = nullptr;
  ASSERT_EQ(_lx_ThreadInfoGet(&w, &name, &state, &runs, &priority, &threshold, &slice, &next, &nextSuspended), 0);
  EXPECT_EQ(std::tuple(name, state, runs, priority, threshold, slice, next, nextSuspended),
            std::tuple(w->acName, LX_STATE_SUSPENDED, 0u, 10, 0, 0x2345u, nullptr, nullptr));
  EXPECT_EQ(_lx_ThreadInfoGet(&w, nullptr, &state, &runs, &priority, &threshold, &slice, &next, &next), LX_PTR_ERROR);
  EXPECT_EQ(_lx_ThreadInfoGet(&w, &name, &state, &runs, &priority, &threshold, &slice, &next, nullptr), LX_PTR_ERROR);
  for (LX_THREAD* h : {static_cast<LX_THREAD*>(nullptr), &empty})
    for (LX_STATUS s : {_lx_ThreadSuspend(h), _lx_ThreadResume(h), _lx_ThreadWaitAbort(h), _lx_ThreadTerminate(h),
                        _lx_ThreadDelete(h), _lx_ThreadInfoGet(h, &name, &state, &runs, &priority, &priority, &slice,
                                                               &next, &next)})
      EXPECT_EQ(s, LX_THREAD_ERROR);
  std::thread([] {  // a caller outside the pool has no request block to ask with
    for (LX_STATUS s : {_lx_ThreadSuspend(&w), _lx_ThreadTerminate(&w), _lx_ThreadWaitAbort(&w)}) EXPECT_EQ(s, LX_THREAD_ERROR);
  }).join();
  OwnRequest().psTarget = &w;
  for (uint16_t code : {0x80, 0x8B, 0x8F}) EXPECT_EQ(Issue(code), LX_NOT_AVAILABLE) << code;
  OwnRequest().psTarget = &empty;
  for (uint16_t code : {CM_THREAD_SLEEP, CM_THREAD_SUSPEND, CM_THREAD_TERMINATE, CM_THREAD_WAIT_ABORT})
    EXPECT_EQ(Issue(code, nullptr, 3), LX_THREAD_ERROR) << code;
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(w)), std::tuple(size_t{0}, LX_STATE_SUSPENDED));
}

TEST_F(ThreadTest, SleepTakesItsTicksAndTheSleepOperationEndsByTimeOutOrWaitAbort) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(_lx_ThreadSleep(25), LX_SUCCESS);
  const auto slept = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(slept >= 250ms && slept < 2000ms);
  Waiters waiters;
  const auto sleep = [](uint32_t ticks) {
    return [ticks]() -> uint32_t { return (OwnRequest().psTarget = _lx_ThreadIdentify(), Issue(CM_THREAD_SLEEP, nullptr, ticks)); };
  };
  Waiter& timed = waiters.Start(sleep(3), [] { return SleepAgentEntries() == 1; });
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_SLEEPING);
  Timer().RunPasses(3);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(timed.handle)), std::tuple(size_t{1}, LX_STATE_SLEEPING));
  Timer().RunPasses(1);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(timed.handle)), std::tuple(size_t{0}, LX_STATE_READY));
  Waiter& aborted = waiters.Start(sleep(50), [] { return SleepAgentEntries() == 1; });
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), StateOf(aborted.handle)), std::tuple(size_t{0}, LX_STATE_READY));
  EXPECT_EQ(std::tuple(Waiters::StatusOf(timed), Waiters::StatusOf(aborted)), std::tuple(LX_SUCCESS, LX_WAIT_ABORTED));
}

// A thread terminated wherever it waits ends (delete joins it) without
// returning from its call, leaves nothing behind, and the object serves on.
TEST_F(ThreadTest, AThreadTerminatedInAnyWaitEndsAndTheObjectServesOn) {
  LX_MUTEX mutex = nullptr;
  LX_SEMAPHORE semaphore = nullptr;
  LX_QUEUE queue = nullptr;
  LX_EVENT_FLAGS group = nullptr;
  FramedQueueCtrl framed{};
  static uint32_t storage[4], taken = 0, word = 7;
  static uint8_t slots[64];
  for (LX_STATUS status : {_lx_MutexCreate(&mutex, "m", 0), _lx_MutexGet(&mutex, LX_NO_WAIT),  // in order
                           _lx_SemaphoreCreate(&semaphore, "s", 0), _lx_QueueCreate(&queue, "q", 1, storage, sizeof storage),
                           _lx_EventFlagsCreate(&group, "g"), QueueCreate(&framed, "f", 4, 4, slots, 0, 1)})
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
    ThreadControlBlock* const block = victim;
    EXPECT_EQ(_lx_ThreadDelete(&victim), LX_SUCCESS);
    EXPECT_EQ(std::tuple(stage.load(), S_i32ThreadPoolIndex, PooledRecord(block), victim), std::tuple(1, pooled, nullptr, block));
    Timer().RunPasses(6);  // no expiry of the dead wait may reach anybody
    EXPECT_EQ(std::tuple(Waiting(mutex->sSuspendCtrl), SleepAgentEntries(), OpenDescriptorCount()), std::tuple(0, size_t{0}, descriptors));
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
  terminateInside("suspended in a sleep", [] { _lx_ThreadSleep(1000); }, false);
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
  EXPECT_EQ(std::tuple(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), _lx_QueueReceive(&queue, &taken, LX_NO_WAIT)),
            std::tuple(LX_NO_INSTANCE, LX_QUEUE_EMPTY));
}

TEST_F(ThreadTest, SuspendedUnstartedAndEndedThreadsAreTerminatedAndDeletedButARunningOneIsWaitedForOnlyAWhile) {
  static LX_THREAD unstarted = nullptr, finished = nullptr, quitter = nullptr, spinner = nullptr, held = nullptr;
  static std::atomic<bool> go{false}, inside{false};
  ASSERT_EQ(_lx_ThreadCreate(&unstarted, "unstarted", Noop, 0, nullptr, 0, 32, 0, 0, 0), LX_SUCCESS);
  ASSERT_EQ(Spawn(&finished, "finished", [] {}), LX_SUCCESS);
  ASSERT_EQ(Spawn(&quitter, "quitter", [] { _lx_ThreadTerminate(&quitter), go = true; }), LX_SUCCESS);
  // Suspended where it cannot be cancelled, with a second suspension held back behind the first.
  ASSERT_EQ(Spawn(&held, "held", [] {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    for (inside = true; !go;) _lx_ThreadSleep(1);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    for (;;) _lx_ThreadSleep(100);
  }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return inside && TidOf(finished) && StateOf(unstarted) == LX_STATE_SUSPENDED && StateOf(quitter) == LX_STATE_TERMINATED; }));
  const std::string task = "/proc/self/task/" + std::to_string(TidOf(finished));
  ASSERT_TRUE(WaitUntil([&] { return ::access(task.c_str(), F_OK) != 0; }));  // its Linux thread has ended
  ASSERT_EQ(_lx_ThreadSuspend(&held), LX_SUCCESS);
  std::this_thread::sleep_for(50ms);
  ASSERT_EQ(pthread_kill(held->hThread, SIGUSR2), 0);
  SetThreadState(&quitter, LX_STATE_MUTEX_WAIT);  // a request on its way out cannot make it look alive
  EXPECT_EQ(std::tuple(StateOf(quitter), StateOf(finished), go.load()), std::tuple(LX_STATE_TERMINATED, LX_STATE_READY, false));
  EXPECT_EQ(_lx_ThreadDelete(&finished), LX_DELETE_ERROR);  // ended, never terminated
  for (LX_THREAD* thread : {&unstarted, &finished, &held}) EXPECT_EQ(_lx_ThreadTerminate(thread), LX_SUCCESS);
  go = true;
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

// Threads: creation and start (checks, registration, pool limit, pid list, first resume, hold-back, a
// POSIX thread that cannot be started), priority and preemption threshold, and the services: sleep,
// suspend and resume, wait abort, terminate, delete, information, the thread class.
//
// pthread_create is replaced in this executable (the library is linked statically): it fails on demand
// and otherwise forwards.
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

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
using ::testing::Contains;
using CreateTest = KernelTest;
using PriorityTest = KernelTest;

void* Noop(uint64_t) { return nullptr; }
LX_THREAD const kUntouched = reinterpret_cast<LX_THREAD>(0x5a5a);
bool Listed(const std::string& prefix) {
  return std::ranges::any_of(PidListLines(), [&](const std::string& line) { return line.starts_with(prefix); });
}

TEST_F(CreateTest, RefusalsFollowTheCheckOrderAndChangeNothing) {
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
    EXPECT_EQ(S_i32ThreadPoolIndex, count);
    EXPECT_EQ(S_paThreadPool[count], nullptr);
    EXPECT_TRUE(fresh == kUntouched && registered == first);
  }
}

TEST_F(CreateTest, PoolRegistersAndLists48ThreadsThatWaitForSignal10Or14) {
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
  const auto ran = [](bool yes) { return std::ranges::all_of(self, [&](auto& s) { return (s != nullptr) == yes; }); };
  ASSERT_EQ(_lx_ThreadCreate(&handles[0], "ABCDEFGHIJKLMNOPQRSTUVWXY", observe, 0, nullptr, 0, 32, 0, 0x12345, 0), 0);
  for (uint64_t i = 1; i < 48; ++i)
    ASSERT_EQ(_lx_ThreadCreate(&handles[i], i == 1 ? nullptr : "p", observe, i, nullptr, 0, 32, 0, 0, 0), 0) << i;
  handles[48] = kUntouched;
  EXPECT_EQ(_lx_ThreadCreate(&handles[48], "one too many", Noop, 0, nullptr, 0, 32, 0, 0, 1), LX_THREAD_ERROR);
  EXPECT_EQ(S_i32ThreadPoolIndex, 49);
  EXPECT_EQ(S_paThreadPool[49], nullptr);
  EXPECT_EQ(handles[48], kUntouched);
  EXPECT_EQ(handles[47]->u32PoolIndex, 48u);
  EXPECT_EQ(handles[0]->u16TimeSlice, 0x2345);  // low 16 bits, not validated
  EXPECT_STREQ(handles[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_STREQ(handles[1]->acName, "");
  const auto all = [](uint16_t state) {
    return std::all_of(handles, handles + 48, [&](LX_THREAD h) { return StateOf(h) == state; });
  };
  ASSERT_TRUE(WaitUntil([&] { return all(LX_STATE_SUSPENDED); }));
  EXPECT_TRUE(ran(false));
  for (int i = 0; i < 48; ++i) ASSERT_EQ(pthread_kill(handles[i]->hThread, i % 2 ? SIGALRM : SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([&] { return ran(true); }));
  EXPECT_TRUE(all(LX_STATE_READY));
  for (int i = 0; i < 48; ++i) EXPECT_EQ(self[i], &handles[i]) << i;
  EXPECT_STREQ(kernelName, "ABCDEFGHIJKLMNO");
  EXPECT_THAT(PidListLines(), Contains("Name: ABCDEFGHIJKLMNOPQRS, pid:" + std::to_string(tid)));
  EXPECT_TRUE(Listed("Name: , pid:"));
  EXPECT_FALSE(Listed("Name: Scheduler"));  // the start-up thread lists itself only as the tick thread
}

TEST_F(CreateTest, ThreadLockHoldsThreadsBackAndAnEarlyResumeIsKept) {
  struct Clear { ~Clear() { StoreRelaxed(G_u8ThreadLock, uint8_t{0}); } } clear;
  StoreRelaxed(G_u8ThreadLock, uint8_t{1});
  static LX_THREAD running = nullptr, parked = nullptr;
  static std::atomic<bool> ran[2] = {false, false};
  uint8_t last = LoadRelaxed(S_u8ThreadLockSpin);
  int moves = 0;
  const auto spinning = [&](int times) {  // the shared back-off counter keeps moving while threads hold back
    return WaitUntil([&] {
      const uint8_t now = LoadRelaxed(S_u8ThreadLockSpin);
      return (moves += now != std::exchange(last, now)) >= times;
    });
  };
  ASSERT_EQ(Spawn(&running, "held", [] { ran[0] = true; }), LX_SUCCESS);
  ASSERT_TRUE(spinning(5));
  ASSERT_EQ(Spawn(&parked, "early", [] { ran[1] = true; }, 32, 0, 0), LX_SUCCESS);  // not held up by "held"
  ASSERT_EQ(pthread_kill(parked->hThread, SIGUSR1), 0);  // before it can reach its wait
  ASSERT_TRUE(WaitUntil([] { return Listed("Name: early,"); }) && spinning(15));
  EXPECT_FALSE(ran[0] || ran[1]);
  EXPECT_EQ(StateOf(parked), LX_STATE_READY);  // has not reached its first-resume wait
  StoreRelaxed(G_u8ThreadLock, uint8_t{0});
  ASSERT_TRUE(WaitUntil([] { return ran[0] && ran[1]; }));
}

int NiceOf(pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }

TEST_F(PriorityTest, RefusalsComeInOrderChangeNothingAndOnlyPriority32IsAccepted) {
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
              return {_lx_ThreadPriorityChange(G_psTimer, 32, &old), _lx_ThreadPreemptionChange(G_psTimer, 7, &old),
                      _lx_ThreadPreemptionChange(self, 7, &old)};
            }),
            Statuses(3, LX_CALLER_ERROR));
  EXPECT_EQ(old, 0xBEEF);
  EXPECT_EQ((*self)->u16PreemptThreshold, 0);
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 10, &old), LX_CALLER_ERROR);
  EXPECT_EQ(old, 32);  // written before the platform refused
  EXPECT_EQ((*self)->u16Priority, 0);
  EXPECT_EQ(_lx_ThreadPriorityChange(self, 32, &(old = 0)), LX_SUCCESS);
  EXPECT_EQ(old, 32);
  EXPECT_EQ((*self)->u16Priority, 32);
  // Another thread's static priority s reads back as 32 - s / 2; the change returns it to the normal policy.
  static LX_THREAD parked = nullptr;
  ASSERT_EQ(Spawn(&parked, "parked", [] {}, 32, 0, 0), LX_SUCCESS);
  for (auto [staticPriority, readBack] : {std::pair{10, 27}, {63, 1}}) {
    sched_param parameters{.sched_priority = staticPriority};
    if (pthread_setschedparam(parked->hThread, SCHED_FIFO, &parameters) != 0) GTEST_SKIP() << "no SCHED_FIFO";
    EXPECT_EQ(_lx_ThreadPriorityChange(&parked, 32, &old), LX_SUCCESS);
    EXPECT_EQ(old, readBack) << staticPriority;
    int policy = -1;
    pthread_getschedparam(parked->hThread, &policy, &parameters);
    EXPECT_EQ(policy, SCHED_OTHER);
  }
}

TEST_F(PriorityTest, ThresholdGoesToTheTargetsNiceOrIsAppliedAtItsStartBeforeTheEntry) {
  const int mine = NiceOf(gettid());
  static LX_THREAD handles[2] = {};  // started at once; waiting for its first resume (threshold 7 = priority)
  static std::atomic<pid_t> tid{0};
  static std::atomic<int> niceAtEntry{-100};
  static uint16_t thresholdAtEntry = 0, priorityAtEntry = 0;
  static std::atomic<bool> release{false};
  struct Release { ~Release() { release = true; } } releaseAtEnd;
  ASSERT_EQ(Spawn(&handles[0], "self", [] {
    const int base = NiceOf(gettid());  // on itself: through its own nice value, accumulating
    int total = 0, previous = 0;
    for (auto [threshold, increment] : {std::pair{3, 2}, {8, 4}}) {
      uint16_t old = 0xBEEF;
      EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], threshold, &old), LX_SUCCESS);
      EXPECT_EQ(old, std::exchange(previous, increment)) << threshold;
      EXPECT_EQ(NiceOf(gettid()), std::min(base + (total += increment), 19)) << threshold;
    }
    tid = gettid();
    WaitUntil([] { return release.load(); }, 60s);
  }), LX_SUCCESS);
  ASSERT_EQ(Spawn(&handles[1], "waiting", [] {
    thresholdAtEntry = Peek(handles[1]->u16PreemptThreshold);
    priorityAtEntry = Peek(handles[1]->u16Priority);
    niceAtEntry = NiceOf(gettid());
  }, 7, 7, 0), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return tid != 0 && StateOf(handles[1]) == LX_STATE_SUSPENDED; }));
  uint16_t old = 0;
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[0], 31, &old), LX_SUCCESS);
  EXPECT_EQ(old, 4);
  EXPECT_EQ(Peek(handles[0]->u16PreemptThreshold), 20);
  EXPECT_EQ(NiceOf(tid), std::min(mine + 6 + 20, 19));
  EXPECT_EQ(_lx_ThreadPreemptionChange(&handles[1], 9, &old), LX_SUCCESS);
  EXPECT_EQ(old, 7);  // as created: nothing is applied before the first resume
  EXPECT_EQ(NiceOf(gettid()), mine);
  ASSERT_EQ(pthread_kill(handles[1]->hThread, SIGUSR1), 0);
  ASSERT_TRUE(WaitUntil([] { return niceAtEntry != -100; }));
  EXPECT_EQ(niceAtEntry, std::min(mine + 6, 19));
  EXPECT_EQ(thresholdAtEntry, 6);
  EXPECT_EQ(priorityAtEntry, 7);
}

TEST_F(CreateTest, FailedStartIsRolledBackAndTheHandleCanBeUsedAgain) {
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
  EXPECT_EQ(failing, nullptr);
  EXPECT_EQ(laterStatus, LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 1);
  EXPECT_EQ(S_paThreadPool[count], later);
  EXPECT_EQ(S_paThreadPool[count + 1], nullptr);
  ASSERT_TRUE(WaitUntil([] { return seen[1].load() != nullptr; }));
  EXPECT_EQ(seen[1].load(), &later);
  ASSERT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_SUCCESS);
  EXPECT_EQ(S_paThreadPool[count + 1], failing);
  ASSERT_TRUE(WaitUntil([] { return seen[0].load() != nullptr; }));
  EXPECT_EQ(seen[0].load(), &failing);
}

using Clock = std::chrono::steady_clock;

// A kernel thread whose entry runs over this fixture-owned record, so a cancelled thread leaves nothing behind.
struct Worker {
  LX_THREAD handle = nullptr;
  std::function<void(Worker&)> body;
  std::atomic<pid_t> tid{0};
  std::atomic<int> stage{0};
  std::atomic<uint32_t> status{0xFFFF};
  std::atomic<bool> go{false};
  bool deleted = false;
};
void AwaitGo(Worker& w) {
  while (!w.go) ::usleep(1000);
}
// Whether a thread blocks a signal; signal 12 is blocked exactly while it runs its suspension handler.
bool Blocked(pid_t tid, int signal) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("SigBlk:")) {
  }
  return line.starts_with("SigBlk:") && (std::stoull(line.substr(7), nullptr, 16) >> (signal - 1)) & 1;
}
// Not under qemu-user, which keeps the program's signal masks to itself.
bool MasksVisible() { return Blocked(gettid(), SIGUSR1) && !Blocked(gettid(), SIGUSR2); }

class ThreadServicesTest : public KernelTest {
 protected:
  void TearDown() override {
    for (Worker& w : workers_) {
      w.go = true;
      EXPECT_TRUE(w.deleted || Join(w.handle));
    }
    EXPECT_TRUE(mutex_ == nullptr || _lx_MutexDelete(&mutex_) == LX_SUCCESS);
  }
  // Creates the thread (again on the same word, given a worker) and waits for its entry to run.
  Worker& Start(std::function<void(Worker&)> body, uint16_t priority = 32, uint32_t slice = 0,
                Worker* again = nullptr) {
    Worker& w = again != nullptr ? *again : workers_.emplace_back();
    w.body = std::move(body), w.tid = 0, w.deleted = false;
    const LX_THREAD_ENTRY run = [](uint64_t input) -> void* {
      Worker& self = *reinterpret_cast<Worker*>(input);
      self.tid = gettid();
      self.body(self);
      return nullptr;
    };
    EXPECT_EQ(_lx_ThreadCreate(&w.handle, "w", run, (uint64_t)&w, nullptr, 0, priority, 0, slice, 1), LX_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return w.tid != 0; }));
    return w;
  }
  static uint16_t State(const Worker& w) { return StateOf(w.handle); }
  static bool Held(const Worker& w) { return Blocked(w.tid, SIGUSR2); }
  int32_t Waiting() { return test::Waiting(mutex_->sSuspendCtrl); }

  std::deque<Worker> workers_;
  LX_MUTEX mutex_ = nullptr;
};

TEST_F(ThreadServicesTest, SuspensionsAndResumesPairUpWhateverTheirOrder) {
  if (!MasksVisible()) GTEST_SKIP() << "thread signal masks are not visible in /proc";
  Worker& w = Start([](Worker& self) {
    self.status = _lx_ThreadSuspend(&self.handle);
    self.stage = 1;
    AwaitGo(self);
    self.status = _lx_ThreadSuspend(&self.handle);
    self.stage = 2;
  });
  ASSERT_TRUE(WaitUntil([&] { return Held(w); }));
  EXPECT_EQ(State(w), LX_STATE_SUSPENDED);
  // Suspended again while held: signal 12 stays pending until the first resume has been taken.
  EXPECT_EQ(_lx_ThreadSuspend(&w.handle), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadResume(&w.handle), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return State(w) == LX_STATE_READY && Held(w); }));
  EXPECT_FALSE(WaitUntil([&] { return w.stage != 0; }, 100ms));
  EXPECT_EQ(_lx_ThreadResume(&w.handle), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return w.stage == 1; }));
  EXPECT_EQ(w.status, LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadResume(&w.handle), LX_SUCCESS);  // not suspended: kept for its next suspension
  w.status = 0xFFFF;
  w.go = true;
  ASSERT_TRUE(WaitUntil([&] { return w.stage == 2; }));
  EXPECT_EQ(w.status, LX_SUCCESS);
}

TEST_F(ThreadServicesTest, SuspendHoldsAnotherThreadUntilSignal10AndAWaitAbortAnswersByItsState) {
  if (!MasksVisible()) GTEST_SKIP() << "thread signal masks are not visible in /proc";
  Worker& w = Start([](Worker& self) {
    for (; !self.go; sched_yield()) ++self.stage;
  });
  LX_STATUS suspended = 0xFFFF;
  Timer().Run([&] {  // from the timer thread, whatever wait option an earlier request left in its block
    OwnRequest().u32WaitOption = 7;
    suspended = _lx_ThreadSuspend(&w.handle);
  });
  EXPECT_EQ(suspended, LX_SUCCESS);
  EXPECT_EQ(State(w), LX_STATE_SUSPENDED);
  ASSERT_TRUE(WaitUntil([&] { return Held(w); }));
  const int count = w.stage;
  ASSERT_EQ(pthread_kill(w.handle->hThread, SIGALRM), 0);  // no resume
  EXPECT_FALSE(WaitUntil([&] { return w.stage != count; }, 50ms));
  EXPECT_EQ(State(w), LX_STATE_SUSPENDED);
  EXPECT_EQ(_lx_ThreadWaitAbort(&w.handle), LX_WAIT_ABORT_ERROR);
  EXPECT_EQ(_lx_ThreadResume(&w.handle), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return w.stage > count; }));
  EXPECT_EQ(State(w), LX_STATE_READY);
  EXPECT_EQ(_lx_ThreadWaitAbort(&w.handle), LX_SUCCESS);  // ready: nothing to abort
}

TEST_F(ThreadServicesTest, ASuspensionInsideASystemSectionWaitsForItsEnd) {
  if (!MasksVisible()) GTEST_SKIP() << "thread signal masks are not visible in /proc";
  Worker& w = Start([](Worker& self) {
    {
      SystemSection section;  // as while holding the component-manager lock
      self.stage = 1;
      AwaitGo(self);
      self.stage = 2;
    }
    self.stage = 3;
  });
  ASSERT_TRUE(WaitUntil([&] { return w.stage == 1; }));
  EXPECT_EQ(_lx_ThreadSuspend(&w.handle), LX_SUCCESS);  // the suspender is not kept waiting
  w.go = true;
  ASSERT_TRUE(WaitUntil([&] { return w.stage == 2; }));
  EXPECT_FALSE(WaitUntil([&] { return w.stage == 3; }, 100ms));  // suspended as it left the section
  EXPECT_EQ(State(w), LX_STATE_SUSPENDED);
  EXPECT_EQ(_lx_ThreadResume(&w.handle), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return w.stage == 3; }));
  EXPECT_EQ(State(w), LX_STATE_READY);
}

TEST_F(ThreadServicesTest, InfoGetReportsTheBlockAndBadHandlesOutsidersAndUnknownOperationsAreRefused) {
  Worker& w = Start(AwaitGo, 10, 0x12345);
  char* name = nullptr;
  uint16_t state = 0xFFFF, priority = 0xFFFF, threshold = 0xFFFF;
  uint32_t runs = 0xFFFF, slice = 0;
  LX_THREAD *next = &w.handle, *nextSuspended = &w.handle, empty = nullptr;
  ASSERT_EQ(_lx_ThreadInfoGet(&w.handle, &name, &state, &runs, &priority, &threshold, &slice, &next, &nextSuspended),
            LX_SUCCESS);
  EXPECT_EQ(name, w.handle->acName);
  EXPECT_EQ(std::tuple(state, runs, priority, threshold, slice), std::tuple(LX_STATE_READY, 0u, 10, 0, 0x2345u));
  EXPECT_TRUE(next == nullptr && nextSuspended == nullptr);
  EXPECT_EQ(_lx_ThreadInfoGet(&w.handle, nullptr, &state, &runs, &priority, &threshold, &slice, &next, &next),
            LX_PTR_ERROR);
  EXPECT_EQ(_lx_ThreadInfoGet(&w.handle, &name, &state, &runs, &priority, &threshold, &slice, &next, nullptr),
            LX_PTR_ERROR);
  for (LX_THREAD* h : {static_cast<LX_THREAD*>(nullptr), &empty}) {
    for (LX_STATUS s : {_lx_ThreadSuspend(h), _lx_ThreadResume(h), _lx_ThreadWaitAbort(h), _lx_ThreadTerminate(h),
                        _lx_ThreadDelete(h), _lx_ThreadInfoGet(h, &name, &state, &runs, &priority, &priority, &slice,
                                                               &next, &next)})
      EXPECT_EQ(s, LX_THREAD_ERROR);
  }
  std::thread([&] {
    for (LX_STATUS s : {_lx_ThreadSuspend(&w.handle), _lx_ThreadTerminate(&w.handle), _lx_ThreadWaitAbort(&w.handle)})
      EXPECT_EQ(s, LX_THREAD_ERROR);
  }).join();
  OwnRequest().psTarget = &w.handle;
  for (uint16_t code : {0x80, 0x8B, 0x8F}) EXPECT_EQ(Issue(code), LX_NOT_AVAILABLE) << code;
  OwnRequest().psTarget = &empty;
  for (uint16_t code : {CM_THREAD_SLEEP, CM_THREAD_SUSPEND, CM_THREAD_TERMINATE, CM_THREAD_WAIT_ABORT})
    EXPECT_EQ(Issue(code, nullptr, 3), LX_THREAD_ERROR) << code;
  EXPECT_EQ(SleepAgentEntries(), 0u);
  EXPECT_EQ(State(w), LX_STATE_READY);
}

TEST_F(ThreadServicesTest, SleepTakesItsTicksAndTheSleepOperationEndsByTimeOutOrByWaitAbort) {
  const auto start = Clock::now();
  EXPECT_EQ(_lx_ThreadSleep(25), LX_SUCCESS);
  EXPECT_TRUE(Clock::now() - start >= 250ms && Clock::now() - start < 2000ms);
  const auto sleep = [](uint32_t ticks) {
    return [ticks](Worker& w) {
      OwnRequest().psTarget = &w.handle;
      w.status = Issue(CM_THREAD_SLEEP, nullptr, ticks);
    };
  };
  Worker& timed = Start(sleep(3));
  ASSERT_TRUE(WaitUntil([&] { return SleepAgentEntries() == 1; }));
  EXPECT_EQ(State(timed), LX_STATE_SLEEPING);
  Timer().RunPasses(3);
  EXPECT_EQ(SleepAgentEntries(), 1u);
  Timer().RunPasses(1);  // returns after the dispatcher has released it
  EXPECT_EQ(SleepAgentEntries(), 0u);
  EXPECT_EQ(State(timed), LX_STATE_READY);
  Worker& aborted = Start(sleep(50));
  ASSERT_TRUE(WaitUntil([&] { return SleepAgentEntries() == 1; }));
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  EXPECT_EQ(State(aborted), LX_STATE_READY);
  ASSERT_TRUE(WaitUntil([&] { return timed.status != 0xFFFF && aborted.status != 0xFFFF; }));
  EXPECT_EQ(timed.status, LX_SUCCESS);
  EXPECT_EQ(aborted.status, LX_WAIT_ABORTED);
}

TEST_F(ThreadServicesTest, TerminatedWaiterLeavesNoNodeRegistrationOrDescriptorBehind) {
  ASSERT_EQ(_lx_MutexCreate(&mutex_, "m", 0), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexGet(&mutex_, LX_NO_WAIT), LX_SUCCESS);
  Timer().RunPasses(1);  // its thread has started: no start-up descriptor open any more
  const int32_t pooled = S_i32ThreadPoolIndex;
  // The service aborts the wait first; the bare operation cancels the thread where it waits.
  for (auto [wait, bare] : {std::pair{LX_WAIT_FOREVER, false}, {5u, false}, {5u, true}}) {
    SCOPED_TRACE(testing::Message() << "wait " << wait << (bare ? ", bare operation" : ", service"));
    const int descriptors = OpenDescriptorCount();
    Worker& w = Start([this, wait](Worker& self) {
      self.status = _lx_MutexGet(&mutex_, wait);
      for (;;) ::pause();
    });
    ASSERT_TRUE(WaitUntil([&] { return Waiting() == 1; }));
    EXPECT_EQ(_lx_ThreadDelete(&w.handle), LX_DELETE_ERROR);  // not terminated
    Timer().RunPasses(2);
    OwnRequest().psTarget = &w.handle;
    EXPECT_EQ(bare ? Issue(CM_THREAD_TERMINATE) : _lx_ThreadTerminate(&w.handle), LX_SUCCESS);
    EXPECT_EQ(State(w), LX_STATE_TERMINATED);
    ThreadControlBlock* const block = w.handle;
    ASSERT_EQ(_lx_ThreadDelete(&w.handle), LX_SUCCESS);  // it has ended: joined
    w.deleted = true;
    EXPECT_TRUE(S_i32ThreadPoolIndex == pooled && PooledRecord(block) == nullptr);
    EXPECT_EQ(w.handle, block);  // the word is left as it was
    EXPECT_NE(w.status, LX_SUCCESS);
    EXPECT_TRUE(Waiting() == 0 && SleepAgentEntries() == 0u);
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
    int fresh[2], pending = -1;  // likely on the numbers its reply pipe had: nobody may write there now
    ASSERT_EQ(::pipe2(fresh, O_CLOEXEC), 0);
    Timer().RunPasses(6);
    EXPECT_TRUE(::ioctl(fresh[0], FIONREAD, &pending) == 0 && pending == 0);
    ::close(fresh[0]), ::close(fresh[1]);
  }
  EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);  // the mutex and the dispatcher serve on
  EXPECT_EQ(_lx_MutexGet(&mutex_, LX_NO_WAIT), LX_SUCCESS);
  Start(AwaitGo, 32, 0, &workers_.back());  // and the word takes a new thread
}

TEST_F(ThreadServicesTest, DeleteWaitsForATerminatedThreadToEndButNotForever) {
  Worker& quitter = Start([](Worker& self) {
    _lx_ThreadTerminate(&self.handle);
    self.stage = 1;
  });
  ASSERT_TRUE(WaitUntil([&] { return State(quitter) == LX_STATE_TERMINATED; }));
  // Final: a request the thread issued on its way out cannot make it look alive.
  SetThreadState(&quitter.handle, LX_STATE_MUTEX_WAIT);
  EXPECT_EQ(State(quitter), LX_STATE_TERMINATED);
  ASSERT_EQ(_lx_ThreadDelete(&quitter.handle), LX_SUCCESS);
  quitter.deleted = true;
  EXPECT_EQ(quitter.stage, 0);  // the service did not return
  Worker& spinner = Start([](Worker& self) {  // never reaches a cancellation point
    while (!self.go.load(std::memory_order_relaxed)) {
    }
  });
  const int32_t pooled = S_i32ThreadPoolIndex;
  EXPECT_EQ(_lx_ThreadDelete(&spinner.handle), LX_DELETE_ERROR);  // running
  ASSERT_EQ(_lx_ThreadTerminate(&spinner.handle), LX_SUCCESS);
  const auto start = Clock::now();
  EXPECT_EQ(_lx_ThreadDelete(&spinner.handle), LX_DELETE_ERROR);
  EXPECT_TRUE(Clock::now() - start >= 900ms && Clock::now() - start < 5000ms);
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled);
  spinner.go = true;
  EXPECT_EQ(_lx_ThreadDelete(&spinner.handle), LX_SUCCESS);  // once it has ended
  spinner.deleted = true;
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled - 1);
}

TEST_F(ThreadServicesTest, AThreadWhoseEntryReturnedKeepsItsSlotUntilTerminatedAndDeleted) {
  Worker& finished = Start([](Worker&) {});
  const std::string task = "/proc/self/task/" + std::to_string(finished.tid.load());
  ASSERT_TRUE(WaitUntil([&] { return ::access(task.c_str(), F_OK) != 0; }));  // the Linux thread has ended
  const int32_t pooled = S_i32ThreadPoolIndex;
  EXPECT_EQ(State(finished), LX_STATE_READY);
  EXPECT_EQ(_lx_ThreadDelete(&finished.handle), LX_DELETE_ERROR);  // never terminated
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled);
  ASSERT_EQ(_lx_ThreadTerminate(&finished.handle), LX_SUCCESS);
  ASSERT_EQ(_lx_ThreadDelete(&finished.handle), LX_SUCCESS);
  finished.deleted = true;
  EXPECT_EQ(S_i32ThreadPoolIndex, pooled - 1);
}

}  // namespace
}  // namespace quorvin::test

// Thread services: sleep, suspend and resume, wait abort, terminate, delete, information, the thread class.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
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

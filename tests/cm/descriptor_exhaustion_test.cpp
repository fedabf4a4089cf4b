// With no descriptor left, every class answers with a clear status and
// nothing hangs; once descriptors are free again, everything works as before.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

// Lowers the soft descriptor limit and takes every number below it, so that
// no pipe and no message queue can be opened; gives everything back at the end.
class NoDescriptorsLeft {
 public:
  NoDescriptorsLeft() {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    rlimit low = saved_;
    low.rlim_cur = static_cast<rlim_t>(OpenDescriptorCount() + 8);
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken_.push_back(fd);
    int probe[2];
    exhausted_ = ::pipe(probe) != 0;
  }
  ~NoDescriptorsLeft() { Release(); }
  void Release() {
    for (int fd : taken_) ::close(fd);
    taken_.clear();
    ::setrlimit(RLIMIT_NOFILE, &saved_);
  }
  bool Exhausted() const { return exhausted_; }

 private:
  rlimit saved_{};
  std::vector<int> taken_;
  bool exhausted_ = false;
};

// The objects the tests use. Not part of the fixture: without descriptors,
// UBSan's check of a polymorphic object (the fixture) cannot open the pipe it
// probes with and reports a correct object as broken (see docs/testing.md).
struct Objects {
  LX_MUTEX mutex = nullptr;
  LX_BLOCK_POOL blocks = nullptr;
  LX_BYTE_POOL bytes = nullptr;
  LX_SEMAPHORE semaphore = nullptr;
  LX_EVENT_FLAGS group = nullptr;
  LX_QUEUE queue = nullptr;
  CM_QUEUE cmQueue = nullptr;
  alignas(8) uint8_t area[64] = {};
};

// One service of every class, asked once without descriptors (the expected
// statuses) and once more after (everything succeeds).
void CallEveryClass(Objects& o, bool exhausted) {
  const LX_STATUS dispatcher = exhausted ? LX_NOT_AVAILABLE : LX_SUCCESS;
  // Mutex and pool services that finish at once need no descriptor.
  EXPECT_EQ(_lx_MutexGet(&o.mutex, LX_NO_WAIT), LX_SUCCESS);
  if (exhausted) {
    // One that has to wait needs its reply pipe: refused, it leaves no trace.
    EXPECT_EQ(_lx_MutexGet(&o.mutex, 5), LX_NOT_AVAILABLE);
    EXPECT_EQ(Waiting(o.mutex->sSuspendCtrl), 0);
    EXPECT_EQ(SleepAgentEntries(), 0u);
    EXPECT_EQ(StateOf(*_lx_ThreadIdentify()), LX_STATE_READY);
    EXPECT_EQ(OwnRequest().ai32ReplyPipe[0], -1);
  }
  EXPECT_EQ(_lx_MutexPut(&o.mutex), LX_SUCCESS);
  void* block = nullptr;
  EXPECT_EQ(_lx_BlockAllocate(&o.blocks, &block, 5), LX_SUCCESS);
  EXPECT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
  void* memory = nullptr;
  EXPECT_EQ(_lx_ByteAllocate(&o.bytes, &memory, 100, LX_WAIT_FOREVER), LX_SUCCESS);
  EXPECT_EQ(_lx_ByteRelease(memory), LX_SUCCESS);
  uint32_t word = 5, actual = 0;
  EXPECT_EQ(CmQueueSend(&o.cmQueue, &word, 3), dispatcher);
  EXPECT_EQ(CmQueueReceive(&o.cmQueue, &word, LX_NO_WAIT), dispatcher);
  EXPECT_EQ(Issue(0x95), LX_NOT_AVAILABLE);  // unknown class: the same answer either way
  EXPECT_EQ(OwnRequest().u16Service, 0);
  // Semaphores, event flags, host queues, timers and sleeps need no new descriptor.
  EXPECT_EQ(_lx_SemaphorePut(&o.semaphore), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&o.semaphore, 2), LX_SUCCESS);
  EXPECT_EQ(_lx_EventFlagsSet(&o.group, 0x3, LX_OR), LX_SUCCESS);
  EXPECT_EQ(_lx_EventFlagsGet(&o.group, 0x3, LX_AND_CLEAR, &actual, 2), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueSend(&o.queue, &word, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_QueueReceive(&o.queue, &word, 2), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadSleep(1), LX_SUCCESS);
  LX_TIMER timer = nullptr;
  EXPECT_EQ(_lx_TimerCreate(&timer, "t", [](uint32_t) {}, 0, 5, 0, 1), LX_SUCCESS);
  EXPECT_EQ(_lx_TimerDelete(&timer), LX_SUCCESS);
  // A new host queue needs a descriptor.
  LX_QUEUE fresh = nullptr;
  EXPECT_EQ(_lx_QueueCreate(&fresh, exhausted ? "ex-none" : "ex-more", 1, o.area, 16),
            exhausted ? LX_QUEUE_ERROR : LX_SUCCESS);
}

// The least of a few looks: a sanitizer's runtime may hold a pipe of its own
// open for a moment (UBSan probes objects through one).
int SettledDescriptorCount() {
  int least = OpenDescriptorCount();
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(2ms);
    least = std::min(least, OpenDescriptorCount());
  }
  return least;
}

class DescriptorExhaustionTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    // The stand-in timer thread's pipes exist before the limit falls, and it
    // has started: no start-up descriptor (its pid-list line) is open any more.
    Timer().RunPasses(1);
    ASSERT_EQ(_lx_MutexCreate(&o_.mutex, "m", LX_NO_INHERIT), LX_SUCCESS);
    ASSERT_EQ(_lx_BlockPoolCreate(&o_.blocks, "b", 16, o_.area, 32), LX_SUCCESS);
    ASSERT_EQ(_lx_BytePoolCreate(&o_.bytes, "y", o_.area, 100), LX_SUCCESS);
    ASSERT_EQ(_lx_SemaphoreCreate(&o_.semaphore, "s", 0), LX_SUCCESS);
    ASSERT_EQ(_lx_EventFlagsCreate(&o_.group, "g"), LX_SUCCESS);
    ASSERT_EQ(_lx_QueueCreate(&o_.queue, "ex", 1, o_.area, 16), LX_SUCCESS);
    ASSERT_EQ(CmQueueCreate(&o_.cmQueue, 2, 1, nullptr), LX_SUCCESS);
  }
  void TearDown() override {
    waiters_.JoinAll();
    EXPECT_EQ(_lx_MutexDelete(&o_.mutex), LX_SUCCESS);
    EXPECT_EQ(_lx_BlockPoolDelete(&o_.blocks), LX_SUCCESS);
    EXPECT_EQ(_lx_BytePoolDelete(&o_.bytes), LX_SUCCESS);
    EXPECT_EQ(CmQueueDelete(&o_.cmQueue), LX_SUCCESS);
  }

  Objects o_;
  Waiters waiters_;
};

TEST_F(DescriptorExhaustionTest, EveryClassAnswersClearlyAndWorksAgainOnceDescriptorsAreFree) {
  Objects& o = o_;
  const int descriptors = SettledDescriptorCount();
  {
    NoDescriptorsLeft none;
    ASSERT_TRUE(none.Exhausted());
    CallEveryClass(o, true);
  }
  EXPECT_EQ(SettledDescriptorCount(), descriptors);  // nothing was left open by a refusal
  CallEveryClass(o, false);
  EXPECT_EQ(SettledDescriptorCount(), descriptors + 1);  // the second host queue
}

TEST_F(DescriptorExhaustionTest, ThreadsAndParkedWaitersGetThroughTheShortage) {
  LX_MUTEX& mutex = o_.mutex;
  ASSERT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);
  Waiter& waiter = waiters_.Start([&mutex] { return _lx_MutexGet(&mutex, LX_WAIT_FOREVER); },
                                  [&mutex] { return Waiting(mutex->sSuspendCtrl) == 1; });
  LX_THREAD sleeper = nullptr;
  {
    NoDescriptorsLeft none;
    ASSERT_TRUE(none.Exhausted());
    // Thread services cannot reach the dispatcher: the waiter waits on.
    EXPECT_EQ(_lx_ThreadSuspend(&waiter.handle), LX_NOT_AVAILABLE);
    EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_NOT_AVAILABLE);
    // A thread still starts (its pid-list line is lost) and sleeps.
    std::atomic<bool> ran{false};
    EXPECT_EQ(Spawn(&sleeper, "sleeper", [&ran] { ran = _lx_ThreadSleep(1) == LX_SUCCESS; }), LX_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return ran.load(); }));
    EXPECT_TRUE(Join(sleeper));
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_MUTEX_WAIT);
    // The put is handled in this thread and wakes the waiter through its own pipe.
    EXPECT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);
    EXPECT_EQ(Waiters::StatusOf(waiter), LX_SUCCESS);
  }
  EXPECT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_SUCCESS);  // the thread class answers again
}

}  // namespace
}  // namespace quorvin::test

// With no descriptor left, every class answers with a clear status and
// nothing hangs; once descriptors are free again, everything works as before.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

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

class DescriptorExhaustionTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    Timer();  // the stand-in timer thread's pipes exist before the limit falls
    ASSERT_EQ(_lx_MutexCreate(&mutex_, "m", LX_NO_INHERIT), LX_SUCCESS);
    ASSERT_EQ(_lx_BlockPoolCreate(&blocks_, "b", 16, area_, 32), LX_SUCCESS);
    ASSERT_EQ(_lx_BytePoolCreate(&bytes_, "y", area_, 100), LX_SUCCESS);
    ASSERT_EQ(_lx_SemaphoreCreate(&semaphore_, "s", 0), LX_SUCCESS);
    ASSERT_EQ(_lx_EventFlagsCreate(&group_, "g"), LX_SUCCESS);
    ASSERT_EQ(_lx_QueueCreate(&queue_, "ex", 1, area_, 16), LX_SUCCESS);
    ASSERT_EQ(CmQueueCreate(&cmQueue_, 2, 1, nullptr), LX_SUCCESS);
  }
  // One service of every class, each asked once without descriptors (the
  // expected statuses) and once more after (everything succeeds).
  void CallEveryClass(bool exhausted) {
    const LX_STATUS dispatcher = exhausted ? LX_NOT_AVAILABLE : LX_SUCCESS;
    EXPECT_EQ(_lx_MutexGet(&mutex_, LX_NO_WAIT), dispatcher);
    if (!exhausted) {
      EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);
    }
    void* block = nullptr;
    EXPECT_EQ(_lx_BlockAllocate(&blocks_, &block, 5), dispatcher);
    EXPECT_EQ(block == nullptr, exhausted);
    if (block != nullptr) {
      EXPECT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
    }
    void* memory = nullptr;
    EXPECT_EQ(_lx_ByteAllocate(&bytes_, &memory, 100, LX_WAIT_FOREVER), dispatcher);
    if (memory != nullptr) {
      EXPECT_EQ(_lx_ByteRelease(memory), LX_SUCCESS);
    }
    uint32_t word = 5, actual = 0;
    EXPECT_EQ(CmQueueSend(&cmQueue_, &word, 3), dispatcher);
    EXPECT_EQ(CmQueueReceive(&cmQueue_, &word, LX_NO_WAIT), exhausted ? LX_NOT_AVAILABLE : LX_SUCCESS);
    EXPECT_EQ(Issue(0x95), LX_NOT_AVAILABLE);  // unknown class: the same answer either way
    EXPECT_EQ(OwnRequest().u16Service, 0);
    // Semaphores, event flags, host queues, timers and sleeps need no new descriptor.
    EXPECT_EQ(_lx_SemaphorePut(&semaphore_), LX_SUCCESS);
    EXPECT_EQ(_lx_SemaphoreGet(&semaphore_, 2), LX_SUCCESS);
    EXPECT_EQ(_lx_EventFlagsSet(&group_, 0x3, LX_OR), LX_SUCCESS);
    EXPECT_EQ(_lx_EventFlagsGet(&group_, 0x3, LX_AND_CLEAR, &actual, 2), LX_SUCCESS);
    EXPECT_EQ(_lx_QueueSend(&queue_, &word, LX_NO_WAIT), LX_SUCCESS);
    EXPECT_EQ(_lx_QueueReceive(&queue_, &word, 2), LX_SUCCESS);
    EXPECT_EQ(_lx_ThreadSleep(1), LX_SUCCESS);
    LX_TIMER timer = nullptr;
    EXPECT_EQ(_lx_TimerCreate(&timer, "t", [](uint32_t) {}, 0, 5, 0, 1), LX_SUCCESS);
    EXPECT_EQ(_lx_TimerDelete(&timer), LX_SUCCESS);
    // A new host queue needs a descriptor.
    LX_QUEUE fresh = nullptr;
    EXPECT_EQ(_lx_QueueCreate(&fresh, exhausted ? "ex-none" : "ex-more", 1, area_, 16),
              exhausted ? LX_QUEUE_ERROR : LX_SUCCESS);
  }

  LX_MUTEX mutex_ = nullptr;
  LX_BLOCK_POOL blocks_ = nullptr;
  LX_BYTE_POOL bytes_ = nullptr;
  LX_SEMAPHORE semaphore_ = nullptr;
  LX_EVENT_FLAGS group_ = nullptr;
  LX_QUEUE queue_ = nullptr;
  CM_QUEUE cmQueue_ = nullptr;
  alignas(8) uint8_t area_[64] = {};
  Waiters waiters_;
};

TEST_F(DescriptorExhaustionTest, EveryClassAnswersClearlyAndWorksAgainOnceDescriptorsAreFree) {
  const int descriptors = OpenDescriptorCount();
  {
    NoDescriptorsLeft none;
    ASSERT_TRUE(none.Exhausted());
    CallEveryClass(true);
  }
  EXPECT_EQ(OpenDescriptorCount(), descriptors);  // nothing was left open by a refusal
  CallEveryClass(false);
  EXPECT_EQ(OpenDescriptorCount(), descriptors + 1);  // the second host queue
}

TEST_F(DescriptorExhaustionTest, ThreadsAndParkedWaitersGetThroughTheShortage) {
  ASSERT_EQ(_lx_MutexGet(&mutex_, LX_NO_WAIT), LX_SUCCESS);
  Waiter& waiter = waiters_.Start([this] { return _lx_MutexGet(&mutex_, LX_WAIT_FOREVER); },
                                  [this] { return Waiting(mutex_->sSuspendCtrl) == 1; });
  LX_THREAD sleeper = nullptr;
  {
    NoDescriptorsLeft none;
    ASSERT_TRUE(none.Exhausted());
    // The owner cannot reach the dispatcher, so the waiter waits on: no hang,
    // no wrong hand-over.
    EXPECT_EQ(_lx_MutexPut(&mutex_), LX_NOT_AVAILABLE);
    EXPECT_FALSE(waiter.Done());
    EXPECT_EQ(_lx_ThreadSuspend(&waiter.handle), LX_NOT_AVAILABLE);
    EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_NOT_AVAILABLE);
    // A thread still starts (its pid-list line is lost) and sleeps.
    std::atomic<bool> ran{false};
    EXPECT_EQ(Spawn(&sleeper, "sleeper", [&ran] { ran = _lx_ThreadSleep(1) == LX_SUCCESS; }), LX_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return ran.load(); }));
    EXPECT_TRUE(Join(sleeper));
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_MUTEX_WAIT);
  }
  EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);  // hands over now
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);
  EXPECT_EQ(_lx_ThreadWaitAbort(&waiter.handle), LX_SUCCESS);  // the thread class answers again
}

}  // namespace
}  // namespace quorvin::test

// The sleep agent: finite waits counted down pass by pass on the timer thread
// and expired through the dispatcher's system class.
#include <algorithm>
#include <deque>
#include <mutex>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;

class SleepAgentTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped()) return;
    // The stand-in timer thread lives as long as the process.
    timer_ = new StandInTimer();
  }

  void TearDown() override {
    for (LX_THREAD* thread : spawned_) EXPECT_TRUE(Join(*thread));
  }

  struct Waiter {
    LX_THREAD handle = nullptr;
    uint16_t status = 0xFFFF;
    bool done = false;
  };
  Waiter& NewWaiter() { return waiters_.emplace_back(); }

  void Park(Waiter& waiter, uint32_t wait) {
    const size_t before = Registered();
    spawned_.push_back(&waiter.handle);
    ASSERT_EQ(Spawn(&waiter.handle, "waiter", [this, &waiter, wait] {
                const uint16_t status = Issue(kTestTake, &handle_, wait);
                std::lock_guard lock(mutex_);
                waiter.status = status;
                waiter.done = true;
                order_.push_back(&waiter);
              }),
              LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return Registered() == before + 1 || wait == LX_WAIT_FOREVER; }));
    ASSERT_TRUE(WaitUntil([&] { return StateOf(waiter.handle) == LX_STATE_SEMAPHORE_WAIT; }));
  }

  size_t Registered() {
    std::lock_guard lock(CmLock());
    size_t n = 0;
    for (auto* r = quorvin::detail::S_psSleepTop; r != nullptr; r = r->psSleepNext) ++n;
    return n;
  }
  bool Done(const Waiter& waiter) {
    std::lock_guard lock(mutex_);
    return waiter.done;
  }
  // Whether the dispatcher has ended the waiter's wait by time-out. A pass
  // returns only after the dispatcher handled its expiries, so this is exact
  // right after RunPasses.
  bool TimedOut(const Waiter& waiter) {
    std::lock_guard lock(CmLock());
    const auto& ended = RecordedValues();
    return std::find(ended.begin(), ended.end(), reinterpret_cast<uint64_t>(&waiter.handle)) != ended.end();
  }
  // Runs passes one by one and returns the pass on which the waiter timed out.
  int PassesUntilReleased(const Waiter& waiter, int limit) {
    for (int pass = 1; pass <= limit; ++pass) {
      timer_->RunPasses(1);
      if (TimedOut(waiter)) {
        EXPECT_TRUE(WaitUntil([&] { return Done(waiter); }));
        return pass;
      }
    }
    return -1;
  }

  StandInTimer* timer_ = nullptr;
  TestObject object_;
  TestObject* handle_ = &object_;
  std::mutex mutex_;
  std::vector<Waiter*> order_;
  std::vector<LX_THREAD*> spawned_;
  std::deque<Waiter> waiters_;
};

TEST_F(SleepAgentTest, WaitOfNTicksExpiresOnThePassAfterN) {
  for (uint32_t ticks : {1u, 3u}) {
    Waiter& waiter = NewWaiter();  // a handle word stays registered after its thread ends
    Park(waiter, ticks);
    // Each pass before the expiry only counts down.
    timer_->RunPasses(static_cast<int>(ticks));
    EXPECT_FALSE(TimedOut(waiter)) << ticks;
    EXPECT_EQ(Peek(waiter.handle->sRequest.u32WaitOption), 0u);
    timer_->RunPasses(1);
    ASSERT_TRUE(WaitUntil([&] { return Done(waiter); })) << ticks;
    EXPECT_EQ(waiter.status, kTestTimeoutStatus);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_READY);
    EXPECT_EQ(Registered(), 0u);
    std::lock_guard lock(CmLock());
    EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, 0);
  }
}

TEST_F(SleepAgentTest, EqualWaitsRegisteredInOrderExpireOnTheSamePassInOrder) {
  Waiter &a = NewWaiter(), &b = NewWaiter(), &c = NewWaiter();
  Park(a, 2);
  Park(b, 2);
  Park(c, 5);
  timer_->RunPasses(2);
  EXPECT_FALSE(TimedOut(a));
  timer_->RunPasses(1);
  ASSERT_TRUE(WaitUntil([&] { return Done(a) && Done(b); }));
  {
    // The dispatcher ended a's wait before b's.
    std::lock_guard lock(CmLock());
    EXPECT_EQ(RecordedValues(), (std::vector<uint64_t>{reinterpret_cast<uint64_t>(&a.handle),
                                                       reinterpret_cast<uint64_t>(&b.handle)}));
  }
  EXPECT_FALSE(TimedOut(c));
  EXPECT_EQ(Peek(c.handle->sRequest.u32WaitOption), 2u);  // counted on every pass, expiries included
  EXPECT_EQ(PassesUntilReleased(c, 10), 3);
}

TEST_F(SleepAgentTest, ReleasedWaitLeavesTheListAndIsNeverWokenAgain) {
  Waiter &first = NewWaiter();
  Park(first, 3);
  timer_->RunPasses(1);
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return Done(first); }));
  EXPECT_EQ(first.status, LX_SUCCESS);
  EXPECT_EQ(Registered(), 0u);
  // The released wait is gone for good: later passes expire nothing, and a
  // forever wait now on the same list is left alone.
  Waiter &again = NewWaiter();
  Park(again, LX_WAIT_FOREVER);
  timer_->RunPasses(6);
  EXPECT_FALSE(TimedOut(again));
  EXPECT_EQ(StateOf(again.handle), LX_STATE_SEMAPHORE_WAIT);
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return Done(again); }));
  EXPECT_EQ(again.status, LX_SUCCESS);
}

TEST_F(SleepAgentTest, MovedWaiterKeepsItsRemainingTicks) {
  Waiter &a = NewWaiter(), &b = NewWaiter();
  Park(a, 6);
  Park(b, 4);
  timer_->RunPasses(2);
  Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, &b.handle->sRequest.sSuspendNode);
  EXPECT_EQ(Peek(b.handle->sRequest.u32WaitOption), 2u);
  EXPECT_EQ(PassesUntilReleased(b, 10), 3);
  EXPECT_EQ(b.status, kTestTimeoutStatus);
  EXPECT_EQ(PassesUntilReleased(a, 10), 2);
}

TEST_F(SleepAgentTest, MovedWaiterWithNoTicksLeftStillWaitsForItsExpiry) {
  Waiter &a = NewWaiter(), &b = NewWaiter();
  Park(a, LX_WAIT_FOREVER);
  Park(b, 1);
  timer_->RunPasses(1);
  ASSERT_EQ(Peek(b.handle->sRequest.u32WaitOption), 0u);
  Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, &b.handle->sRequest.sSuspendNode);
  EXPECT_EQ(StateOf(b.handle), LX_STATE_SEMAPHORE_WAIT);
  EXPECT_EQ(Registered(), 1u);
  EXPECT_EQ(PassesUntilReleased(b, 3), 1);
  EXPECT_EQ(b.status, kTestTimeoutStatus);
  EXPECT_EQ(Registered(), 0u);
  Issue(kTestGive, &handle_);
}

TEST_F(SleepAgentTest, ExpiryIsNotRefusedByAWaitOptionLeftInTheTimerBlock) {
  Waiter &waiter = NewWaiter();
  Park(waiter, 1);
  // A service called from an expiration function left a wait option behind.
  timer_->Run([] { (*G_psTimer)->sRequest.u32WaitOption = 7; });
  EXPECT_EQ(PassesUntilReleased(waiter, 3), 2);
  EXPECT_EQ(waiter.status, kTestTimeoutStatus);
}

TEST_F(SleepAgentTest, ForeverWaitsAndAnEmptyListAreLeftAlone) {
  timer_->RunPasses(3);  // empty list: nothing happens
  Waiter &forever = NewWaiter();
  Park(forever, LX_WAIT_FOREVER);
  EXPECT_EQ(Registered(), 0u);
  timer_->RunPasses(5);
  EXPECT_FALSE(TimedOut(forever));
  EXPECT_EQ(StateOf(forever.handle), LX_STATE_SEMAPHORE_WAIT);
  EXPECT_EQ(Peek(forever.handle->sRequest.u32WaitOption), LX_WAIT_FOREVER);
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return Done(forever); }));
}

TEST_F(SleepAgentTest, TimerThreadRequestsThatWouldWaitAreRefused) {
  uint16_t refused = 0, plain = 0, service = 0;
  timer_->Run([&] {
    refused = Issue(kTestTake, &handle_, 5);
    service = OwnRequest().u16Service;
    plain = Issue(0x90, nullptr, LX_NO_WAIT);
  });
  EXPECT_EQ(refused, LX_WAIT_ERROR);
  EXPECT_EQ(service, kTestTake);  // the refusal leaves the service code in place
  EXPECT_EQ(plain, LX_NOT_AVAILABLE);
  std::lock_guard lock(CmLock());
  EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, 0);
}

TEST_F(SleepAgentTest, TimeOutOfAThreadWaitingOnTicksAloneReleasesItWithItsStatus) {
  // Stands in for a thread-class sleep: the handler marks the thread sleeping
  // and registers the request without parking it on any list.
  quorvin::detail::ReplaceClassEntry(quorvin::detail::ClassIndex(CM_CLASS_THREAD),
                                     {[](uint16_t, CmServiceRequest* request) {
                                        quorvin::detail::SetThreadState(request->psTarget,
                                                                        LX_STATE_SLEEPING);
                                        request->u16Status = LX_SUCCESS;
                                        SleepAgentAddRequest(request);
                                      },
                                      nullptr});
  LX_THREAD& sleeper = NewWaiter().handle;
  bool done = false;
  uint16_t status = 0xFFFF;
  ASSERT_EQ(Spawn(&sleeper, "sleeper", [&] {
              OwnRequest().psTarget = _lx_ThreadIdentify();
              const uint16_t s = Issue(0x88, nullptr, 2);
              std::lock_guard lock(mutex_);
              status = s;
              done = true;
            }),
            LX_SUCCESS);
  spawned_.push_back(&sleeper);
  ASSERT_TRUE(WaitUntil([&] { return Registered() == 1; }));
  EXPECT_EQ(StateOf(sleeper), LX_STATE_SLEEPING);
  timer_->RunPasses(2);
  EXPECT_FALSE(WaitUntil([&] { std::lock_guard l(mutex_); return done; }, std::chrono::milliseconds(50)));
  timer_->RunPasses(1);
  ASSERT_TRUE(WaitUntil([&] { std::lock_guard l(mutex_); return done; }));
  EXPECT_EQ(status, LX_SUCCESS);
  EXPECT_EQ(StateOf(sleeper), LX_STATE_READY);
  EXPECT_EQ(Registered(), 0u);
}

TEST_F(SleepAgentTest, TimeOutForARequestAlreadyFinishedChangesNothing) {
  CmServiceRequest finished{};  // service code 0: completed meanwhile
  finished.u16Status = 1234;
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &finished), LX_NOT_AVAILABLE);
  EXPECT_EQ(finished.u16Status, 1234);
  CmServiceRequest unknownClass{};
  unknownClass.u16Service = 0x93;
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &unknownClass), LX_NOT_AVAILABLE);
}

}  // namespace
}  // namespace quorvin::test

// The sleep agent: finite waits counted down pass by pass on the timer thread
// and expired through the dispatcher's system class.
#include <algorithm>
#include <atomic>
#include <deque>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;

class SleepAgentTest : public KernelTest {
 protected:
  static uint32_t Ticks(const Waiter& waiter) { return Peek(waiter.handle->sRequest.u32WaitOption); }

  void SetUp() override {
    KernelTest::SetUp();
    if (!IsSkipped()) timer_ = &Timer();
  }

  // Starts a thread taking from the object with the given wait (or running
  // body instead) and returns once it waits in the given state.
  Waiter& Park(uint32_t wait, uint16_t state = LX_STATE_SEMAPHORE_WAIT, std::function<uint32_t()> body = {}) {
    const size_t before = SleepAgentEntries();
    if (!body) body = [this, wait] { return Issue(kTestTake, &handle_, wait); };
    Waiter& waiter = waiters_.Start(body);
    EXPECT_TRUE(WaitUntil([&] { return SleepAgentEntries() == before + 1 || wait == LX_WAIT_FOREVER; }));
    EXPECT_TRUE(WaitUntil([&] { return StateOf(waiter.handle) == state; }));
    return waiter;
  }
  int32_t Count() { return Waiting(object_.sSuspendCtrl); }
  // Whether the dispatcher has ended the waiter's wait by time-out; exact right
  // after a pass, which returns only once the dispatcher handled its expiries.
  bool TimedOut(const Waiter& waiter) {
    std::lock_guard lock(CmLock());
    return std::ranges::count(RecordedValues(), reinterpret_cast<uint64_t>(&waiter.handle)) == 1;
  }
  // Runs passes one by one and returns the pass on which the waiter timed out.
  int PassesUntilReleased(const Waiter& waiter, int limit) {
    for (int pass = 1; pass <= limit; ++pass) {
      timer_->RunPasses(1);
      if (TimedOut(waiter)) {
        EXPECT_TRUE(WaitUntil([&] { return waiter.Done(); }));
        return pass;
      }
    }
    return -1;
  }

  StandInTimer* timer_ = nullptr;
  TestObject object_;
  TestObject* handle_ = &object_;
  Waiters waiters_;
};

TEST_F(SleepAgentTest, WaitsOfNTicksExpireOnPassNPlusOneAndEqualOnesInRegistrationOrder) {
  Waiter &a = Park(2), &b = Park(2), &c = Park(5);
  timer_->RunPasses(2);
  EXPECT_FALSE(TimedOut(a));
  EXPECT_EQ(Ticks(a), 0u);
  timer_->RunPasses(1);
  ASSERT_TRUE(WaitUntil([&] { return a.Done() && b.Done(); }));
  {
    std::lock_guard lock(CmLock());
    EXPECT_EQ(RecordedValues(), (std::vector<uint64_t>{reinterpret_cast<uint64_t>(&a.handle),
                                                       reinterpret_cast<uint64_t>(&b.handle)}));
  }
  EXPECT_EQ(a.status.load(), kTestTimeoutStatus);
  EXPECT_EQ(StateOf(a.handle), LX_STATE_READY);
  EXPECT_EQ(Count(), 1);
  EXPECT_EQ(Ticks(c), 2u);  // counted on every pass, expiries included
  EXPECT_EQ(PassesUntilReleased(c, 10), 3);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  EXPECT_EQ(Count(), 0);
}

TEST_F(SleepAgentTest, ReleasedAndForeverWaitsAreNeverExpired) {
  timer_->RunPasses(3);  // an empty list: nothing happens
  Waiter& released = Park(3);
  timer_->RunPasses(1);
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return released.Done(); }));
  EXPECT_EQ(released.status.load(), LX_SUCCESS);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  Waiter& forever = Park(LX_WAIT_FOREVER);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  timer_->RunPasses(6);
  EXPECT_FALSE(TimedOut(released));
  EXPECT_FALSE(TimedOut(forever));
  EXPECT_EQ(Ticks(forever), LX_WAIT_FOREVER);
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return forever.Done(); }));
  EXPECT_EQ(forever.status.load(), LX_SUCCESS);
}

TEST_F(SleepAgentTest, MovedWaitersKeepTheirRemainingTicks) {
  Waiter &a = Park(6), &b = Park(4), &c = Park(2);
  timer_->RunPasses(2);
  for (Waiter* moved : {&b, &c})
    Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, &moved->handle->sRequest.sSuspendNode);
  EXPECT_EQ(Ticks(b), 2u);
  EXPECT_EQ(Ticks(c), 0u);  // none left, but its expiry is still to come
  EXPECT_EQ(StateOf(c.handle), LX_STATE_SEMAPHORE_WAIT);
  EXPECT_EQ(SleepAgentEntries(), 3u);
  EXPECT_EQ(PassesUntilReleased(c, 10), 1);
  EXPECT_EQ(PassesUntilReleased(b, 10), 2);
  EXPECT_EQ(PassesUntilReleased(a, 10), 2);
  EXPECT_EQ(b.status.load(), kTestTimeoutStatus);
}

TEST_F(SleepAgentTest, TimerThreadRequestsThatWouldWaitAreRefusedAndExpiriesGoOn) {
  Waiter& waiter = Park(1);
  uint16_t refused = 0, plain = 0, service = 0;
  timer_->Run([&] {
    refused = Issue(kTestTake, &handle_, 5);
    service = OwnRequest().u16Service;
    plain = Issue(0x90, nullptr, LX_NO_WAIT);
    (*G_psTimer)->sRequest.u32WaitOption = 7;  // as a service in an expiration function may leave it
  });
  EXPECT_EQ(refused, LX_WAIT_ERROR);
  EXPECT_EQ(service, kTestTake);  // the refusal leaves the service code in place
  EXPECT_EQ(plain, LX_NOT_AVAILABLE);
  EXPECT_EQ(Count(), 1);
  EXPECT_EQ(PassesUntilReleased(waiter, 3), 2);
  EXPECT_EQ(waiter.status.load(), kTestTimeoutStatus);
}

TEST_F(SleepAgentTest, TimeOutOfAThreadWaitingOnTicksAloneReleasesItWithItsStatus) {
  // A stand-in thread-class sleep: registered, but parked on no list.
  quorvin::detail::ReplaceClassEntry(quorvin::detail::ClassIndex(CM_CLASS_THREAD),
                                     {[](uint16_t, CmServiceRequest* request) {
                                        quorvin::detail::SetThreadState(request->psTarget, LX_STATE_SLEEPING);
                                        request->u16Status = LX_SUCCESS;
                                        SleepAgentAddRequest(request);
                                      },
                                      nullptr});
  Waiter& sleeper = Park(2, LX_STATE_SLEEPING, [] {
    OwnRequest().psTarget = _lx_ThreadIdentify();
    return Issue(0x88, nullptr, 2);
  });
  timer_->RunPasses(2);
  EXPECT_FALSE(WaitUntil([&] { return sleeper.Done(); }, std::chrono::milliseconds(50)));
  timer_->RunPasses(1);
  ASSERT_TRUE(WaitUntil([&] { return sleeper.Done(); }));
  EXPECT_EQ(sleeper.status.load(), LX_SUCCESS);
  EXPECT_EQ(StateOf(sleeper.handle), LX_STATE_READY);
  EXPECT_EQ(SleepAgentEntries(), 0u);
}

TEST_F(SleepAgentTest, TimeOutForARequestAlreadyFinishedChangesNothing) {
  CmServiceRequest finished{}, unknownClass{};
  finished.u16Status = 1234;  // service code 0: completed meanwhile
  unknownClass.u16Service = 0x93;
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &finished), LX_NOT_AVAILABLE);
  EXPECT_EQ(finished.u16Status, 1234);
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &unknownClass), LX_NOT_AVAILABLE);
}

}  // namespace
}  // namespace quorvin::test

// Suspend lists and the sleep agent, driven through the test-only class: park,
// release one (modes 0 to 3), release all; finite waits counted down pass by
// pass on the timer thread and expired through the dispatcher's system class.
#include <algorithm>
#include <mutex>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::S_psSleepEnd;
using quorvin::detail::S_psSleepTop;

template <typename F>
auto Locked(F&& read) {
  std::lock_guard lock(quorvin::detail::CmLock());
  return read();
}

class WaitsTest : public KernelTest {
 protected:
  static CmServiceRequest* Request(const Waiter& waiter) { return &waiter.handle->sRequest; }
  static SuspendNode* Node(const Waiter& waiter) { return &waiter.handle->sRequest.sSuspendNode; }
  static uint32_t Ticks(const Waiter& waiter) { return Peek(Request(waiter)->u32WaitOption); }

  int32_t Count() { return Waiting(object_.sSuspendCtrl); }

  // Starts a waiter taking from the object and returns once it is parked; the
  // order in which waiters return is kept.
  Waiter& Park(uint32_t wait = LX_WAIT_FOREVER, uint8_t flags = CM_SUSPEND_COUNT_UP) {
    Waiter& waiter = waiters_.StartOn(object_.sSuspendCtrl, [this, wait, flags] {
      const uint16_t status = Issue(kTestTake, &handle_, wait, 0, kTestFlagsGiven | flags);
      std::lock_guard lock(mutex_);
      order_.push_back(_lx_ThreadIdentify());
      return status;
    });
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_SEMAPHORE_WAIT);
    return waiter;
  }

  std::vector<LX_THREAD*> Order() {  // released waiters, in release order
    std::lock_guard lock(mutex_);
    return order_;
  }
  bool Done(Waiter& waiter) { return std::ranges::count(Order(), &waiter.handle) == 1 && waiter.Done(); }
  void AwaitDone(Waiter& waiter) { ASSERT_TRUE(WaitUntil([&] { return Done(waiter); })); }

  // Whether the dispatcher has ended the waiter's wait by time-out; exact right
  // after a pass, which returns only once the dispatcher handled its expiries.
  static bool TimedOut(const Waiter& waiter) {
    return Locked([&] { return std::ranges::count(RecordedValues(), reinterpret_cast<uint64_t>(&waiter.handle)); }) == 1;
  }
  // Runs passes one by one and returns the pass on which the waiter timed out.
  static int PassesUntilReleased(const Waiter& waiter, int limit) {
    for (int pass = 1; pass <= limit; ++pass) {
      Timer().RunPasses(1);
      if (TimedOut(waiter)) {
        EXPECT_TRUE(WaitUntil([&] { return waiter.Done(); }));
        return pass;
      }
    }
    return -1;
  }

  TestObject object_;
  TestObject* handle_ = &object_;
  std::mutex mutex_;
  std::vector<LX_THREAD*> order_;
  Waiters waiters_;
};

TEST_F(WaitsTest, GivesReleaseTheFrontInsertThenTheOthersInArrivalOrder) {
  EXPECT_EQ(Issue(kTestTake, &handle_, LX_NO_WAIT), kTestTimeoutStatus);  // no wait: no parking
  EXPECT_EQ(Count(), 0);
  EXPECT_EQ(Locked([] { return S_psSleepTop; }), nullptr);
  Waiter &a = Park(), &b = Park(), &front = Park(LX_WAIT_FOREVER, CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP);
  EXPECT_EQ(Count(), 3);
  for (int32_t left : {2, 1, 0}) {
    ASSERT_EQ(Issue(kTestGive, &handle_), LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return Order().size() == static_cast<size_t>(3 - left); }));
    EXPECT_EQ(Count(), left);
  }
  EXPECT_EQ(Order(), (std::vector<LX_THREAD*>{&front.handle, &a.handle, &b.handle}));
  for (Waiter* w : {&front, &a, &b}) {
    EXPECT_EQ(Waiters::StatusOf(*w), LX_SUCCESS);
    EXPECT_EQ(StateOf(w->handle), LX_STATE_READY);
  }
}

TEST_F(WaitsTest, NegativeCountsMoveTowardZeroAndReleaseAllFreesEveryone) {
  Waiter &a = Park(LX_WAIT_FOREVER, 0), &b = Park(LX_WAIT_FOREVER, 0), &c = Park(LX_WAIT_FOREVER, 0);
  EXPECT_EQ(Count(), -3);
  Issue(kTestRemove, &handle_, LX_NO_WAIT, LX_QUEUE_EMPTY, CM_REMOVE_WITH_STATUS, Node(b));
  AwaitDone(b);
  EXPECT_EQ(b.status.load(), LX_QUEUE_EMPTY);
  Locked([&] {  // the middle node went; the others stay linked in order
    EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, -2);
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, Node(a));
    EXPECT_EQ(Node(a)->psNext, Node(c));
    EXPECT_EQ(Node(c)->psPrev, Node(a));
    --object_.sSuspendCtrl.i32SuspendCount;  // now overstates the list by one
  });
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED), LX_SUCCESS);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "psSuspendCtrl->psFirstSuspend NULL in CM_WakeUpAllThreadInSuspendList");
  AwaitDone(a);
  AwaitDone(c);
  EXPECT_EQ(std::tuple(a.status.load(), c.status.load(), Count()), std::tuple(LX_DELETED, LX_DELETED, 0));
}

TEST_F(WaitsTest, FiniteWaitsAreRegisteredOnceUntilReleased) {
  Waiter &forever = Park(), &a = Park(40), &b = Park(4);
  EXPECT_EQ(Peek(Request(forever)->u64InSleepAgent), 0u);
  // Unlinking b and adding it at the front neither wakes nor registers it again.
  Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, Node(b));
  EXPECT_EQ(Count(), 3);
  EXPECT_FALSE(Done(b));
  EXPECT_EQ(Peek(Request(b)->u64InSleepAgent), 1u);
  Locked([&] {
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, Node(b));
    EXPECT_EQ(S_psSleepTop, Request(a));
    EXPECT_EQ(S_psSleepTop->psSleepNext, Request(b));
    EXPECT_EQ(S_psSleepEnd, Request(b));
  });
  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_SUCCESS, Node(b));
  AwaitDone(b);
  EXPECT_EQ(b.status.load(), LX_SUCCESS);
  EXPECT_EQ(Peek(Request(b)->u64InSleepAgent), 0u);
  EXPECT_EQ(Locked([] { return S_psSleepEnd; }), Request(a));
  Issue(kTestGive, &handle_);
  AwaitDone(forever);
  Timer().RunPasses(6);  // neither the released nor the forever wait is ever expired
  EXPECT_FALSE(TimedOut(b) || TimedOut(forever) || Done(a));
  // Aborting the only node left empties both ends and the sleep list.
  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_ABORTED, Node(a));
  AwaitDone(a);
  EXPECT_EQ(a.status.load(), LX_WAIT_ABORTED);
  Locked([&] {
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, nullptr);
    EXPECT_EQ(object_.sSuspendCtrl.psLastSuspend, nullptr);
    EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, 0);
    EXPECT_EQ(S_psSleepTop, nullptr);
  });
}

TEST_F(WaitsTest, WaitsOfNTicksExpireOnPassNPlusOneAndEqualOnesInRegistrationOrder) {
  Timer().RunPasses(3);  // an empty list: nothing happens
  Waiter &a = Park(2), &b = Park(2), &c = Park(5);
  Timer().RunPasses(2);
  EXPECT_FALSE(TimedOut(a));
  EXPECT_EQ(Ticks(a), 0u);
  Timer().RunPasses(1);
  ASSERT_TRUE(WaitUntil([&] { return a.Done() && b.Done(); }));
  EXPECT_EQ(Locked([] { return RecordedValues(); }), (std::vector<uint64_t>{reinterpret_cast<uint64_t>(&a.handle),
                                                                            reinterpret_cast<uint64_t>(&b.handle)}));
  EXPECT_EQ(a.status.load(), kTestTimeoutStatus);
  EXPECT_EQ(StateOf(a.handle), LX_STATE_READY);
  EXPECT_EQ(Count(), 1);
  EXPECT_EQ(Ticks(c), 2u);  // counted on every pass, expiries included
  EXPECT_EQ(PassesUntilReleased(c, 10), 3);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), Count()), std::tuple(size_t{0}, 0));
}

TEST_F(WaitsTest, MovedWaitersKeepTheirRemainingTicks) {
  Waiter &a = Park(6), &b = Park(4), &c = Park(2);
  Timer().RunPasses(2);
  for (Waiter* moved : {&b, &c}) Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, Node(*moved));
  EXPECT_EQ(Ticks(b), 2u);
  EXPECT_EQ(Ticks(c), 0u);  // none left, but its expiry is still to come
  EXPECT_EQ(StateOf(c.handle), LX_STATE_SEMAPHORE_WAIT);
  EXPECT_EQ(SleepAgentEntries(), 3u);
  EXPECT_EQ(PassesUntilReleased(c, 10), 1);
  EXPECT_EQ(PassesUntilReleased(b, 10), 2);
  EXPECT_EQ(PassesUntilReleased(a, 10), 2);
  EXPECT_EQ(b.status.load(), kTestTimeoutStatus);
}

TEST_F(WaitsTest, TimerThreadRequestsThatWouldWaitAreRefusedAndExpiriesGoOn) {
  Waiter& waiter = Park(1);
  uint16_t refused = 0, plain = 0, service = 0;
  Timer().Run([&] {
    refused = Issue(kTestTake, &handle_, 5);
    service = OwnRequest().u16Service;
    plain = Issue(0x90, nullptr, LX_NO_WAIT);
    (*G_psTimer)->sRequest.u32WaitOption = 7;  // as a service in an expiration function may leave it
  });
  EXPECT_EQ(std::tuple(refused, service, plain), std::tuple(LX_WAIT_ERROR, kTestTake, LX_NOT_AVAILABLE));
  EXPECT_EQ(Count(), 1);
  EXPECT_EQ(PassesUntilReleased(waiter, 3), 2);
  EXPECT_EQ(waiter.status.load(), kTestTimeoutStatus);
}

TEST_F(WaitsTest, TimeOutForARequestAlreadyFinishedChangesNothing) {
  CmServiceRequest finished{}, unknownClass{};
  finished.u16Status = 1234;  // service code 0: completed meanwhile
  unknownClass.u16Service = 0x93;
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &finished), LX_NOT_AVAILABLE);
  EXPECT_EQ(finished.u16Status, 1234);
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &unknownClass), LX_NOT_AVAILABLE);
}

}  // namespace
}  // namespace quorvin::test

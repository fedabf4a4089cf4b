// Suspend lists, driven through the test-only class: park, release one
// (modes 0 to 3), release all.
#include <algorithm>
#include <deque>
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

class SuspendListTest : public KernelTest {
 protected:
  static CmServiceRequest* Request(const Waiter& waiter) { return &waiter.handle->sRequest; }
  static SuspendNode* Node(const Waiter& waiter) { return &waiter.handle->sRequest.sSuspendNode; }

  int32_t Count() { return Locked([&] { return object_.sSuspendCtrl.i32SuspendCount; }); }

  // Starts a waiter taking from the object and returns once it is parked; the
  // order in which waiters return is kept.
  Waiter& Park(uint32_t wait = LX_WAIT_FOREVER, uint8_t flags = CM_SUSPEND_COUNT_UP) {
    const int32_t before = Count();
    Waiter& waiter = waiters_.Start(
        [this, wait, flags] {
          const uint16_t status = Issue(kTestTake, &handle_, wait, 0, kTestFlagsGiven | flags);
          std::lock_guard lock(mutex_);
          order_.push_back(_lx_ThreadIdentify());
          return status;
        },
        [&] { return Count() != before; });
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_SEMAPHORE_WAIT);
    return waiter;
  }

  std::vector<LX_THREAD*> Order() {  // released waiters, in release order
    std::lock_guard lock(mutex_);
    return order_;
  }
  bool Done(Waiter& waiter) { return std::ranges::count(Order(), &waiter.handle) == 1 && waiter.Done(); }
  void AwaitDone(Waiter& waiter) { ASSERT_TRUE(WaitUntil([&] { return Done(waiter); })); }

  TestObject object_;
  TestObject* handle_ = &object_;
  std::mutex mutex_;
  std::vector<LX_THREAD*> order_;
  Waiters waiters_;
};

TEST_F(SuspendListTest, GivesReleaseTheFrontInsertThenTheOthersInArrivalOrder) {
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

TEST_F(SuspendListTest, NegativeCountsMoveTowardZeroAndReleaseAllFreesEveryone) {
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
  EXPECT_EQ(a.status.load(), LX_DELETED);
  EXPECT_EQ(c.status.load(), LX_DELETED);
  EXPECT_EQ(Count(), 0);
}

TEST_F(SuspendListTest, FiniteWaitsAreRegisteredOnceUntilReleased) {
  Waiter &forever = Park(), &a = Park(40), &b = Park(40);
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
  EXPECT_FALSE(Done(a));
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

}  // namespace
}  // namespace quorvin::test

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
  struct Waiter {
    LX_THREAD handle = nullptr;
    uint16_t status = 0xFFFF;
    CmServiceRequest* Request() { return &handle->sRequest; }
    SuspendNode* Node() { return &handle->sRequest.sSuspendNode; }
  };

  void TearDown() override {
    for (Waiter& waiter : waiters_) EXPECT_TRUE(!waiter.handle || Join(waiter.handle));
  }

  int32_t Count() { return Locked([&] { return object_.sSuspendCtrl.i32SuspendCount; }); }

  // Starts a waiter taking from the object and returns once it is parked.
  Waiter& Park(uint32_t wait = LX_WAIT_FOREVER, uint8_t flags = CM_SUSPEND_COUNT_UP) {
    Waiter& waiter = waiters_.emplace_back();
    const int32_t before = Count();
    EXPECT_EQ(Spawn(&waiter.handle, "waiter", [this, &waiter, wait, flags] {
                const uint16_t status = Issue(kTestTake, &handle_, wait, 0, kTestFlagsGiven | flags);
                std::lock_guard lock(mutex_);
                waiter.status = status;
                order_.push_back(&waiter);
              }),
              LX_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return Count() != before; }));
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_SEMAPHORE_WAIT);
    return waiter;
  }

  std::vector<Waiter*> Order() {  // released waiters, in release order
    std::lock_guard lock(mutex_);
    return order_;
  }
  bool Done(Waiter& waiter) { return std::ranges::count(Order(), &waiter) == 1; }
  void AwaitDone(Waiter& waiter) { ASSERT_TRUE(WaitUntil([&] { return Done(waiter); })); }

  TestObject object_;
  TestObject* handle_ = &object_;
  std::mutex mutex_;
  std::vector<Waiter*> order_;
  std::deque<Waiter> waiters_;
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
  EXPECT_EQ(Order(), (std::vector<Waiter*>{&front, &a, &b}));
  for (Waiter* w : Order()) {
    EXPECT_EQ(w->status, LX_SUCCESS);
    EXPECT_EQ(StateOf(w->handle), LX_STATE_READY);
  }
}

TEST_F(SuspendListTest, NegativeCountsMoveTowardZeroAndReleaseAllFreesEveryone) {
  Waiter &a = Park(LX_WAIT_FOREVER, 0), &b = Park(LX_WAIT_FOREVER, 0), &c = Park(LX_WAIT_FOREVER, 0);
  EXPECT_EQ(Count(), -3);
  Issue(kTestRemove, &handle_, LX_NO_WAIT, LX_QUEUE_EMPTY, CM_REMOVE_WITH_STATUS, b.Node());
  AwaitDone(b);
  EXPECT_EQ(b.status, LX_QUEUE_EMPTY);
  Locked([&] {  // the middle node went; the others stay linked in order
    EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, -2);
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, a.Node());
    EXPECT_EQ(a.Node()->psNext, c.Node());
    EXPECT_EQ(c.Node()->psPrev, a.Node());
    --object_.sSuspendCtrl.i32SuspendCount;  // now overstates the list by one
  });
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED), LX_SUCCESS);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "psSuspendCtrl->psFirstSuspend NULL in CM_WakeUpAllThreadInSuspendList");
  AwaitDone(a);
  AwaitDone(c);
  EXPECT_EQ(a.status, LX_DELETED);
  EXPECT_EQ(c.status, LX_DELETED);
  EXPECT_EQ(Count(), 0);
}

TEST_F(SuspendListTest, FiniteWaitsAreRegisteredOnceUntilReleased) {
  Waiter &forever = Park(), &a = Park(40), &b = Park(40);
  EXPECT_EQ(Peek(forever.Request()->u64InSleepAgent), 0u);
  // Unlinking b and adding it at the front neither wakes nor registers it again.
  Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, b.Node());
  EXPECT_EQ(Count(), 3);
  EXPECT_FALSE(Done(b));
  EXPECT_EQ(Peek(b.Request()->u64InSleepAgent), 1u);
  Locked([&] {
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, b.Node());
    EXPECT_EQ(S_psSleepTop, a.Request());
    EXPECT_EQ(S_psSleepTop->psSleepNext, b.Request());
    EXPECT_EQ(S_psSleepEnd, b.Request());
  });
  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_SUCCESS, b.Node());
  AwaitDone(b);
  EXPECT_EQ(b.status, LX_SUCCESS);
  EXPECT_EQ(Peek(b.Request()->u64InSleepAgent), 0u);
  EXPECT_EQ(Locked([] { return S_psSleepEnd; }), a.Request());
  Issue(kTestGive, &handle_);
  AwaitDone(forever);
  EXPECT_FALSE(Done(a));
  // Aborting the only node left empties both ends and the sleep list.
  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_ABORTED, a.Node());
  AwaitDone(a);
  EXPECT_EQ(a.status, LX_WAIT_ABORTED);
  Locked([&] {
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, nullptr);
    EXPECT_EQ(object_.sSuspendCtrl.psLastSuspend, nullptr);
    EXPECT_EQ(object_.sSuspendCtrl.i32SuspendCount, 0);
    EXPECT_EQ(S_psSleepTop, nullptr);
  });
}

}  // namespace
}  // namespace quorvin::test

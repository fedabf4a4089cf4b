// Suspend lists, exercised through the test-only class the way every object
// class uses them: park, release one (modes 0 to 3), release all.
#include <deque>
#include <mutex>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;

// Reads list state under the component-manager lock.
template <typename F>
auto Locked(F&& read) {
  std::lock_guard lock(CmLock());
  return read();
}

class SuspendListTest : public KernelTest {
 protected:
  struct Waiter {
    LX_THREAD handle = nullptr;
    uint16_t status = 0xFFFF;
    bool done = false;
  };

  // Waiters live on the test's stack: let every one finish before it ends.
  Waiter& NewWaiter() { return waiters_.emplace_back(); }

  void TearDown() override {
    for (LX_THREAD* thread : spawned_) EXPECT_TRUE(Join(*thread));
  }

  int32_t Count() { return Locked([&] { return object_.sSuspendCtrl.i32SuspendCount; }); }

  // Starts a thread that takes from the object with the given wait and flags
  // and waits until it is parked (the list's count has moved by one).
  void Park(Waiter& waiter, uint32_t wait = LX_WAIT_FOREVER, uint8_t flags = CM_SUSPEND_COUNT_UP) {
    const int32_t before = Count();
    spawned_.push_back(&waiter.handle);
    ASSERT_EQ(Spawn(&waiter.handle, "waiter", [this, &waiter, wait, flags] {
                const uint16_t status = Issue(kTestTake, &handle_, wait, 0, kTestFlagsGiven | flags);
                std::lock_guard lock(mutex_);
                waiter.status = status;
                waiter.done = true;
                order_.push_back(&waiter);
              }),
              LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return Count() != before; }));
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_SEMAPHORE_WAIT);
  }

  bool Done(const Waiter& waiter) {
    std::lock_guard lock(mutex_);
    return waiter.done;
  }
  std::vector<Waiter*> Order() {
    std::lock_guard lock(mutex_);
    return order_;
  }

  TestObject object_;
  TestObject* handle_ = &object_;
  std::mutex mutex_;
  std::vector<Waiter*> order_;
  std::vector<LX_THREAD*> spawned_;
  std::deque<Waiter> waiters_;
};

TEST_F(SuspendListTest, AppendedWaitersAreReleasedInArrivalOrder) {
  Waiter &a = NewWaiter(), &b = NewWaiter(), &c = NewWaiter();
  Park(a);
  Park(b);
  Park(c);
  EXPECT_EQ(Count(), 3);
  for (int32_t left : {2, 1, 0}) {
    ASSERT_EQ(Issue(kTestGive, &handle_), LX_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return Order().size() == static_cast<size_t>(3 - left); }));
    EXPECT_EQ(Count(), left);
  }
  EXPECT_EQ(Order(), (std::vector<Waiter*>{&a, &b, &c}));
  for (Waiter* w : {&a, &b, &c}) {
    EXPECT_EQ(w->status, LX_SUCCESS);
    EXPECT_EQ(StateOf(w->handle), LX_STATE_READY);
  }
}

TEST_F(SuspendListTest, FrontInsertIsReleasedFirst) {
  Waiter &a = NewWaiter(), &b = NewWaiter(), &front = NewWaiter();
  Park(a);
  Park(b);
  Park(front, LX_WAIT_FOREVER, CM_SUSPEND_AT_FRONT | CM_SUSPEND_COUNT_UP);
  EXPECT_EQ(Count(), 3);
  EXPECT_EQ(Locked([&] { return object_.sSuspendCtrl.psFirstSuspend; }), &front.handle->sRequest.sSuspendNode);
  ASSERT_EQ(Issue(kTestGive, &handle_), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return Done(front); }));
  EXPECT_FALSE(Done(a));
  EXPECT_FALSE(Done(b));
  Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED);
}

TEST_F(SuspendListTest, NegativeCountsMoveTowardZeroAndReleaseAllFreesEveryone) {
  Waiter &a = NewWaiter(), &b = NewWaiter(), &c = NewWaiter();
  Park(a, LX_WAIT_FOREVER, 0);
  Park(b, LX_WAIT_FOREVER, 0);
  Park(c, LX_WAIT_FOREVER, 0);
  EXPECT_EQ(Count(), -3);
  Issue(kTestRemove, &handle_, LX_NO_WAIT, LX_QUEUE_EMPTY, CM_REMOVE_WITH_STATUS,
        &b.handle->sRequest.sSuspendNode);
  ASSERT_TRUE(WaitUntil([&] { return Done(b); }));
  EXPECT_EQ(b.status, LX_QUEUE_EMPTY);
  EXPECT_EQ(Count(), -2);
  // The middle node went; the others keep their order.
  Locked([&] {
    EXPECT_EQ(object_.sSuspendCtrl.psFirstSuspend, &a.handle->sRequest.sSuspendNode);
    EXPECT_EQ(a.handle->sRequest.sSuspendNode.psNext, &c.handle->sRequest.sSuspendNode);
    EXPECT_EQ(c.handle->sRequest.sSuspendNode.psPrev, &a.handle->sRequest.sSuspendNode);
    return 0;
  });

  ASSERT_EQ(Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([&] { return Done(a) && Done(c); }));
  EXPECT_EQ(a.status, LX_DELETED);
  EXPECT_EQ(c.status, LX_DELETED);
  EXPECT_EQ(Count(), 0);
}

TEST_F(SuspendListTest, RemovingTheOnlyNodeEmptiesBothEnds) {
  Waiter &a = NewWaiter();
  Park(a);
  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_ABORTED, &a.handle->sRequest.sSuspendNode);
  ASSERT_TRUE(WaitUntil([&] { return Done(a); }));
  EXPECT_EQ(a.status, LX_WAIT_ABORTED);
  EXPECT_EQ(Locked([&] { return object_.sSuspendCtrl.psFirstSuspend; }), nullptr);
  EXPECT_EQ(Locked([&] { return object_.sSuspendCtrl.psLastSuspend; }), nullptr);
  EXPECT_EQ(Count(), 0);
}

TEST_F(SuspendListTest, NoWaitCompletesAtOnceWithTheUnsatisfiedStatus) {
  EXPECT_EQ(Issue(kTestTake, &handle_, LX_NO_WAIT), kTestTimeoutStatus);
  EXPECT_EQ(Count(), 0);
  EXPECT_EQ(StateOf(*_lx_ThreadIdentify()), LX_STATE_READY);
  EXPECT_EQ(Locked([] { return quorvin::detail::S_psSleepTop; }), nullptr);
  Issue(kTestGive, &handle_);
  EXPECT_EQ(Issue(kTestTake, &handle_, LX_NO_WAIT), LX_SUCCESS);
}

TEST_F(SuspendListTest, OnlyFiniteWaitsAreRegisteredAndReleaseDeregisters) {
  Waiter &forever = NewWaiter(), &finite = NewWaiter();
  Park(forever);
  EXPECT_EQ(Locked([] { return quorvin::detail::S_psSleepTop; }), nullptr);
  EXPECT_EQ(Peek(forever.handle->sRequest.u64InSleepAgent), 0u);
  Park(finite, 50);
  CmServiceRequest* registered = &finite.handle->sRequest;
  EXPECT_EQ(Locked([] { return quorvin::detail::S_psSleepTop; }), registered);
  EXPECT_EQ(Locked([] { return quorvin::detail::S_psSleepEnd; }), registered);
  EXPECT_EQ(Peek(registered->u64InSleepAgent), 1u);

  Issue(kTestRemove, &handle_, LX_NO_WAIT, 0, CM_REMOVE_SUCCESS, &registered->sSuspendNode);
  ASSERT_TRUE(WaitUntil([&] { return Done(finite); }));
  EXPECT_EQ(Locked([] { return quorvin::detail::S_psSleepTop; }), nullptr);
  EXPECT_EQ(Peek(registered->u64InSleepAgent), 0u);
  Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED);
}

TEST_F(SuspendListTest, UnlinkOnlyNeitherWakesNorDeregisters) {
  Waiter &a = NewWaiter(), &b = NewWaiter();
  Park(a, 40);
  Park(b, 40);
  SuspendNode* node = &b.handle->sRequest.sSuspendNode;
  // Unlink b without releasing it, then add it again at the front.
  Issue(kTestMoveToFront, &handle_, LX_NO_WAIT, 0, 0, node);
  EXPECT_EQ(Count(), 2);
  EXPECT_EQ(Locked([&] { return object_.sSuspendCtrl.psFirstSuspend; }), node);
  EXPECT_FALSE(Done(b));
  EXPECT_EQ(Peek(b.handle->sRequest.u64InSleepAgent), 1u);
  // Still registered once: the sleep list holds a then b, nothing more.
  Locked([&] {
    EXPECT_EQ(quorvin::detail::S_psSleepTop, &a.handle->sRequest);
    EXPECT_EQ(quorvin::detail::S_psSleepTop->psSleepNext, &b.handle->sRequest);
    EXPECT_EQ(quorvin::detail::S_psSleepEnd, &b.handle->sRequest);
    return 0;
  });
  Issue(kTestGive, &handle_);
  ASSERT_TRUE(WaitUntil([&] { return Done(b); }));
  EXPECT_FALSE(Done(a));
  Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED);
}

TEST_F(SuspendListTest, ReleaseAllStopsWithAMessageWhenTheCountOverstatesTheList) {
  Waiter &a = NewWaiter();
  Park(a);
  Locked([&] { return ++object_.sSuspendCtrl.i32SuspendCount; });
  ::testing::internal::CaptureStderr();
  Issue(kTestReleaseAll, &handle_, LX_NO_WAIT, LX_DELETED);
  const std::string message = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(message, "psSuspendCtrl->psFirstSuspend NULL in CM_WakeUpAllThreadInSuspendList");
  ASSERT_TRUE(WaitUntil([&] { return Done(a); }));
  EXPECT_EQ(a.status, LX_DELETED);
  EXPECT_EQ(Count(), 0);
}

}  // namespace
}  // namespace quorvin::test

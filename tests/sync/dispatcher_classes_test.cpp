// The dispatcher's semaphore (0x70) and event-flag (0x30) classes, reached
// through requests; time is counted in sleep-agent passes.
#include <cstdlib>
#include <mutex>
#include <tuple>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

class DispatcherClassTest : public KernelTest {
 protected:
  void TearDown() override { waiters_.JoinAll(); }
  // A thread whose request is parked on list when this returns.
  Waiter& Park(const SuspendCtrl& list, uint16_t service, void* object, uint32_t wait, uint64_t value = 0,
               uint64_t option = 0, uint32_t* data = nullptr, uint16_t priority = 32) {
    return waiters_.StartOn(list, [=] { return Issue(service, object, wait, value, option, data); }, priority);
  }
  Waiters waiters_;
};

class SemaphoreClassTest : public DispatcherClassTest {
 protected:
  void SetUp() override {
    DispatcherClassTest::SetUp();
    block_ = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
    block_->u32Ceiling = 2;
  }
  void TearDown() override {
    DispatcherClassTest::TearDown();
    if (block_ != nullptr) {
      EXPECT_EQ(Issue(CM_SEMAPHORE_DELETE, &block_), LX_SUCCESS);
    }
  }
  Waiter& Get(uint32_t wait, uint16_t priority = 32) {
    return Park(block_->sSuspendCtrl, CM_SEMAPHORE_GET, &block_, wait, 0, 0, nullptr, priority);
  }
  uint32_t Count() {
    std::lock_guard lock(CmLock());
    return block_->u32Count;
  }
  CmSemaphoreControlBlock* block_ = nullptr;
};

TEST_F(SemaphoreClassTest, PutsStopAtTheCeilingAndHandTheirCountToTheFirstWaiter) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Issue(CM_SEMAPHORE_PUT, &block_), LX_SUCCESS);
  EXPECT_EQ(Count(), 2u);
  EXPECT_EQ(Issue(CM_SEMAPHORE_GET, &block_, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(Issue(CM_SEMAPHORE_GET, &block_, LX_WAIT_FOREVER), LX_SUCCESS);
  EXPECT_EQ(Issue(CM_SEMAPHORE_GET, &block_, LX_NO_WAIT), LX_NO_INSTANCE);
  Waiter& first = Get(LX_WAIT_FOREVER);
  Waiter& second = Get(LX_WAIT_FOREVER);
  EXPECT_EQ(StateOf(first.handle), LX_STATE_SEMAPHORE_WAIT);
  EXPECT_EQ(Issue(CM_SEMAPHORE_PUT, &block_), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(first), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Count(), second.Done(), FirstWaiter(block_->sSuspendCtrl)),
            std::tuple(0u, false, &second.handle));
  EXPECT_EQ(Issue(CM_SEMAPHORE_PUT, &block_), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(second), LX_SUCCESS);
  EXPECT_EQ(Count(), 0u);
}

TEST_F(SemaphoreClassTest, WaitsTimeOutOnTheirPassOrAreAbortedOrLeaveNothingWhenTerminated) {
  Waiter& timed = Get(3);
  Timer().RunPasses(3);
  EXPECT_FALSE(timed.Done());
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(timed), LX_NO_INSTANCE);
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_READY);
  Waiter& aborted = Get(LX_WAIT_FOREVER);
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(aborted), LX_WAIT_ABORTED);
  Waiter& terminated = Get(50);
  EXPECT_EQ(SleepAgentEntries(), 1u);
  EXPECT_EQ(_lx_ThreadTerminate(&terminated.handle), LX_SUCCESS);
  EXPECT_TRUE(WaitUntil([&] { return Waiting(block_->sSuspendCtrl) == 0 && SleepAgentEntries() == 0; }));
  waiters_.JoinAll();  // the terminated thread ends too
  Timer().Run([&] { EXPECT_EQ(Issue(CM_SEMAPHORE_GET, &block_, 5), LX_WAIT_ERROR); });
  EXPECT_EQ(Waiting(block_->sSuspendCtrl), 0);
}

TEST_F(SemaphoreClassTest, PrioritizeMovesTheWaiterNearestTheLastEndAmongTheHighestToTheFront) {
  Waiter& at31 = Get(LX_WAIT_FOREVER, 31);
  Get(LX_WAIT_FOREVER, 32);
  EXPECT_EQ(Issue(CM_SEMAPHORE_PRIORITIZE, &block_), LX_NOT_AVAILABLE);
  EXPECT_EQ(FirstWaiter(block_->sSuspendCtrl), &at31.handle);
  Get(LX_WAIT_FOREVER, 10);
  Waiter& moved = Get(4, 10);  // ties with the one before it: the later one wins
  Timer().RunPasses(1);
  EXPECT_EQ(Issue(CM_SEMAPHORE_PRIORITIZE, &block_), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(block_->sSuspendCtrl), &moved.handle);
  EXPECT_EQ(SleepAgentEntries(), 1u);
  Timer().RunPasses(3);
  EXPECT_FALSE(moved.Done());
  Timer().RunPasses(1);  // the pass it would have expired on without the move
  EXPECT_EQ(Waiters::StatusOf(moved), LX_NO_INSTANCE);
  EXPECT_EQ(Waiting(block_->sSuspendCtrl), 3);
  EXPECT_EQ(Issue(CM_SEMAPHORE_DELETE, &block_), LX_SUCCESS);  // releases the other three
  block_ = nullptr;
}

TEST_F(SemaphoreClassTest, DeleteReleasesEveryWaiterAndUnknownOperationsChangeNothing) {
  Waiter& forever = Get(LX_WAIT_FOREVER);
  Waiter& timed = Get(20);
  EXPECT_EQ(Issue(CM_SEMAPHORE_DELETE, &block_), LX_SUCCESS);
  block_ = nullptr;
  EXPECT_EQ(std::tuple(Waiters::StatusOf(forever), Waiters::StatusOf(timed)), std::tuple(1u, 1u));
  EXPECT_EQ(SleepAgentEntries(), 0u);
  block_ = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
  block_->u32Ceiling = 5;
  block_->u32Count = 1;
  for (uint16_t code : {0x70, 0x71, 0x74, 0x77, 0x7F}) EXPECT_EQ(Issue(code, &block_), LX_NOT_AVAILABLE) << code;
  EXPECT_EQ(Count(), 1u);
  CmSemaphoreControlBlock* none = nullptr;
  for (uint16_t code : {CM_SEMAPHORE_GET, CM_SEMAPHORE_PUT, CM_SEMAPHORE_DELETE, CM_SEMAPHORE_PRIORITIZE}) {
    EXPECT_EQ(Issue(code, &none), LX_SEMAPHORE_ERROR);
    EXPECT_EQ(Issue(code, nullptr), LX_SEMAPHORE_ERROR);
  }
}

class EventFlagsClassTest : public DispatcherClassTest {
 protected:
  void SetUp() override {
    DispatcherClassTest::SetUp();
    ASSERT_EQ(_lx_EventFlagsCreate(&group_, "class"), LX_SUCCESS);
    list_ = &group_->sSuspendCtrl;
  }
  uint16_t Set(uint64_t flags, uint64_t option = LX_OR) {
    return Issue(CM_EVENT_FLAGS_SET, &group_, LX_NO_WAIT, flags, option);
  }
  uint16_t Get(uint64_t requested, uint64_t option, uint32_t* actual, uint32_t wait = LX_NO_WAIT) {
    return Issue(CM_EVENT_FLAGS_GET, &group_, wait, requested, option, actual);
  }
  Waiter& Wait(uint64_t requested, uint64_t option, uint32_t* actual, uint32_t wait = LX_WAIT_FOREVER) {
    return Park(*list_, CM_EVENT_FLAGS_GET, &group_, wait, requested, option, actual);
  }
  uint32_t Flags() const { return Peek(group_->u32CurrentFlags); }
  LX_EVENT_FLAGS group_ = nullptr;
  SuspendCtrl* list_ = nullptr;
};

TEST_F(EventFlagsClassTest, TheClassRuleTakesZeroAndHighBitsLiterallyAndClearsEveryFlag) {
  uint32_t actual = 0;
  ASSERT_EQ(Set(0x6), LX_SUCCESS);
  EXPECT_EQ(Get(0x2, 1, &actual), LX_SUCCESS);
  EXPECT_EQ(std::tuple(actual, Flags()), std::tuple(0x6u, 0u));
  EXPECT_EQ(Get(0, 2, &actual), LX_SUCCESS);  // all of nothing: at once
  EXPECT_EQ(Get(0, 0, &actual), LX_NO_EVENTS);
  ASSERT_EQ(Set(0xFFFFFFFF), LX_SUCCESS);
  EXPECT_EQ(Get(0x100000001ull, 2, &actual), LX_NO_EVENTS);  // bit 32 is never set
  EXPECT_EQ(Get(0x100000001ull, 0, &actual), LX_SUCCESS);
  EXPECT_EQ(Set(0x0F, 0x10002), LX_SUCCESS);  // the option's low 16 bits: AND
  EXPECT_EQ(Flags(), 0x0Fu);
  EXPECT_EQ(Get(0x1, 0, nullptr), LX_PTR_ERROR);
  CmServiceRequest check{};
  check.pvObject = &group_;
  check.u64Value = 0x30;
  check.u64Option = 0;
  CM_EventFlagsStatusChecking(&check);
  EXPECT_EQ(check.u16Status, LX_NO_EVENTS);
  check.u64Value = 0x3;
  check.u64Option = 2;
  CM_EventFlagsStatusChecking(&check);
  EXPECT_EQ(std::tuple(check.u16Status, Flags()), std::tuple(LX_SUCCESS, 0x0Fu));
}

TEST_F(EventFlagsClassTest, ASetReleasesSatisfiedWaitersInListOrderEvenWithABadOption) {
  uint32_t a = 0, b = 0, c = 0;
  Waiter& clearing = Wait(0x1, 1, &a);
  Waiter& plain = Wait(0x1, 0, &b);
  EXPECT_EQ(StateOf(clearing.handle), LX_STATE_EVENT_FLAGS_WAIT);
  ASSERT_EQ(Set(0x1), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(clearing), LX_SUCCESS);
  EXPECT_EQ(std::tuple(a, Flags(), plain.Done()), std::tuple(0x1u, 0u, false));
  Waiter& all = Wait(0x4, 2, &c);
  ASSERT_EQ(Set(0x1), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(plain), LX_SUCCESS);
  EXPECT_EQ(std::tuple(b, all.Done(), Waiting(*list_)), std::tuple(0x1u, false, 1));
  // The direct side neither sees nor wakes this class's waiters ...
  ASSERT_EQ(_lx_EventFlagsSet(&group_, 0x4, LX_OR), LX_SUCCESS);
  EXPECT_FALSE(all.Done());
  // ... but the next set of this class does, even one refused for its option.
  EXPECT_EQ(Set(0x8, 1), LX_OPTION_ERROR);
  EXPECT_EQ(Waiters::StatusOf(all), LX_SUCCESS);
  EXPECT_EQ(std::tuple(c, Flags()), std::tuple(0x5u, 0x5u));
}

TEST_F(EventFlagsClassTest, WaitsTimeOutAreAbortedOrEndWithTheDeleteAfterWhichTheGroupIsGone) {
  uint32_t a = 0, b = 0, c = 0;
  Waiter& timed = Wait(0x1, 0, &a, 2);
  Timer().RunPasses(3);
  EXPECT_EQ(Waiters::StatusOf(timed), LX_NO_EVENTS);
  Waiter& aborted = Wait(0x1, 0, &a);
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(aborted), LX_WAIT_ABORTED);
  Waiter& forever = Wait(0x1, 0, &b);
  Waiter& finite = Wait(0x1, 0, &c, 30);
  for (uint16_t code : {0x30, 0x31, 0x34, 0x36, 0x3F}) EXPECT_EQ(Issue(code, &group_), LX_NOT_AVAILABLE) << code;
  LX_EVENT_FLAGS* handle = &group_;
  EXPECT_EQ(Issue(CM_EVENT_FLAGS_DELETE, handle), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(forever), Waiters::StatusOf(finite)), std::tuple(1u, 1u));
  EXPECT_EQ(std::tuple(group_, SleepAgentEntries()), std::tuple(nullptr, size_t{0}));
  EXPECT_EQ(std::tuple(Set(0x1), Get(0x1, 0, &a), Issue(CM_EVENT_FLAGS_DELETE, handle)),
            std::tuple(LX_GROUP_ERROR, LX_GROUP_ERROR, LX_GROUP_ERROR));
  EXPECT_EQ(_lx_EventFlagsSet(handle, 0x1, LX_OR), LX_GROUP_ERROR);
  EXPECT_EQ(_lx_EventFlagsGet(handle, 0x1, LX_OR, &a, LX_NO_WAIT), LX_GROUP_ERROR);
  EXPECT_EQ(_lx_EventFlagsCreate(handle, "again"), LX_SUCCESS);  // the slot was given back
  EXPECT_EQ(Set(0x1), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test

// The dispatcher's classes reached through their services or through requests:
// mutexes (hand-over order, ownership, time-outs, aborts, prioritize, delete, the
// registry and who may call), the semaphore (0x70) and event-flag (0x30)
// classes; time is counted in sleep-agent passes.
#include <atomic>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

struct Info {
  char* name = nullptr;
  uint32_t count = 0xFFFF, suspended = 0xFFFF;
  LX_THREAD* owner = nullptr;
  SuspendNode* first = nullptr;
  LX_MUTEX* next = reinterpret_cast<LX_MUTEX*>(0x5a5a);  // never written
};

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

class MutexTest : public DispatcherClassTest {
 protected:
  void TearDown() override {
    DispatcherClassTest::TearDown();
    for (LX_MUTEX& mutex : mutexes_) EXPECT_TRUE(mutex == nullptr || _lx_MutexDelete(&mutex) == LX_SUCCESS);
  }
  LX_MUTEX& NewMutex(uint16_t inherit, bool own = true) {
    LX_MUTEX& mutex = mutexes_.emplace_back();
    EXPECT_EQ(_lx_MutexCreate(&mutex, "m", inherit), LX_SUCCESS);
    EXPECT_TRUE(!own || _lx_MutexGet(&mutex, LX_NO_WAIT) == LX_SUCCESS);
    return mutex;
  }
  // A thread that asks for the mutex (after taking it once itself, if ownerFirst); returns once it is parked.
  Waiter& Wait(LX_MUTEX& mutex, uint16_t priority = 32, uint32_t wait = LX_WAIT_FOREVER, bool ownerFirst = false) {
    Waiter& waiter = waiters_.StartOn(mutex->sSuspendCtrl, [&mutex, wait, ownerFirst] {
      if (ownerFirst) _lx_MutexGet(&mutex, LX_NO_WAIT);
      return _lx_MutexGet(&mutex, wait);
    }, priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_MUTEX_WAIT);
    return waiter;
  }
  static uint32_t StatusOf(const Waiter& waiter) { return Waiters::StatusOf(waiter); }
  static int32_t Waiting(LX_MUTEX mutex) { return test::Waiting(mutex->sSuspendCtrl); }
  static Info InfoOf(LX_MUTEX& mutex, LX_STATUS expected = LX_SUCCESS) {
    Info i;
    EXPECT_EQ(_lx_MutexInfoGet(&mutex, &i.name, &i.count, &i.owner, &i.first, &i.suspended, &i.next), expected);
    EXPECT_EQ(i.next, Info{}.next);
    return i;
  }
  static LX_THREAD* FirstWaiter(LX_MUTEX& mutex) {
    const SuspendNode* first = InfoOf(mutex).first;
    return first != nullptr ? first->psOwner : nullptr;
  }

  std::deque<LX_MUTEX> mutexes_;
};

TEST_F(MutexTest, PutHandsOverToTheLongestWaiterOrWithInheritToTheHighestPriority) {
  for (auto [inherit, priorityA, priorityB, toB] : {std::tuple{0, 10, 5, false}, {1, 10, 5, true}, {1, 5, 5, true},
                                                    {1, 31, 32, true}}) {
    SCOPED_TRACE(testing::Message() << "inherit " << inherit << ", A " << priorityA << ", B " << priorityB);
    LX_MUTEX& mutex = NewMutex(inherit);
    Waiter& a = Wait(mutex, priorityA);
    Waiter& b = Wait(mutex, priorityB);
    Waiter &first = toB ? b : a, &second = toB ? a : b;
    const Info info = InfoOf(mutex);
    EXPECT_EQ(std::tuple(info.owner, info.count, info.suspended), std::tuple(_lx_ThreadIdentify(), 3u, 2u));
    EXPECT_EQ(FirstWaiter(mutex), &a.handle);
    ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);  // the hand-over is done when the put returns
    EXPECT_EQ(InfoOf(mutex).owner, &first.handle);
    EXPECT_EQ(FirstWaiter(mutex), &second.handle);
    EXPECT_EQ(StatusOf(first), LX_SUCCESS);
    ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);  // not the owner: released all the same
    EXPECT_EQ(InfoOf(mutex).owner, &second.handle);
    EXPECT_EQ(StatusOf(second), LX_SUCCESS);
    ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);
    EXPECT_EQ(std::tuple(InfoOf(mutex).owner, InfoOf(mutex).count), std::tuple(nullptr, 1u));
  }
}

TEST_F(MutexTest, OwnerWaitsTooAndAFiniteWaitTimesOutOnThePassAfterItsTicksOrIsAborted) {
  LX_MUTEX& mutex = NewMutex(0);
  EXPECT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_NOT_AVAILABLE);  // the owner too: no count
  EXPECT_EQ(Waiting(mutex), 0);
  Waiter& late = Wait(mutex, 32, 5);
  Timer().RunPasses(5);
  EXPECT_EQ(Waiting(mutex), 1);
  Timer().RunPasses(1);  // returns after the dispatcher has handled the expiry
  EXPECT_EQ(Waiting(mutex), 0);
  EXPECT_EQ(StateOf(late.handle), LX_STATE_READY);
  EXPECT_EQ(StatusOf(late), LX_NOT_AVAILABLE);
  Waiter& aborted = Wait(mutex, 32, 5);
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(StatusOf(aborted), LX_WAIT_ABORTED);
  EXPECT_TRUE(Waiting(mutex) == 0 && SleepAgentEntries() == 0u);
  EXPECT_EQ(InfoOf(mutex).owner, _lx_ThreadIdentify());
  ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);
  Waiter& owner = Wait(mutex, 32, LX_WAIT_FOREVER, true);  // owns it, then asks again
  ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);
  EXPECT_EQ(StatusOf(owner), LX_SUCCESS);
  EXPECT_EQ(InfoOf(mutex).owner, &owner.handle);
}

TEST_F(MutexTest, PrioritizeMovesTheHighestPriorityWaiterBelow31ToTheFrontWithItsTicks) {
  LX_MUTEX& low = NewMutex(0);
  Waiter& at31 = Wait(low, 31);
  Wait(low, 32);
  EXPECT_EQ(_lx_MutexPrioritize(&low), LX_NOT_AVAILABLE);
  EXPECT_EQ(FirstWaiter(low), &at31.handle);
  // A (20, forever) then B (10, 4 ticks): B goes first and keeps its ticks.
  LX_MUTEX& mutex = NewMutex(0);
  Waiter& a = Wait(mutex, 20);
  Waiter& b = Wait(mutex, 10, 4);
  Timer().RunPasses(1);
  EXPECT_EQ(_lx_MutexPrioritize(&mutex), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(mutex), &b.handle);
  EXPECT_EQ(LoadWaitOption(b.handle->sRequest), 3u);
  EXPECT_EQ(SleepAgentEntries(), 1u);
  Timer().RunPasses(3);
  EXPECT_EQ(Waiting(mutex), 2);
  Timer().RunPasses(1);  // the fifth pass after it was parked, as without the move
  EXPECT_EQ(Waiting(mutex), 1);
  EXPECT_EQ(StatusOf(b), LX_NOT_AVAILABLE);
  Waiter& c = Wait(mutex, 5);
  EXPECT_EQ(_lx_MutexPrioritize(&mutex), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexPut(&mutex), LX_SUCCESS);  // no inherit: to the front waiter
  EXPECT_EQ(InfoOf(mutex).owner, &c.handle);
  for (LX_MUTEX* m : {&low, &low, &mutex, &mutex}) ASSERT_EQ(_lx_MutexPut(m), LX_SUCCESS);
  EXPECT_EQ(StatusOf(a), LX_SUCCESS);
}

TEST_F(MutexTest, DeleteReleasesEveryWaiterWithDeletedAndRetiresTheHandle) {
  LX_MUTEX& mutex = NewMutex(1);
  Waiter& forever = Wait(mutex, 10);
  Waiter& timed = Wait(mutex, 20, 50);
  EXPECT_EQ(_lx_MutexDelete(&mutex), LX_SUCCESS);
  EXPECT_EQ(mutex, nullptr);
  EXPECT_EQ(StatusOf(forever), LX_DELETED);
  EXPECT_EQ(StatusOf(timed), LX_DELETED);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  for (LX_STATUS s : {_lx_MutexGet(&mutex, LX_NO_WAIT), _lx_MutexPut(&mutex), _lx_MutexPrioritize(&mutex),
                      _lx_MutexDelete(&mutex)}) EXPECT_EQ(s, LX_MUTEX_ERROR);
  InfoOf(mutex, LX_MUTEX_ERROR);
}

TEST_F(MutexTest, RequestsQueuedBehindADeleteInOnePassFindNoMutex) {
  // They passed their callers' checks while the mutex existed; the dispatcher
  // must neither park them on the freed block nor free it twice.
  LX_MUTEX& mutex = NewMutex(0, false);
  CmServiceRequest requests[4] = {};
  const uint16_t codes[4] = {CM_MUTEX_DELETE, CM_MUTEX_GET, CM_MUTEX_PUT, CM_MUTEX_DELETE};
  bool wake = false;
  {
    std::lock_guard lock(CmLock());  // all four are served in one pass
    for (int i = 0; i < 4; ++i) {
      requests[i].u16Service = codes[i];
      requests[i].psThread = _lx_ThreadIdentify();
      requests[i].pvObject = &mutex;
      wake |= EnqueueLocked(requests[i]) == Enqueued::kWakeDispatcher;
    }
  }
  if (wake) WakeDispatcher();
  for (CmServiceRequest& request : requests) AwaitCompletion(request);
  EXPECT_EQ(mutex, nullptr);
  EXPECT_EQ(requests[0].u16Status, LX_SUCCESS);
  for (int i = 1; i < 4; ++i) EXPECT_EQ(requests[i].u16Status, LX_MUTEX_ERROR) << i;
}

TEST_F(MutexTest, RegistryRefusesBadCreationsAndMissingOutputsAndHoldsFiftyMutexes) {
  static LX_MUTEX many[51];
  EXPECT_EQ(_lx_MutexCreate(nullptr, "x", 0), LX_MUTEX_ERROR);
  EXPECT_EQ(_lx_MutexCreate(&many[50], "x", 2), LX_INHERIT_ERROR);
  EXPECT_EQ(_lx_MutexGet(&many[50], LX_NO_WAIT), LX_MUTEX_ERROR);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_MutexCreate(&many[i], "ABCDEFGHIJKLMNOPQRSTUVWXY", 0), LX_SUCCESS) << i;
  EXPECT_STREQ(InfoOf(many[0]).name, "ABCDEFGHIJKLMNOPQRS");
  Info o;
  EXPECT_EQ(_lx_MutexInfoGet(&many[0], nullptr, &o.count, &o.owner, &o.first, &o.suspended, &o.next), LX_PTR_ERROR);
  EXPECT_EQ(_lx_MutexInfoGet(&many[0], &o.name, &o.count, &o.owner, &o.first, &o.suspended, nullptr), LX_PTR_ERROR);
  EXPECT_EQ(_lx_MutexCreate(&many[50], "full", 0), LX_MUTEX_ERROR);
  EXPECT_EQ(many[50], nullptr);
  ASSERT_EQ(_lx_MutexDelete(&many[7]), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexCreate(&many[50], "reused", 0), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexGet(&many[50], LX_NO_WAIT), LX_SUCCESS);
}

TEST_F(MutexTest, TimerThreadAndOutsideThreadsAreRefusedWhatCouldMakeThemWait) {
  LX_MUTEX& mutex = NewMutex(0, false);
  std::thread([&] {
    for (LX_STATUS s : {_lx_MutexGet(&mutex, LX_NO_WAIT), _lx_MutexPut(&mutex), _lx_MutexPrioritize(&mutex),
                        _lx_MutexDelete(&mutex)}) EXPECT_EQ(s, LX_MUTEX_ERROR);
  }).join();
  static LX_MUTEX fromTimer = nullptr;
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {_lx_MutexGet(&mutex, LX_NO_WAIT), _lx_MutexPut(&mutex), _lx_MutexDelete(&mutex),
                      _lx_MutexCreate(&fromTimer, "timer", 0), _lx_MutexPrioritize(&mutex)};
            }),
            (Statuses{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_CALLER_ERROR, 0, 0}));
  EXPECT_EQ(_lx_MutexGet(&fromTimer, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);  // left free and registered
  EXPECT_EQ(Issue(0x54, &mutex), LX_NOT_AVAILABLE);  // an operation the class does not know
}

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
  Waiter& moved = Get(LX_WAIT_FOREVER, 10);  // ties with the one before it: the later one wins
  EXPECT_EQ(Issue(CM_SEMAPHORE_PRIORITIZE, &block_), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(block_->sSuspendCtrl), &moved.handle);
  EXPECT_EQ(Issue(CM_SEMAPHORE_DELETE, &block_), LX_SUCCESS);  // releases all four
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

// Mutexes: hand-over order, ownership, time-outs, aborts, prioritize, delete, the registry and who may call.
#include <atomic>
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

class MutexTest : public KernelTest {
 protected:
  void TearDown() override {
    waiters_.JoinAll();
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

  Waiters waiters_;
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
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_MutexGet(&many[i], LX_NO_WAIT), LX_SUCCESS) << i;
  ASSERT_EQ(_lx_MutexDelete(&many[7]), LX_SUCCESS);
  ASSERT_EQ(_lx_MutexCreate(&many[50], "reused", 0), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexGet(&many[50], LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexPut(&many[49]), LX_SUCCESS);  // moved into the freed slot, still found
  EXPECT_EQ(_lx_MutexGet(&many[7], LX_NO_WAIT), LX_MUTEX_ERROR);
}

TEST_F(MutexTest, TimerThreadAndOutsideThreadsAreRefusedWhatCouldMakeThemWait) {
  LX_MUTEX& mutex = NewMutex(0, false);
  std::thread([&] {
    for (LX_STATUS s : {_lx_MutexGet(&mutex, LX_NO_WAIT), _lx_MutexPut(&mutex), _lx_MutexPrioritize(&mutex),
                        _lx_MutexDelete(&mutex)}) EXPECT_EQ(s, LX_MUTEX_ERROR);
  }).join();
  static LX_MUTEX fromTimer = nullptr;
  std::vector<LX_STATUS> statuses;
  Timer().Run([&] {
    statuses = {_lx_MutexGet(&mutex, LX_NO_WAIT), _lx_MutexPut(&mutex), _lx_MutexDelete(&mutex),
                _lx_MutexCreate(&fromTimer, "timer", 0), _lx_MutexPrioritize(&mutex)};
  });
  EXPECT_EQ(statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_CALLER_ERROR, 0, 0}));
  EXPECT_EQ(_lx_MutexGet(&fromTimer, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);  // left free and registered
  EXPECT_EQ(Issue(0x54, &mutex), LX_NOT_AVAILABLE);  // an operation the class does not know
}

}  // namespace
}  // namespace quorvin::test

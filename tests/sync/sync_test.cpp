// Mutexes and the dispatcher's semaphore (0x70) and event-flag (0x30) classes, with time counted in
// sleep-agent passes; and the semaphores and event-flag groups served in the calling thread.
#include <climits>
#include <cstdlib>
#include <random>
#include <tuple>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

struct SyncTest : KernelTest {
  Waiters waiters_;
};

// The dispatcher's waiting classes, each with a get that must wait: its object and list, service codes
// (no prioritize: 0), waiting state and time-out status. A give serves one waiter: a put, or a set of the
// flag that each get asks for and clears.
struct WaitClass {
  void* object;
  const SuspendCtrl& list;
  uint16_t get, give, prioritize, remove, state, timeout;
  bool byPriority;  // a give serves the best priority (the one nearest the last end among equals), else the longest
};

// An application's own class may be built from the exported roles. As class 0xF0 (semaphore put, get, prioritize
// and delete at 0xF0-0xF3; event-flag set, get, check and delete at 0xF4-0xF7) they must answer as the semaphore
// and event-flag requests do: the semaphore class's waits and the second group below go through them.
int32_t (*const g_roles[])(CmServiceRequest*) = {
    CM_SemaphorePut,  CM_SemaphoreGet,  CM_SemaphorePrioritize,      CM_SemaphoreDelete,
    CM_EventFlagsSet, CM_EventFlagsGet, CM_EventFlagsStatusChecking, CM_EventFlagsDelete};
void Roles(uint16_t code, CmServiceRequest* r) {
  g_roles[code & 0xF](r);  // the status check leaves the answer to its caller
  if ((code & 0xF) == 6) CompleteLocked(*r, r->u16Status);
}

TEST_F(SyncTest, ClassWaitsAreServedInOrderTimedOutAbortedMovedAndDeletedAndRequestsBehindADeleteFindNoMutex) {
  ReplaceClassEntry(ClassIndex(0xF0), {Roles, CM_SemaphoreWakeUp});
  static LX_MUTEX mutex = nullptr, inheriting = nullptr;
  static auto* block = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
  static LX_EVENT_FLAGS group = nullptr;
  block->u32Ceiling = 2;
  auto semaphore = [](uint16_t code) { return Issue(code, &block); };
  CmSemaphoreControlBlock* none = nullptr;
  // A mutex refuses its owner too (no ownership count); the semaphore's ceiling is 2.
  EXPECT_EQ((Statuses{_lx_MutexCreate(&mutex, "m", 0), _lx_MutexGet(&mutex, 0), _lx_MutexGet(&mutex, 0),
                      _lx_MutexCreate(&inheriting, "i", 1), _lx_MutexGet(&inheriting, 0),
                      _lx_EventFlagsCreate(&group, "class"), semaphore(CM_SEMAPHORE_PUT), semaphore(CM_SEMAPHORE_PUT),
                      semaphore(CM_SEMAPHORE_PUT), semaphore(CM_SEMAPHORE_GET), semaphore(CM_SEMAPHORE_GET),
                      semaphore(CM_SEMAPHORE_GET), semaphore(CM_SEMAPHORE_PRIORITIZE), semaphore(0x74),
                      Issue(CM_SEMAPHORE_PUT, &none), Issue(0xF3, &none), Issue(CM_SEMAPHORE_GET, nullptr)}),
            (Statuses{0, 0, LX_NOT_AVAILABLE, 0, 0, 0, 0, 0, 0, 0, 0, LX_NO_INSTANCE, 0, LX_NOT_AVAILABLE,
                      LX_SEMAPHORE_ERROR, LX_SEMAPHORE_ERROR, LX_SEMAPHORE_ERROR}));
  char* name = nullptr;
  uint32_t count = 0, waiting = 9;
  LX_THREAD* owner = nullptr;
  SuspendNode node{}, *first = &node;  // overwritten
  LX_MUTEX* next = nullptr;
  for (int i = 0; i <= 6; ++i)  // each output missing in turn, then none
    EXPECT_EQ(_lx_MutexInfoGet(&mutex, i == 0 ? nullptr : &name, i == 1 ? nullptr : &count, i == 2 ? nullptr : &owner,
                               i == 3 ? nullptr : &first, i == 4 ? nullptr : &waiting, i == 5 ? nullptr : &next),
              i < 6 ? LX_PTR_ERROR : LX_SUCCESS);
  EXPECT_EQ(std::tuple(std::string(name), count, owner, first, waiting),
            std::tuple("m", 1u, _lx_ThreadIdentify(), nullptr, 0u));
  // Requests that passed their callers' checks, served in one pass behind a delete, find no mutex. The
  // dispatcher is idle (nothing else runs here), so the first of them owes it the one wake byte.
  CmServiceRequest requests[4] = {};
  std::unique_lock lock(CmLock());
  for (int i = 0; uint16_t code : {CM_MUTEX_DELETE, CM_MUTEX_GET, CM_MUTEX_PUT, CM_MUTEX_DELETE}) {
    std::tie(requests[i].psThread, requests[i].pvObject, requests[i].u16Service) =
        std::tuple(_lx_ThreadIdentify(), &mutex, code);
    EnqueueLocked(requests[i++]);
  }
  lock.unlock();
  WakeDispatcher();
  Statuses served;
  for (CmServiceRequest& request : requests) AwaitCompletion(request), served.push_back(request.u16Status);
  EXPECT_EQ((std::tuple{mutex, served}),
            std::tuple(nullptr, Statuses{0, LX_MUTEX_ERROR, LX_MUTEX_ERROR, LX_MUTEX_ERROR}));
  const WaitClass classes[] = {{&inheriting, inheriting->sSuspendCtrl, CM_MUTEX_GET, CM_MUTEX_PUT, CM_MUTEX_PRIORITIZE,
                                CM_MUTEX_DELETE, LX_STATE_MUTEX_WAIT, LX_NOT_AVAILABLE, true},
                               {&block, block->sSuspendCtrl, 0xF1, 0xF0, 0xF2, CM_SEMAPHORE_DELETE,
                                LX_STATE_SEMAPHORE_WAIT, LX_NO_INSTANCE, false},
                               {&group, group->sSuspendCtrl, CM_EVENT_FLAGS_GET, CM_EVENT_FLAGS_SET, 0,
                                CM_EVENT_FLAGS_DELETE, LX_STATE_EVENT_FLAGS_WAIT, LX_NO_EVENTS, false}};
  static uint32_t actual = 0;
  for (const WaitClass& c : classes) {
    auto get = [&](uint32_t wait, uint16_t priority = 32) -> Waiter& {
      return waiters_.StartOn(c.list, std::bind(Issue, c.get, c.object, wait, 0x100, 1, &actual), priority);
    };
    auto give = [&c] { return Issue(c.give, c.object, 0, 0x100); };
    Waiter* w[] = {&get(LX_WAIT_FOREVER, 10), &get(LX_WAIT_FOREVER, 5), &get(LX_WAIT_FOREVER, 5)};
    if (c.byPriority) std::swap(w[0], w[2]);  // the order in which they are served; the last one alone
    EXPECT_EQ((std::tuple{StateOf(w[0]->handle), give(), Waiters::StatusOf(*w[0]), w[1]->Done(), give(),
                          Waiters::StatusOf(*w[1]), w[2]->Done(), give(), Waiters::StatusOf(*w[2])}),
              std::tuple(c.state, 0, 0u, false, 0, 0u, false, 0, 0u));
    Waiter &late = get(5), &aborted = get(LX_WAIT_FOREVER), &kept = get(LX_WAIT_FOREVER);
    Timer().RunPasses(5);
    EXPECT_FALSE(late.Done());
    Timer().RunPasses(1);  // returns once the dispatcher has handled the expiry
    EXPECT_EQ((Statuses{Waiters::StatusOf(late), StateOf(late.handle), _lx_ThreadWaitAbort(&aborted.handle),
                        Waiters::StatusOf(aborted)}),
              (Statuses{c.timeout, LX_STATE_READY, 0, LX_WAIT_ABORTED}));
    if (c.prioritize != 0) {
      get(LX_WAIT_FOREVER, 10);
      Waiter& moved = get(LX_WAIT_FOREVER, 10);  // ties with the one before it: the one nearer the last end moves
      EXPECT_EQ((std::tuple{Issue(c.prioritize, c.object), FirstWaiter(c.list)}), std::tuple(0, &moved.handle));
    }
    Waiter& finite = get(30);
    EXPECT_EQ((std::tuple{Issue(c.remove, c.object), Waiters::StatusOf(kept), Waiters::StatusOf(finite)}),
              std::tuple(0, LX_DELETED, LX_DELETED));
  }
  // The event-flag class (here through the roles) clears all flags on a clearing get and takes its bits literally.
  auto set = [](uint64_t flags, uint64_t option = 0) { return Issue(0xF4, &group, 0, flags, option); };
  auto get = [](uint64_t requested, uint64_t option, uint32_t* out, uint32_t wait = 0) {
    return Issue(0xF5, &group, wait, requested, option, out);
  };
  auto check = [](uint64_t requested, uint64_t option) { return Issue(0xF6, &group, 0, requested, option); };
  // A clearing get clears all flags, a check never; a set option's low 16 bits count (0x10002: AND).
  EXPECT_EQ((Statuses{_lx_EventFlagsCreate(&group, "again"), set(0x6), check(0x6, 3), get(0x2, 1, &actual), actual,
                      Peek(group->u32CurrentFlags), get(0, 2, &actual), get(0, 0, &actual), get(0x1, 0, nullptr),
                      set(0xFFFFFFFF), get(0x100000001ull, 2, &actual), get(0x100000001ull, 0, &actual),
                      set(0x0A, 0x10002), check(0x3, 2), set(0, 2)}),
            (Statuses{0, 0, 0, 0, 0x6, 0, 0, LX_NO_EVENTS, LX_PTR_ERROR, 0, LX_NO_EVENTS, 0, 0, LX_NO_EVENTS, 0}));
  Waiter& all = waiters_.StartOn(group->sSuspendCtrl, [&] { return get(0x5, 2, &actual, LX_WAIT_FOREVER); });
  // The direct side does not examine the class's waiters; the next set of the class does, even a refused one.
  EXPECT_EQ((std::tuple{set(0x1), all.Done(), _lx_EventFlagsSet(&group, 0x4, LX_OR), all.Done(), set(0x8, 1),
                        Waiters::StatusOf(all), actual}),
            std::tuple(0, false, 0, false, LX_OPTION_ERROR, 0u, 0x5u));
  EXPECT_EQ((Statuses{Issue(0x34, &group), Issue(0xF7, &group), set(0x1), get(0x1, 0, &actual), check(0x1, 0),
                      Issue(CM_EVENT_FLAGS_DELETE, &group), _lx_EventFlagsCreate(&group, "again")}),
            (Statuses{LX_NOT_AVAILABLE, 0, LX_GROUP_ERROR, LX_GROUP_ERROR, LX_GROUP_ERROR, LX_GROUP_ERROR,
                      0}));  // the registry slot was given back
}

TEST_F(SyncTest, SemaphoresTimeOutAtTheirDeadlineAndCreationsOutputsAndCallersAreChecked) {
  static LX_MUTEX mutexes[51], fromTimer = nullptr;
  static LX_SEMAPHORE s = nullptr, none = nullptr, big = nullptr, semaphoreFromTimer = nullptr;
  static LX_EVENT_FLAGS group = nullptr, created = nullptr;
  uint32_t u = 0;
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_MutexCreate(&mutexes[i], "m", 0), LX_SUCCESS);
  LX_MUTEX* m = &mutexes[0];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(
      (Statuses{_lx_SemaphoreCreate(&s, "s", 1), _lx_SemaphoreGet(&s, 0), _lx_SemaphoreGet(&s, 30),
                _lx_SemaphoreCreate(&big, "x", SEM_VALUE_MAX + 1u), _lx_SemaphoreCreate(&big, nullptr, SEM_VALUE_MAX),
                _lx_SemaphorePut(&big), _lx_SemaphoreCreate(nullptr, "x", 0), _lx_SemaphoreGet(nullptr, 5),
                _lx_SemaphorePut(nullptr), _lx_SemaphoreGet(&none, 9), _lx_SemaphorePut(&none), _lx_SemaphorePut(&s)}),
      (Statuses{0, 0, LX_NO_INSTANCE, LX_SEMAPHORE_ERROR, 0, LX_SEMAPHORE_ERROR, LX_SEMAPHORE_ERROR, LX_SEMAPHORE_ERROR,
                LX_SEMAPHORE_ERROR, 0, 0, 0}));
  EXPECT_EQ((Statuses{_lx_MutexCreate(nullptr, "x", 0), _lx_MutexCreate(&mutexes[50], "x", 2),
                      _lx_MutexCreate(&mutexes[50], "full", 0), _lx_MutexDelete(&mutexes[7]),
                      _lx_MutexCreate(&mutexes[50], "reused", 0), _lx_MutexDelete(&mutexes[1]), Issue(0x54, m),
                      _lx_MutexDelete(&mutexes[7]), _lx_MutexPut(&mutexes[7]), _lx_EventFlagsCreate(&group, nullptr),
                      _lx_EventFlagsSet(&group, 0x6, 0)}),
            (Statuses{28, LX_INHERIT_ERROR, 28, 0, 0, 0, LX_NOT_AVAILABLE, 28, 28, 0, 0}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 290ms);  // the 30-tick get waited its time
  Statuses outside;                                            // not a thread of the system
  std::thread([&] {
    outside = (Statuses{_lx_MutexGet(m, 0), _lx_MutexPut(m), _lx_MutexPrioritize(m), _lx_MutexDelete(m),
                        _lx_EventFlagsCreate(&created, "o"), _lx_EventFlagsGet(&group, 0x4, LX_OR, &u, 5)});
  }).join();
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return (Statuses{
                  _lx_MutexGet(m, 0), _lx_MutexPut(m), _lx_MutexDelete(m), _lx_MutexCreate(&fromTimer, "t", 0),
                  _lx_MutexPrioritize(m), _lx_SemaphoreCreate(&semaphoreFromTimer, "t", 0), _lx_SemaphoreGet(&s, 10),
                  _lx_SemaphoreGet(&s, 0), _lx_SemaphoreGet(&s, 0), _lx_EventFlagsGet(&group, 0x2, LX_OR, &u, 5),
                  _lx_EventFlagsCreate(&created, "t"), _lx_EventFlagsGet(&group, 0x4, LX_OR_CLEAR, &u, 0)});
            }),
            (Statuses{19, 19, 19, 0, 0, 19, LX_WAIT_ERROR, 0, LX_NO_INSTANCE, LX_WAIT_ERROR, 19, 0}));
  EXPECT_EQ((std::tuple{outside, semaphoreFromTimer, created, Peek(group->u32CurrentFlags)}),
            std::tuple(Statuses{28, 28, 28, 28, 19, 19}, nullptr, nullptr, 0x2u));
}

TEST_F(SyncTest, EventFlagsMatchByTheRuleCheckOptionsInOrderAndASetWakesEverySatisfiedWaiter) {
  // The rule's rows that the gets below cannot reach: no flags asked for, and an option beyond AND_CLEAR (any).
  EXPECT_EQ((std::tuple{EventFlagCmp(5, 0, LX_AND), EventFlagCmp(5, 6, 6)}), std::tuple(0u, 1u));
  static LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "flags"), LX_SUCCESS);
  LX_EVENT_FLAGS unknown = group;  // names the record, but is not a registered handle
  uint32_t actual = 0;
  EXPECT_EQ((Statuses{_lx_EventFlagsSet(&group, 0x0F, LX_OR), _lx_EventFlagsGet(&group, 0x30, LX_OR, &actual, 0),
                      _lx_EventFlagsGet(&group, 0x05, LX_AND_CLEAR, &actual, 0), actual, Peek(group->u32CurrentFlags),
                      _lx_EventFlagsGet(&group, 0x03, LX_AND_CLEAR, &actual, 0),
                      _lx_EventFlagsGet(&unknown, 1, 9, nullptr, 5), _lx_EventFlagsGet(&group, 1, 9, nullptr, 5),
                      _lx_EventFlagsGet(&group, 1, 4, &actual, 5), _lx_EventFlagsSet(&unknown, 1, 9),
                      _lx_EventFlagsSet(&group, 0x06, LX_AND), _lx_EventFlagsSet(&group, 0xFF, 1),
                      Peek(group->u32CurrentFlags), _lx_EventFlagsSet(&group, 0, LX_AND)}),
            (Statuses{0, LX_NO_EVENTS, 0, 0x0F, 0x0A, LX_NO_EVENTS, LX_GROUP_ERROR, LX_PTR_ERROR, LX_OPTION_ERROR,
                      LX_GROUP_ERROR, 0, LX_OPTION_ERROR, 0x02, 0}));
  auto set = [](uint32_t flags) { return _lx_EventFlagsSet(&group, flags, LX_OR); };
  auto state = [] { return std::tuple(Peek(group->u32CurrentFlags), Peek(group->u32WaitCount)); };
  // A thread whose get has armed its wait when this returns (the threads are done before actuals ends).
  std::deque<uint32_t> actuals;
  auto wait = [&](uint32_t flags, uint16_t option, uint32_t ticks = LX_WAIT_FOREVER) -> Waiter& {
    auto armed = [n = Peek(group->u32WaitCount) + 1] { return Peek(group->u32WaitCount) == n; };
    return waiters_.Start(std::bind(_lx_EventFlagsGet, &group, flags, option, &actuals.emplace_back(0), ticks), armed);
  };
  Waiter &any = wait(0x2, LX_OR), &all = wait(0x6, LX_AND);
  Waiter &a = wait(0x9, LX_OR_CLEAR), &b = wait(0x1, LX_OR_CLEAR);
  EXPECT_EQ((std::tuple{set(0x3), Waiters::StatusOf(any), Waiters::StatusOf(a), actuals[2], state(), b.Done()}),
            std::tuple(0, 0u, 0u, 3u, std::tuple(2u, 2u), false));  // one of a's flags: 0x1 cleared for the later one
  EXPECT_EQ(
      (std::tuple{set(0x4), Waiters::StatusOf(all), actuals[1], set(0x1), Waiters::StatusOf(b), actuals[3], state()}),
      std::tuple(0, 0u, 6u, 0, 0u, 7u, std::tuple(6u, 0u)));
  // A wait abort does not end a direct wait; its time-out withdraws it, and nothing armed takes a later set.
  Waiter& timed = wait(0x8, LX_OR, 40);
  EXPECT_EQ((std::tuple{_lx_ThreadWaitAbort(&timed.handle), Waiters::StatusOf(timed), set(0x8), state()}),
            std::tuple(0, LX_NO_EVENTS, 0, std::tuple(0xEu, 0u)));
}

// A waiter takes flag 0x1 with one-tick waits while the set that follows each
// delivery comes at a random moment, so that time-outs and sets race.
TEST_F(SyncTest, EverySetIsDeliveredExactlyOnceWhenTimeOutsRaceWithSets) {
  static LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "race"), LX_SUCCESS);
  constexpr int kSets = 800;
  static std::atomic<int> received{0}, wrong{0}, timeouts{0}, done{0};
  Waiter& waiter = waiters_.Start([] {
    for (uint32_t actual = 0; !done.load(); actual = 0) {
      const LX_STATUS status = _lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, 1);
      status == LX_SUCCESS ? ++received : ++timeouts;
      wrong += status == LX_SUCCESS ? actual != 0x1 : status != LX_NO_EVENTS;
    }
    return LX_SUCCESS;
  });
  std::minstd_rand random(7);
  for (int i = 0; i <= kSets; ++i) {  // at the end, a stale post would show as an extra delivery
    ASSERT_TRUE(WaitUntil([&] { return received.load() == i; }, 5s)) << "set " << i << " not delivered";
    std::this_thread::sleep_for(std::chrono::microseconds(i < kSets ? random() % 12000 : 50000));
    ASSERT_TRUE(i == kSets || _lx_EventFlagsSet(&group, 0x1, LX_OR) == LX_SUCCESS);
  }
  done = 1;
  EXPECT_EQ(
      (std::tuple{Waiters::StatusOf(waiter), received.load(), wrong.load(), Peek(group->u32WaitCount), timeouts > 0}),
      std::tuple(0u, kSets, 0, 0u, true));
}

}  // namespace
}  // namespace quorvin::test

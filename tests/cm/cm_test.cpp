// The component manager: the request engine (unknown codes, reply pipes, wake
// bytes, order); the 50-slot handle registry, whose look-ups take no lock; and,
// driven through the test-only class, suspend lists (park, release one in modes
// 0 to 3, release all) and the sleep agent (finite waits counted down pass by
// pass on the timer thread and expired through the dispatcher's system class).
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "cm/registry.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;
using quorvin::detail::HandleRegistry;
using quorvin::detail::kRegistrySlots;
using quorvin::detail::S_psSleepEnd;
using quorvin::detail::S_psSleepTop;

template <typename F>
auto Locked(F&& read) {
  std::lock_guard lock(CmLock());
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
    const auto handle = reinterpret_cast<uint64_t>(&waiter.handle);
    return Locked([&] { return std::ranges::count(RecordedValues(), handle); }) == 1;
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

int PendingWakeBytes() {
  int pending = 0;
  ::ioctl(quorvin::detail::S_i32CmPIPE[0], FIONREAD, &pending);
  return pending;
}

// Lowers the descriptor limit so that no new descriptor can be opened.
void TakeAwayFreeDescriptors() {
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit tight{};
  ::getrlimit(RLIMIT_NOFILE, &tight);
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ::setrlimit(RLIMIT_NOFILE, &tight);
}

using RequestTest = KernelTest;

TEST_F(RequestTest, ReplyPipesAreClosedAndMissingDescriptorsAnswerNotAvailable) {
  Issue(0x90);  // settles any lazily opened descriptor
  const int before = OpenDescriptorCount();
  for (int round = 0; round < 20; ++round)
    for (uint16_t code : {0x0000, 0x0002, 0x000F, 0x0040, 0x004F, 0x0090, 0x00A3, 0x00F0, 0x0100, 0xFFFF}) {
      ASSERT_EQ(Issue(code), LX_NOT_AVAILABLE) << "code " << code;
      ASSERT_EQ(OwnRequest().u16Service, 0) << "code " << code;
    }
  EXPECT_EQ(OpenDescriptorCount(), before);
  EXPECT_EQ(::fcntl(OwnRequest().ai32ReplyPipe[0], F_GETFD), -1);
  EXPECT_EQ(::fcntl(OwnRequest().ai32ReplyPipe[1], F_GETFD), -1);

  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  TakeAwayFreeDescriptors();
  const uint16_t status = Issue(kTestRecord, nullptr, LX_NO_WAIT, 77);
  const uint16_t service = OwnRequest().u16Service;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
  EXPECT_EQ(status, LX_NOT_AVAILABLE);
  EXPECT_EQ(service, 0);
  EXPECT_EQ(OpenDescriptorCount(), before);
  EXPECT_TRUE([] { std::lock_guard lock(CmLock()); return RecordedValues().empty() && !S_psTop; }());
  EXPECT_EQ(Issue(kTestRecord, nullptr, LX_NO_WAIT, 78), LX_SUCCESS);
}

TEST_F(RequestTest, OneWakeByteServesABatchInOrder) {
  CmServiceRequest requests[10] = {};
  std::vector<uint64_t> expected;
  std::vector<quorvin::detail::Enqueued> enqueued;
  {
    std::lock_guard lock(CmLock());  // the dispatcher cannot serve meanwhile
    for (uint64_t i = 0; i < 10; ++i) {
      requests[i].u16Service = kTestRecord;
      requests[i].u64Value = i;
      expected.push_back(i);
      enqueued.push_back(quorvin::detail::EnqueueLocked(requests[i]));
    }
    EXPECT_EQ(quorvin::detail::S_i8CmIdle, 0);
    EXPECT_EQ(S_psTop, &requests[0]);
    EXPECT_EQ(S_psEnd, &requests[9]);
  }
  // Only the first found the dispatcher idle and owes it the one wake byte.
  using enum quorvin::detail::Enqueued;
  EXPECT_EQ(enqueued, (std::vector{kWakeDispatcher, kQueued, kQueued, kQueued, kQueued, kQueued, kQueued, kQueued,
                                   kQueued, kQueued}));
  EXPECT_EQ(PendingWakeBytes(), 0);
  quorvin::detail::WakeDispatcher();
  for (auto& request : requests) quorvin::detail::AwaitCompletion(request);
  std::lock_guard lock(CmLock());
  EXPECT_EQ(RecordedValues(), expected);
  EXPECT_EQ(S_psTop, nullptr);
  EXPECT_EQ(S_psEnd, nullptr);
  EXPECT_EQ(quorvin::detail::S_i8CmIdle, 1);
  EXPECT_EQ(PendingWakeBytes(), 0);
}

TEST_F(RequestTest, ConcurrentRequestersLoseNothing) {
  constexpr int kThreads = 10, kEach = 300;
  Issue(0x90);
  const int descriptors = OpenDescriptorCount();
  LX_THREAD handles[kThreads] = {};
  std::atomic<int> wrong = 0;
  for (uint64_t t = 0; t < kThreads; ++t)
    ASSERT_EQ(Spawn(&handles[t], "requester", [&, t] {
                for (uint64_t i = 0; i < kEach; ++i) {
                  wrong += Issue(kTestRecord, nullptr, LX_NO_WAIT, t << 32 | i) != LX_SUCCESS;
                  wrong += OwnRequest().u16Service != 0;
                }
              }),
              LX_SUCCESS);
  for (LX_THREAD handle : handles) ASSERT_TRUE(Join(handle, std::chrono::milliseconds(30000)));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_EQ(PendingWakeBytes(), 0);
  // Each request served once, each thread's in the order it issued them.
  std::lock_guard lock(CmLock());
  ASSERT_EQ(RecordedValues().size(), static_cast<size_t>(kThreads * kEach));
  std::vector<uint64_t> next(kThreads, 0);
  for (uint64_t tag : RecordedValues()) {
    ASSERT_LT(tag >> 32, next.size());
    EXPECT_EQ(tag & 0xFFFFFFFFu, next[tag >> 32]++);
  }
}

TEST(RequestStartupTest, DispatcherPipeFailureEndsTheProcessWithItsMessage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "exit() inside a death test trips UBSan's vptr check in GoogleTest's teardown";
#endif
  hCM_Error = stderr;
  EXPECT_EXIT((TakeAwayFreeDescriptors(), CM_Initial()), ::testing::ExitedWithCode(0),
              "Create ComponentManagerRequestHandel\\(\\) pipe fail! \n exit\\(\\)");
}

class RegistryTest : public ::testing::Test {
 protected:
  void* slots_[kRegistrySlots] = {};
  int32_t count_ = 0;
  HandleRegistry registry_{slots_, count_};
  int handles_[kRegistrySlots + 1] = {};
};

TEST_F(RegistryTest, ALookUpIsExactAfterRemovalsMoveHandlesAndSlotsAreReused) {
  for (int i = 0; i < kRegistrySlots; ++i) ASSERT_TRUE(registry_.Add(&handles_[i]));
  EXPECT_FALSE(registry_.Add(&handles_[kRegistrySlots]));  // full: nothing past the table
  EXPECT_TRUE(registry_.Full());
  ASSERT_TRUE(registry_.Contains(&handles_[3]));  // leaves a hint at slot 3

  // Removing slot 3 moves the last handle into it; the remembered slot now
  // holds another handle and must not answer for the removed one.
  ASSERT_TRUE(registry_.Remove(&handles_[3]));
  EXPECT_FALSE(registry_.Contains(&handles_[3]));
  EXPECT_EQ(slots_[3], &handles_[kRegistrySlots - 1]);
  EXPECT_EQ(slots_[kRegistrySlots - 1], nullptr);
  EXPECT_TRUE(registry_.Contains(&handles_[kRegistrySlots - 1]));
  EXPECT_FALSE(registry_.Remove(&handles_[3]));

  // A hint left past the count by a removed last slot is ignored.
  ASSERT_TRUE(registry_.Contains(&handles_[kRegistrySlots - 2]));
  ASSERT_TRUE(registry_.Remove(&handles_[kRegistrySlots - 2]));
  EXPECT_FALSE(registry_.Contains(&handles_[kRegistrySlots - 2]));
  EXPECT_EQ(count_, kRegistrySlots - 2);

  // A handle registered twice stays registered until its second removal.
  ASSERT_TRUE(registry_.Add(&handles_[0]));
  ASSERT_TRUE(registry_.Remove(&handles_[0]));
  EXPECT_TRUE(registry_.Contains(&handles_[0]));
  ASSERT_TRUE(registry_.Remove(&handles_[0]));
  EXPECT_FALSE(registry_.Contains(&handles_[0]));
}

// One thread keeps looking up a handle while another registers it last and
// removes the slot below, which moves it down the table. A generation count
// (odd: the handle is registered) tells the reader when a miss is a fault.
TEST_F(RegistryTest, AHandleThatStaysRegisteredIsNeverMissedWhileItMoves) {
  int& moving = handles_[kRegistrySlots];
  constexpr int kOthers = 20;
  std::atomic<unsigned> generation{0};
  std::atomic<bool> stop{false};
  std::atomic<long> misses{0}, checked{0};
  std::thread reader([&] {
    while (!stop.load()) {
      const unsigned before = generation.load();
      if (before % 2 == 0) continue;
      const bool found = registry_.Contains(&moving);
      if (generation.load() != before) continue;
      checked.fetch_add(1);
      if (!found) misses.fetch_add(1);
    }
  });
  for (long round = 0; round < 20000 || (checked.load() < 100000 && round < 20'000'000); ++round) {
    for (int i = 0; i < kOthers; ++i) ASSERT_TRUE(registry_.Add(&handles_[i]));
    ASSERT_TRUE(registry_.Add(&moving));
    generation.fetch_add(1);
    for (int i = 0; i < kOthers; ++i) ASSERT_TRUE(registry_.Remove(&handles_[i]));  // the first moves it to slot 0
    ASSERT_EQ(slots_[0], &moving);
    generation.fetch_add(1);
    ASSERT_TRUE(registry_.Remove(&moving));
  }
  stop.store(true);
  reader.join();
  EXPECT_GE(checked.load(), 100000);
  EXPECT_EQ(misses.load(), 0) << "of " << checked.load() << " look-ups";
}

}  // namespace
}  // namespace quorvin::test

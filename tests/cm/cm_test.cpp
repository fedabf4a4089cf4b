// The component manager, seen through its requests: unknown codes, reply pipes
// and wake bytes, order and loss under load; suspend lists and the sleep agent
// through the mutex class (time-outs counted in passes of the timer thread,
// equal ones in registration order, a moved waiter keeping its ticks, a release
// before the time-out); the timer thread's own rules; the handle registry.
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <thread>

#include "cm/registry.h"
#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

// Class 0xF0 of this program records each request's value in serving order;
// the mutex class's time-out handler is wrapped to record whom it times out.
std::vector<uint64_t> g_served;
std::vector<LX_THREAD*> g_expired;
void Record(uint16_t, CmServiceRequest* request) {
  g_served.push_back(request->u64Value);
  CompleteLocked(*request, LX_SUCCESS);
}
void RecordExpiry(CmServiceRequest* driver) {
  g_expired.push_back(driver->psTarget);
  CM_MutexWakeUp(driver);
}
template <typename T>
T Locked(const T& value) {
  std::lock_guard lock(CmLock());
  return value;
}
int PendingWakeBytes() {
  int bytes = -1;
  ::ioctl(S_i32CmPIPE[0], FIONREAD, &bytes);
  return bytes;
}

class CmTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    ReplaceClassEntry(ClassIndex(0xF0), {&Record, nullptr});
    ReplaceClassEntry(ClassIndex(CM_MUTEX_GET), {&CM_MutexFunction, &RecordExpiry});
    ASSERT_EQ(_lx_MutexCreate(&mutex_, "m", LX_NO_INHERIT), LX_SUCCESS);
    ASSERT_EQ(_lx_MutexGet(&mutex_, LX_NO_WAIT), LX_SUCCESS);
  }
  void TearDown() override { EXPECT_EQ(_lx_MutexDelete(&mutex_), LX_SUCCESS); }  // releases the rest
  Waiter& Park(uint32_t wait, uint16_t priority = 32) {  // a waiter for the owned mutex, parked
    Waiter& w = waiters_.StartOn(mutex_->sSuspendCtrl, [this, wait] { return _lx_MutexGet(&mutex_, wait); }, priority);
    EXPECT_EQ(StateOf(w.handle), LX_STATE_MUTEX_WAIT);
    return w;
  }
  // The pass after which the waiter's wait has ended (a pass returns once its expiries are handled).
  static int PassesUntil(const Waiter& w, int limit = 10) {
    for (int pass = 1; pass <= limit; ++pass)
      if (Timer().RunPasses(), StateOf(w.handle) == LX_STATE_READY) return pass;
    return 0;
  }
  LX_MUTEX mutex_ = nullptr;
  Waiters waiters_;
};

TEST_F(CmTest, UnknownCodesAndStaleTimeOutsAnswer29AndLeaveNothingBehind) {
  Issue(0x90);  // settles any descriptor opened on first use
  const int descriptors = OpenDescriptorCount();
  for (int round = 0; round < 20; ++round)
    for (uint16_t code : {0x00, 0x02, 0x0F, 0x40, 0x4F, 0x90, 0xA3, 0xFFFF}) {
      ASSERT_EQ(Issue(code), LX_NOT_AVAILABLE) << code;
      ASSERT_EQ(OwnRequest().u16Service, 0) << code;
    }
  CmServiceRequest finished{};  // an expiry captured after its request was released (service 0)
  finished.u16Status = 1234;
  EXPECT_EQ(Issue(CM_OP_TIMEOUT, &finished), LX_NOT_AVAILABLE);
  EXPECT_EQ(finished.u16Status, 1234);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_EQ(PendingWakeBytes(), 0);
}

TEST_F(CmTest, OneWakeByteServesABatchInOrderAndConcurrentRequestersLoseNothing) {
  CmServiceRequest batch[5] = {};
  {
    std::lock_guard lock(CmLock());  // the dispatcher cannot serve meanwhile
    for (uint64_t i = 0; i < 5; ++i) {
      batch[i].u16Service = 0xF1;
      batch[i].u64Value = i;
      EXPECT_EQ(EnqueueLocked(batch[i]), i == 0 ? Enqueued::kWakeDispatcher : Enqueued::kQueued);
    }
  }
  WakeDispatcher();
  for (auto& request : batch) AwaitCompletion(request);
  EXPECT_EQ(Locked(g_served), (std::vector<uint64_t>{0, 1, 2, 3, 4}));
  EXPECT_EQ(std::tuple(Locked(S_psTop), Locked(S_psEnd), PendingWakeBytes()), std::tuple(nullptr, nullptr, 0));
  const int descriptors = OpenDescriptorCount();
  constexpr uint64_t kThreads = 8, kEach = 300;
  LX_THREAD handles[kThreads] = {};
  std::atomic<int> wrong = 0;
  for (uint64_t t = 1; t <= kThreads; ++t)
    ASSERT_EQ(Spawn(&handles[t - 1], "requester", [&wrong, t] {
                for (uint64_t i = 0; i < kEach; ++i)
                  wrong += Issue(0xF1, nullptr, LX_NO_WAIT, t << 32 | i) != LX_SUCCESS || OwnRequest().u16Service;
              }),
              LX_SUCCESS);
  for (LX_THREAD handle : handles) ASSERT_TRUE(Join(handle, 60s));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(std::tuple(OpenDescriptorCount(), PendingWakeBytes()), std::tuple(descriptors, 0));
  std::vector<uint64_t> served = Locked(g_served), next(kThreads + 1, 0);
  ASSERT_EQ(served.size(), 5 + kThreads * kEach);
  for (uint64_t tag : std::vector(served.begin() + 5, served.end())) EXPECT_EQ(tag & 0xFFFFFFFF, next[tag >> 32]++);
}

TEST_F(CmTest, WaitsOfNTicksEndAfterPassNPlusOneEqualOnesInRegistrationOrder) {
  Timer().RunPasses(2);  // nothing registered: nothing happens
  Waiter &forever = Park(LX_WAIT_FOREVER), &a = Park(2), &b = Park(2), &c = Park(5);
  EXPECT_EQ(SleepAgentEntries(), 3u);
  EXPECT_EQ(PassesUntil(a, 2), 0);
  EXPECT_EQ(PassesUntil(a, 1), 1);
  EXPECT_EQ(Locked(g_expired), (std::vector<LX_THREAD*>{&a.handle, &b.handle}));
  EXPECT_EQ(std::tuple(Waiters::StatusOf(a), Waiters::StatusOf(b)), std::tuple(LX_NOT_AVAILABLE, LX_NOT_AVAILABLE));
  EXPECT_EQ(Peek(c.handle->sRequest.u32WaitOption), 2u);  // counted on the pass of their expiry too
  EXPECT_EQ(PassesUntil(c), 3);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), Waiting(mutex_->sSuspendCtrl)), std::tuple(size_t{0}, 1));
  Timer().RunPasses(3);
  EXPECT_EQ(StateOf(forever.handle), LX_STATE_MUTEX_WAIT);  // never expires
  EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(forever), LX_SUCCESS);
}

TEST_F(CmTest, AWaiterMovedToTheFrontKeepsItsTicksAndAReleasedOneNeverExpires) {
  Waiter &a = Park(6), &b = Park(4, 10), &c = Park(LX_WAIT_FOREVER);
  Timer().RunPasses(2);
  ASSERT_EQ(_lx_MutexPrioritize(&mutex_), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(mutex_->sSuspendCtrl), &b.handle);
  EXPECT_EQ(std::tuple(SleepAgentEntries(), Waiting(mutex_->sSuspendCtrl)), std::tuple(size_t{2}, 3));
  EXPECT_EQ(PassesUntil(b), 3);  // registered with 4: the 5th pass, as unmoved
  EXPECT_EQ(_lx_MutexPut(&mutex_), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(a), LX_SUCCESS);  // handed over in arrival order
  EXPECT_EQ(SleepAgentEntries(), 0u);
  Timer().RunPasses(6);
  EXPECT_EQ(Locked(g_expired), std::vector<LX_THREAD*>{&b.handle});
  EXPECT_EQ(StateOf(c.handle), LX_STATE_MUTEX_WAIT);
}

TEST_F(CmTest, TimerThreadRequestsThatWouldWaitAreRefusedAndExpiriesGoOn) {
  Waiter& waiter = Park(1);
  uint16_t refused = 0, service = 0, plain = 0;
  Timer().Run([&] {
    refused = Issue(CM_MUTEX_GET, &mutex_, 5);
    service = OwnRequest().u16Service;
    plain = Issue(0x90);
    OwnRequest().u32WaitOption = 7;  // as a service in an expiration function may leave it
  });
  EXPECT_EQ(std::tuple(refused, service, plain), std::tuple(LX_WAIT_ERROR, CM_MUTEX_GET, LX_NOT_AVAILABLE));
  EXPECT_EQ(PassesUntil(waiter), 2);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_NOT_AVAILABLE);
}

TEST(CmStartupTest, DispatcherPipeFailureEndsTheProcessWithItsMessage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "exit() inside a death test trips UBSan's vptr check in GoogleTest's teardown";
#endif
  hCM_Error = stderr;
  const rlimit none{0, 0};
  EXPECT_EXIT((::setrlimit(RLIMIT_NOFILE, &none), CM_Initial()), ::testing::ExitedWithCode(0),
              "Create ComponentManagerRequestHandel\\(\\) pipe fail! \n exit\\(\\)");
}

// One thread looks a handle up while another registers it last and removes
// the slots below, which moves it down the table; a generation count (odd:
// registered) tells when a miss is a fault. Removed handles are never found.
TEST(RegistryTest, AHandleIsFoundExactlyWhileRegisteredEvenWhileItMoves) {
  void* slots[kRegistrySlots] = {};
  int32_t count = 0;
  HandleRegistry registry{slots, count};
  int handles[kRegistrySlots + 1] = {}, &moving = handles[kRegistrySlots];
  for (int& handle : handles) EXPECT_EQ(registry.Add(&handle), &handle != &moving);  // full at 50
  ASSERT_TRUE(registry.Contains(&handles[3]) && registry.Remove(&handles[3]));  // the last moves into slot 3
  EXPECT_FALSE(registry.Contains(&handles[3]) || registry.Remove(&handles[3]));
  EXPECT_TRUE(registry.Contains(&handles[kRegistrySlots - 1]));
  for (int i = 0; i < kRegistrySlots; ++i) registry.Remove(&handles[i]);
  std::atomic<unsigned> generation{0};
  std::atomic<long> misses{0}, checked{0};
  std::thread reader([&] {
    for (unsigned before; (before = generation.load()) != ~0u;) {
      const bool found = before % 2 == 1 && registry.Contains(&moving);
      if (before % 2 == 1 && generation.load() == before) checked += 1, misses += !found;
    }
  });
  for (long round = 0; round < 20000 || (checked < 100000 && round < 20'000'000); ++round) {
    for (int i = 0; i < 20; ++i) registry.Add(&handles[i]);
    registry.Add(&moving);
    generation += 1;
    for (int i = 0; i < 20; ++i) registry.Remove(&handles[i]);  // the first removal moves it to slot 0
    generation += 1;
    registry.Remove(&moving);
  }
  generation = ~0u;
  reader.join();
  EXPECT_GE(checked.load(), 100000);
  EXPECT_EQ(misses.load(), 0) << "of " << checked.load() << " look-ups";
}

}  // namespace
}  // namespace quorvin::test

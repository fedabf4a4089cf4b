// The component manager, seen through its requests: unknown codes and loss under load; the sleep agent
// through the mutex class (time-outs counted in passes of the timer thread, equal ones in registration
// order, a moved waiter keeping its ticks, a released one never expiring); the handle registry's race.
#include <sys/ioctl.h>

#include <numeric>

#include "cm/registry.h"
#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

// Class 0xF0 records each request's value in serving order; the mutex class's time-out handler is
// wrapped to record whom it times out. Both records are read only after a reply byte (a pipe orders
// memory) has told that the writes are done, so they need no lock.
std::vector<uint64_t> g_served;
std::vector<LX_THREAD*> g_expired;
void Serve(uint16_t, CmServiceRequest* r) { g_served.push_back(r->u64Value), CompleteLocked(*r, LX_SUCCESS); }
void Expire(CmServiceRequest* r) { g_expired.push_back(r->psTarget), CM_MutexWakeUp(r); }
void Request(int* wrong, uint64_t thread) {  // 300 requests tagged with the thread and their number
  for (uint64_t i = 0; i < 300; ++i)
    *wrong += Issue(0xF1, nullptr, LX_NO_WAIT, thread << 32 | i) != LX_SUCCESS || OwnRequest().u16Service;
}

TEST_F(KernelTest, UnknownCodesAnswer29AndConcurrentRequestersLoseNothingAndLeaveNothingBehind) {
  ReplaceClassEntry(ClassIndex(0xF0), {Serve, nullptr});
  Issue(0x90);  // settles any descriptor opened on first use
  const int descriptors = OpenDescriptorCount();
  for (uint16_t code : {0x00, 0x0F, 0x40, 0x4F, 0x90, 0xA3, 0xFFFF}) EXPECT_EQ(Issue(code), LX_NOT_AVAILABLE) << code;
  CmServiceRequest finished{};  // an expiry captured after its request was released
  finished.u16Status = 1234;
  EXPECT_EQ((std::tuple{Issue(CM_OP_TIMEOUT, &finished), finished.u16Status}), std::tuple(LX_NOT_AVAILABLE, 1234));
  // The exported wake-up round trips, on a pipe and on none; the last signal closes both ends (counted below).
  ASSERT_EQ(::pipe(finished.ai32ReplyPipe), 0);
  EXPECT_EQ((std::vector<int32_t>{CM_WakeUpThreadEx(finished.ai32ReplyPipe[1]),
                                  CM_WaitingSignalEx(finished.ai32ReplyPipe[0]), CM_WakeUpThreadEx(-1),
                                  CM_WaitingSignalEx(-1), CM_WakeUpThread(&finished), CM_WaitingSignal(&finished)}),
            std::vector<int32_t>(6, 0));
  LX_THREAD handles[8] = {};
  int wrong[8] = {};
  for (uint64_t t = 0; t < 8; ++t)
    ASSERT_EQ(Spawn(&handles[t], "requester", [&wrong, t] { Request(&wrong[t], t); }), 0);
  for (LX_THREAD handle : handles) ASSERT_TRUE(Join(handle, 60s));
  int wakeBytes = -1;
  ::ioctl(S_i32CmPIPE[0], FIONREAD, &wakeBytes);
  EXPECT_EQ(std::tuple(std::accumulate(wrong, wrong + 8, 0), wakeBytes), std::tuple(0, 0));
  EXPECT_LE(OpenDescriptorCount(), descriptors);  // one open at the start may be a start-up line
  std::vector<uint64_t> served = g_served, next(8, 0);
  ASSERT_EQ(served.size(), 8u * 300);
  for (uint64_t tag : served) EXPECT_EQ(tag & 0xFFFFFFFF, next[tag >> 32]++);  // each thread's in its order
}

TEST_F(KernelTest, WaitsOfNTicksEndAfterPassNPlusOneInRegistrationOrderAndAMovedOneKeepsItsTicks) {
  ReplaceClassEntry(ClassIndex(CM_MUTEX_GET), {&CM_MutexFunction, Expire});
  LX_MUTEX mutex = nullptr;
  ASSERT_EQ((Statuses{_lx_MutexCreate(&mutex, "m", LX_NO_INHERIT), _lx_MutexGet(&mutex, LX_NO_WAIT)}), Statuses(2, 0));
  Waiters waiters;
  const auto park = [&](uint32_t wait, uint16_t priority = 32) -> Waiter& {
    return waiters.StartOn(mutex->sSuspendCtrl, std::bind(_lx_MutexGet, &mutex, wait), priority);
  };
  const auto passesUntil = [](const Waiter& w) {  // the pass after which the wait has ended
    for (int pass = 1; pass <= 10; ++pass)
      if (Timer().RunPasses(), StateOf(w.handle) == LX_STATE_READY) return pass;
    return 0;
  };
  Waiter &f = park(20), &forever = park(LX_WAIT_FOREVER), &a = park(2), &b = park(2), &c = park(4, 10);
  EXPECT_EQ((std::tuple{OnTimerThread([&] { return Statuses{Issue(CM_MUTEX_GET, &mutex, 5)}; }), SleepAgentEntries()}),
            std::tuple(Statuses{LX_WAIT_ERROR}, 4u));  // the timer thread would wait: refused
  Timer().RunPasses(2);
  ASSERT_EQ(_lx_MutexPrioritize(&mutex), LX_SUCCESS);  // c moves to the front
  EXPECT_EQ(passesUntil(a), 1);                        // a and b leave the middle and the end of the list
  EXPECT_EQ(Listed(mutex->sSuspendCtrl), (std::vector<LX_THREAD*>{&c.handle, &f.handle, &forever.handle}));
  EXPECT_EQ((std::tuple{g_expired, Waiters::StatusOf(a), Waiters::StatusOf(b)}),
            std::tuple(std::vector<LX_THREAD*>{&a.handle, &b.handle}, LX_NOT_AVAILABLE, LX_NOT_AVAILABLE));
  EXPECT_EQ(passesUntil(c), 2);        // registered with 4: the 5th pass, though moved to the front
  EXPECT_EQ(passesUntil(park(1)), 2);  // registered after the last registered wait ended
  // Handed over in arrival order; never expires then.
  EXPECT_EQ((std::tuple{_lx_MutexPut(&mutex), Waiters::StatusOf(f)}), std::tuple(0, 0u));
  Timer().RunPasses(20);
  EXPECT_EQ((std::tuple{g_expired.size(), SleepAgentEntries(), StateOf(forever.handle), _lx_MutexDelete(&mutex)}),
            std::tuple(4u, 0u, LX_STATE_MUTEX_WAIT, 0));  // the delete releases the last
}

// One thread looks a handle up while another registers it last and removes the slots below, which
// moves it down the table; a generation count (odd: registered) tells when a miss is a fault.
TEST(RegistryTest, AHandleIsFoundExactlyWhileRegisteredEvenWhileItMoves) {
  void* slots[kRegistrySlots] = {};
  int32_t count = 0;
  HandleRegistry registry{slots, count};
  int handles[kRegistrySlots + 1] = {}, &moving = handles[kRegistrySlots];
  for (int& handle : handles) EXPECT_EQ(registry.Add(&handle), &handle != &moving);  // full at 50
  for (int i = 0; i < kRegistrySlots; ++i) EXPECT_TRUE(registry.Remove(&handles[i]) && !registry.Contains(&handles[i]));
  std::atomic<long> generation{0}, misses{0}, checked{0};
  std::thread reader([&] {
    for (long before; (before = generation.load()) != -1;) {
      const bool found = before % 2 == 1 && registry.Contains(&moving);
      if (before % 2 == 1 && generation.load() == before) checked += 1, misses += !found;
    }
  });
  for (long round = 0; round < 20000 || (checked < 100000 && round < 20'000'000); ++round) {
    for (int i = 0; i < 20; ++i) registry.Add(&handles[i]);
    registry.Add(&moving), generation += 1;
    for (int i = 0; i < 20; ++i) registry.Remove(&handles[i]);  // the first removal moves it to slot 0
    generation += 1, registry.Remove(&moving);
  }
  generation = -1;
  reader.join();
  EXPECT_EQ(std::tuple(checked >= 100000, misses.load()), std::tuple(true, 0)) << "of " << checked << " look-ups";
}

}  // namespace
}  // namespace quorvin::test

// Mutex and pool services that find nothing queued are handled in the calling
// thread; CM_Request always goes through the dispatcher. Everything a caller
// can see must be the same either way, and the two kinds of request must
// meet on the same suspend lists.
#include <fcntl.h>

#include <array>
#include <cstdlib>
#include <mutex>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;

// One object class: the codes its services issue, and what it answers.
struct Subject {
  const char* name;
  uint16_t take, remove, prioritize, give;
  uint16_t waitState, unsatisfied, badHandle;
  char kind;      // 'm' mutex, 'b' block pool, 'y' byte pool
  int prefill;    // takes that leave exactly one unit free
};

constexpr Subject kSubjects[] = {
    {"mutex", CM_MUTEX_GET, CM_MUTEX_DELETE, CM_MUTEX_PRIORITIZE, CM_MUTEX_PUT, LX_STATE_MUTEX_WAIT,
     LX_NOT_AVAILABLE, LX_MUTEX_ERROR, 'm', 0},
    {"block pool", CM_BLOCK_ALLOCATE, CM_BLOCK_DELETE, CM_BLOCK_PRIORITIZE, CM_BLOCK_RELEASE,
     LX_STATE_BLOCK_POOL_WAIT, LX_NO_MEMORY, LX_POOL_ERROR, 'b', 1},
    {"byte pool", CM_BYTE_ALLOCATE, CM_BYTE_DELETE, CM_BYTE_PRIORITIZE, CM_BYTE_RELEASE, LX_STATE_BYTE_POOL_WAIT,
     LX_NO_MEMORY, LX_POOL_ERROR, 'y', 0},
};
constexpr uint64_t kBytes = 64;  // one byte-pool take; the pool has 100

// One object of a subject, reached through the services or through CM_Request.
struct Object {
  const Subject& s;
  bool services;
  void* word = nullptr;
  alignas(8) uint8_t area[128] = {};
  std::array<void*, 8> memory{};  // areas the pool services handed out, by slot

  Object(const Subject& subject, bool viaServices) : s(subject), services(viaServices) {
    const LX_STATUS created = s.kind == 'm' ? _lx_MutexCreate(M(), "d", LX_NO_INHERIT)
                              : s.kind == 'b' ? _lx_BlockPoolCreate(B(), "d", 16, area, 32)
                                              : _lx_BytePoolCreate(Y(), "d", area, 100);
    EXPECT_EQ(created, LX_SUCCESS);
  }
  ~Object() {  // areas still handed out when their pool was deleted
    for (void* m : memory)
      if (m != nullptr) detail::FreeArea(m);
  }
  LX_MUTEX* M() { return reinterpret_cast<LX_MUTEX*>(&word); }
  LX_BLOCK_POOL* B() { return reinterpret_cast<LX_BLOCK_POOL*>(&word); }
  LX_BYTE_POOL* Y() { return reinterpret_cast<LX_BYTE_POOL*>(&word); }
  const SuspendCtrl& List() {
    return s.kind == 'm' ? (*M())->sSuspendCtrl : s.kind == 'b' ? (*B())->sSuspendCtrl : (*Y())->sSuspendCtrl;
  }

  uint32_t Take(size_t slot, uint32_t wait) {
    if (!services) return Issue(s.take, &word, wait, kBytes);
    if (s.kind == 'm') return _lx_MutexGet(M(), wait);
    if (s.kind == 'b') return _lx_BlockAllocate(B(), &memory[slot], wait);
    return _lx_ByteAllocate(Y(), &memory[slot], kBytes, wait);
  }
  uint32_t Give(size_t slot) {
    if (!services) return Issue(s.give, &word, LX_NO_WAIT, kBytes);
    if (s.kind == 'm') return _lx_MutexPut(M());
    const uint32_t status = s.kind == 'b' ? _lx_BlockRelease(memory[slot]) : _lx_ByteRelease(memory[slot]);
    memory[slot] = nullptr;
    return status;
  }
  uint32_t Remove() {
    if (!services) return Issue(s.remove, &word);
    if (s.kind == 'm') return _lx_MutexDelete(M());
    return s.kind == 'b' ? _lx_BlockPoolDelete(B()) : _lx_BytePoolDelete(Y());
  }
  uint32_t Prioritize() {
    if (!services) return Issue(s.prioritize, &word);
    if (s.kind == 'm') return _lx_MutexPrioritize(M());
    return s.kind == 'b' ? _lx_BlockPoolPrioritize(B()) : _lx_BytePoolPrioritize(Y());
  }
};

// No descriptor is left open by the caller's last request.
uint32_t PipeClosed() {
  const CmServiceRequest& own = OwnRequest();
  return ::fcntl(own.ai32ReplyPipe[0], F_GETFD) == -1 && ::fcntl(own.ai32ReplyPipe[1], F_GETFD) == -1;
}

// Free and busy object; two waiters, the later one prioritized and served
// first; a time-out, a wait abort, a delete with a waiter; a call after it.
// Every waiter of a test comes from one Waiters: a thread handle word must
// not be used twice.
std::vector<uint32_t> Scenario(Object& o, Waiters& waiters) {
  std::vector<uint32_t> t;
  for (int i = 0; i < o.s.prefill; ++i) t.push_back(o.Take(7, LX_NO_WAIT));
  t.insert(t.end(), {o.Take(0, LX_NO_WAIT), OwnRequest().u16Service, PipeClosed()});
  t.insert(t.end(), {o.Take(1, LX_NO_WAIT), StateOf(*_lx_ThreadIdentify()), OwnRequest().u16Service});
  Waiter& first = waiters.StartOn(o.List(), [&o] { return o.Take(2, LX_WAIT_FOREVER); }, 20);
  Waiter& second = waiters.StartOn(o.List(), [&o] { return o.Take(3, 2); }, 10);
  t.insert(t.end(), {StateOf(first.handle), StateOf(second.handle), uint32_t(Waiting(o.List()))});
  t.insert(t.end(), {o.Prioritize(), o.Give(0), Waiters::StatusOf(second), uint32_t(Waiting(o.List()))});
  Waiter& late = waiters.StartOn(o.List(), [&o] { return o.Take(4, 2); }, 30);
  Timer().RunPasses(3);
  t.push_back(Waiters::StatusOf(late));
  Waiter& aborted = waiters.StartOn(o.List(), [&o] { return o.Take(5, LX_WAIT_FOREVER); });
  t.insert(t.end(), {_lx_ThreadWaitAbort(&aborted.handle), Waiters::StatusOf(aborted)});
  t.insert(t.end(), {uint32_t(Waiting(o.List())), uint32_t(SleepAgentEntries()), o.Remove()});
  t.insert(t.end(), {Waiters::StatusOf(first), o.Take(6, LX_NO_WAIT), PipeClosed()});
  return t;
}

using FastPathTest = KernelTest;

TEST_F(FastPathTest, ServicesAndDispatcherRequestsAgreeForEveryClass) {
  Waiters waiters;
  Timer().RunPasses(1);  // the stand-in timer thread's pipes are open before the count
  for (const Subject& s : kSubjects) {
    SCOPED_TRACE(s.name);
    const int descriptors = OpenDescriptorCount();
    Object viaServices(s, true), viaRequests(s, false);
    const std::vector<uint32_t> here = Scenario(viaServices, waiters);
    EXPECT_EQ(OwnRequest().ai32ReplyPipe[1], -1);  // the delete opened no pipe
    EXPECT_EQ(here, Scenario(viaRequests, waiters));
    std::vector<uint32_t> expected(s.prefill, LX_SUCCESS);
    expected.insert(expected.end(), {0, 0, 1, s.unsatisfied, LX_STATE_READY, 0, s.waitState, s.waitState, 2, 0, 0, 0,
                                     1, s.unsatisfied, 0, LX_WAIT_ABORTED, 1, 0, 0, LX_DELETED, s.badHandle, 1});
    EXPECT_EQ(here, expected);
    EXPECT_LE(OpenDescriptorCount(), descriptors);  // one open at the start may be a start-up line
  }
}

TEST_F(FastPathTest, ARequestFindingOthersQueuedWaitsItsTurn) {
  LX_MUTEX mutex = nullptr;
  ASSERT_EQ(_lx_MutexCreate(&mutex, "m", LX_NO_INHERIT), LX_SUCCESS);
  static std::vector<uint64_t> recorded;  // class 0xF0 records each request's value
  detail::ReplaceClassEntry(detail::ClassIndex(0xF0), {[](uint16_t, CmServiceRequest* r) {
    recorded.push_back(r->u64Value), detail::CompleteLocked(*r, LX_SUCCESS); }, nullptr});
  CmServiceRequest queued{};
  queued.u16Service = 0xF1;
  queued.u64Value = 7;
  {
    std::lock_guard lock(CmLock());  // queued, but the dispatcher is not woken yet
    ASSERT_EQ(detail::EnqueueLocked(queued), detail::Enqueued::kWakeDispatcher);
  }
  Waiters waiters;
  Waiter& getter = waiters.Start([&mutex] { return _lx_MutexGet(&mutex, LX_NO_WAIT); }, [&queued] {
    std::lock_guard lock(CmLock());
    return queued.psNext != nullptr;
  });
  EXPECT_FALSE(getter.Done());
  EXPECT_EQ(Peek(mutex->u32Available), 1u);
  detail::WakeDispatcher();
  detail::AwaitCompletion(queued);
  EXPECT_EQ(Waiters::StatusOf(getter), LX_SUCCESS);
  EXPECT_EQ(Peek(mutex->psOwner), &getter.handle);
  EXPECT_EQ([] { std::lock_guard lock(CmLock()); return recorded; }(), std::vector<uint64_t>{7});
  EXPECT_EQ(_lx_MutexDelete(&mutex), LX_SUCCESS);
}

TEST_F(FastPathTest, AWaiterParkedOneWayIsReleasedTheOther) {
  Waiters waiters;
  for (const bool parkHere : {true, false}) {
    SCOPED_TRACE(parkHere ? "parked by the service" : "parked by CM_Request");
    const int descriptors = OpenDescriptorCount();
    LX_MUTEX mutex = nullptr;
    ASSERT_EQ(_lx_MutexCreate(&mutex, "m", LX_NO_INHERIT), LX_SUCCESS);
    ASSERT_EQ(_lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);
    Waiter& waiter = waiters.StartOn(mutex->sSuspendCtrl, [&] {
      return parkHere ? _lx_MutexGet(&mutex, 50) : Issue(CM_MUTEX_GET, &mutex, 50);
    });
    EXPECT_EQ(SleepAgentEntries(), 1u);
    EXPECT_EQ(parkHere ? Issue(CM_MUTEX_PUT, &mutex) : _lx_MutexPut(&mutex), LX_SUCCESS);
    EXPECT_EQ(Waiters::StatusOf(waiter), LX_SUCCESS);
    EXPECT_EQ(SleepAgentEntries(), 0u);
    EXPECT_EQ(Peek(mutex->psOwner), &waiter.handle);
    EXPECT_EQ(_lx_MutexDelete(&mutex), LX_SUCCESS);
    EXPECT_LE(OpenDescriptorCount(), descriptors);  // one open at the start may be a start-up line
  }
}

}  // namespace
}  // namespace quorvin::test

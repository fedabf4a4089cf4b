// Mutex and pool services that find nothing queued are handled in the calling thread; CM_Request always goes
// through the dispatcher. Everything a caller can see must be the same either way, the two kinds of request
// must meet on the same suspend lists, and only a request that has to wait needs a descriptor.
#include <fcntl.h>
#include <sys/resource.h>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

// A byte pool, reached through the services or through CM_Request with the same codes. The byte pool's services
// take every step of the shared path (the grant and the heap area after it); the mutex's and the block pool's
// requests are handled by the same code, and the queued request and the descriptor shortage below go through them.
struct Object {
  bool here;                    // through the services
  LX_BYTE_POOL word = nullptr;  // the handle word
  void* memory[8] = {};         // areas the byte pool handed out, by slot
  alignas(8) uint8_t area[128] = {};

  explicit Object(bool services) : here(services) { EXPECT_EQ(_lx_BytePoolCreate(&word, "d", area, 100), LX_SUCCESS); }
  const SuspendCtrl& List() { return word->sSuspendCtrl; }
  // One service; the other way round when across.
  uint32_t Call(uint16_t code, size_t slot = 0, uint32_t wait = LX_NO_WAIT, bool across = false) {
    if (here == across) return Issue(code, &word, wait, 64);  // 64 of the byte pool's 100 bytes
    if (code == CM_BYTE_ALLOCATE) return _lx_ByteAllocate(&word, &memory[slot], 64, wait);
    if (code == CM_BYTE_RELEASE) return _lx_ByteRelease(std::exchange(memory[slot], nullptr));
    return code == CM_BYTE_DELETE ? _lx_BytePoolDelete(&word) : _lx_BytePoolPrioritize(&word);
  }
};

// No descriptor is left open by the caller's last request.
uint32_t PipeClosed() {
  return ::fcntl(OwnRequest().ai32ReplyPipe[0], F_GETFD) == -1 && ::fcntl(OwnRequest().ai32ReplyPipe[1], F_GETFD) == -1;
}

// A free and a busy object; two waiters, the later one parked the other way, prioritized and served first; a
// time-out, a wait abort, a delete with a waiter; a call after it. One Waiters per test: handle words are not reused.
std::vector<uint32_t> Scenario(Object& o, Waiters& waiters) {
  std::vector<uint32_t> t{o.Call(CM_BYTE_ALLOCATE), OwnRequest().u16Service, PipeClosed()};
  t.insert(t.end(), {o.Call(CM_BYTE_ALLOCATE, 1), StateOf(*_lx_ThreadIdentify()), OwnRequest().u16Service});
  Waiter& first =
      waiters.StartOn(o.List(), std::bind(&Object::Call, &o, CM_BYTE_ALLOCATE, 2, LX_WAIT_FOREVER, false), 20);
  Waiter& second = waiters.StartOn(o.List(), std::bind(&Object::Call, &o, CM_BYTE_ALLOCATE, 3, 2, true), 10);
  t.insert(t.end(), {StateOf(first.handle), StateOf(second.handle), uint32_t(Waiting(o.List()))});
  t.insert(t.end(), {o.Call(CM_BYTE_PRIORITIZE), o.Call(CM_BYTE_RELEASE), Waiters::StatusOf(second),
                     uint32_t(Waiting(o.List()))});
  Waiter& late = waiters.StartOn(o.List(), std::bind(&Object::Call, &o, CM_BYTE_ALLOCATE, 4, 2, false), 30);
  Timer().RunPasses(3);
  Waiter& aborted = waiters.StartOn(o.List(), [&o] { return o.Call(CM_BYTE_ALLOCATE, 5, LX_WAIT_FOREVER); });
  t.insert(t.end(), {Waiters::StatusOf(late), _lx_ThreadWaitAbort(&aborted.handle), Waiters::StatusOf(aborted)});
  t.insert(t.end(), {uint32_t(Waiting(o.List())), uint32_t(SleepAgentEntries()), o.Call(CM_BYTE_DELETE)});
  t.insert(t.end(), {Waiters::StatusOf(first), o.Call(CM_BYTE_ALLOCATE, 6), PipeClosed()});
  return t;
}

using FastPathTest = KernelTest;

TEST_F(FastPathTest, ServicesAndRequestsAgreeAQueuedRequestWaitsItsTurnAndNoDescriptorsAreNeededButToWait) {
  LX_BLOCK_POOL pool = nullptr;  // for the shortage at the end, outliving the waiters
  alignas(8) uint8_t area[32];
  void* got[3] = {};
  Waiters waiters;
  Object viaServices(true), viaRequests(false);
  const std::vector<uint32_t> here = Scenario(viaServices, waiters);
  EXPECT_EQ(here, Scenario(viaRequests, waiters));
  constexpr uint32_t kBusy = LX_NO_MEMORY, kWaiting = LX_STATE_BYTE_POOL_WAIT;
  EXPECT_EQ(here,
            (std::vector<uint32_t>{
                0, 0, 1, kBusy,      LX_STATE_READY, 0, kWaiting, kWaiting, 2, 0, 0, 0, 1, kBusy, 0, LX_WAIT_ABORTED,
                1, 0, 0, LX_DELETED, LX_POOL_ERROR,  1}));
  if (void* m = viaRequests.memory[3]) detail::FreeArea(m);  // granted through the services, its pool deleted since
  static LX_MUTEX mutex = nullptr;                           // kept for the process
  CmServiceRequest queued{};  // an unknown code, queued, but the dispatcher is not woken yet
  queued.u16Service = 0xF1;
  ASSERT_EQ(_lx_MutexCreate(&mutex, "q", LX_NO_INHERIT), LX_SUCCESS);
  ASSERT_EQ((std::lock_guard(detail::CmLock()), detail::EnqueueLocked(queued)), detail::Enqueued::kWakeDispatcher);
  Waiter& getter = waiters.Start([] { return _lx_MutexGet(&mutex, LX_NO_WAIT); },
                                 [&queued] { return std::lock_guard(detail::CmLock()), queued.psNext != nullptr; });
  detail::WakeDispatcher();
  detail::AwaitCompletion(queued);
  EXPECT_EQ((std::tuple{queued.u16Status, Waiters::StatusOf(getter), Peek(mutex->psOwner)}),
            std::tuple(LX_NOT_AVAILABLE, 0u, &getter.handle));
  // Without descriptors, what finishes at once succeeds, a wait is refused untouched and a release hands over.
  // Only locals inside the shortage: UBSan checks a polymorphic object (the fixture) through a pipe it cannot
  // open then, and reports a correct object as broken (docs/testing.md).
  ASSERT_EQ(Statuses(3, 0), (Statuses{_lx_BlockPoolCreate(&pool, "b", 16, area, 32),
                                      _lx_BlockAllocate(&pool, &got[0], 0), _lx_BlockAllocate(&pool, &got[1], 0)}));
  const int descriptors = OpenDescriptorCount();
  Waiter& waiter = waiters.StartOn(pool->sSuspendCtrl, [&] { return _lx_BlockAllocate(&pool, &got[2], 50); });
  rlimit saved{};  // the soft limit lowered, every number below it taken: no pipe can be opened
  ::getrlimit(RLIMIT_NOFILE, &saved);
  const rlimit low{static_cast<rlim_t>(OpenDescriptorCount() + 8), saved.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &low);
  std::vector<int> taken;
  for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken.push_back(fd);
  // A dispatcher request needs a descriptor, and so does an allocation that has to wait (its reply pipe):
  // refused, it leaves no trace. A release hands over through the waiter's own pipe, or finishes at once.
  EXPECT_EQ((std::tuple{Issue(CM_BLOCK_RELEASE, &pool), _lx_BlockAllocate(&pool, &got[0], 5), _lx_BlockRelease(got[0]),
                        Waiters::StatusOf(waiter), _lx_BlockRelease(got[1]), _lx_BlockAllocate(&pool, &got[1], 5),
                        Waiting(pool->sSuspendCtrl), SleepAgentEntries(), StateOf(*_lx_ThreadIdentify()),
                        OwnRequest().ai32ReplyPipe[0], Peek(pool->u32AvailableBlocks)}),
            std::tuple(LX_NOT_AVAILABLE, LX_NOT_AVAILABLE, 0, 0u, 0, 0, 0, 0u, LX_STATE_READY, -1, 0u));
  for (int fd : taken) ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptorCount() <= descriptors; }));  // nothing left open
  EXPECT_EQ(Statuses(3, 0), (Statuses{_lx_BlockRelease(got[1]), _lx_BlockRelease(got[2]), _lx_BlockPoolDelete(&pool)}));
}

}  // namespace
}  // namespace quorvin::test

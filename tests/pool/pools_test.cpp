// Block and byte pools: creation checks, zeroed and aligned memory, exact accounting, hand-over order,
// time-outs, aborts, prioritize, delete, refused releases and callers, and memory the heap refuses
// after the dispatcher granted it.
#include <sys/resource.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <thread>
#include <tuple>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

alignas(16) char g_area[512];  // named at creation, never written: zeros
void* g_out;
rlim_t g_pages;
constexpr rlim_t kMiB = 1024 * 1024, kBudget = 512 * kMiB;

// Memory taken without waiting, NULL if refused.
void* Take(LX_BLOCK_POOL& pool) { return _lx_BlockAllocate(&pool, &g_out, 0) == 0 ? g_out : nullptr; }
void* Take(LX_BYTE_POOL& pool, uint32_t n) { return _lx_ByteAllocate(&pool, &g_out, n, 0) == 0 ? g_out : nullptr; }
// Memory aligned for any type (given a 16-byte store that the sanitizers check), or NULL.
void* Aligned(void* m) {
  return reinterpret_cast<uintptr_t>(m) % alignof(std::max_align_t) ? nullptr
                                                                    : (*static_cast<long double*>(m) = 2.5L, m);
}

class PoolTest : public KernelTest {
 protected:
  // A thread whose allocation waits on the pool when this returns; got_ keeps what it receives.
  Waiter& Wait(LX_BLOCK_POOL& pool, uint16_t priority, uint32_t wait) {
    return waiters_.StartOn(pool->sSuspendCtrl, std::bind(_lx_BlockAllocate, &pool, Slot(), wait), priority);
  }
  Waiter& Wait(LX_BYTE_POOL& pool, uint16_t priority, uint32_t wait, uint32_t size) {
    return waiters_.StartOn(pool->sSuspendCtrl, std::bind(_lx_ByteAllocate, &pool, Slot(), size, wait), priority);
  }
  void** Slot() { return &got_.emplace_back(); }
  std::deque<void*> got_;
  Waiters waiters_;  // joined first, before what its threads write to
};

TEST_F(PoolTest, BlocksAreZeroedAndHandedOverInOrderTimedOutAbortedPrioritizedAndReleasedByTheDelete) {
  static LX_BLOCK_POOL pool = nullptr;
  EXPECT_EQ(
      (Statuses{_lx_BlockPoolCreate(nullptr, "x", 16, g_area, 32), _lx_BlockPoolCreate(&pool, "x", 16, nullptr, 30),
                _lx_BlockPoolCreate(&pool, "x", 16, nullptr, 16), _lx_BlockPoolCreate(&pool, "x", 16, g_area, 16),
                _lx_BlockPoolCreate(&pool, "x", 0, g_area, 16), _lx_BlockPoolCreate(&pool, "ten", 20, g_area, 200)}),
      (Statuses{LX_POOL_ERROR, LX_SIZE_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR, 0}));
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) std::memset(blocks.emplace_back(Aligned(Take(pool))), 0xA5, 20);
  Waiter &first = Wait(pool, 32, LX_WAIT_FOREVER), &second = Wait(pool, 32, LX_WAIT_FOREVER);
  EXPECT_EQ(
      (std::tuple{Take(pool), _lx_BlockRelease(blocks[0]), Waiters::StatusOf(first), FirstWaiter(pool->sSuspendCtrl),
                  std::memcmp(got_[0], g_area, 20), _lx_ThreadWaitAbort(&second.handle), Waiters::StatusOf(second)}),
      std::tuple(nullptr, 0, 0u, &second.handle, 0, 0, LX_WAIT_ABORTED));  // zeroed again
  Waiter& timed = Wait(pool, 32, 3);
  Timer().RunPasses(3);
  EXPECT_FALSE(timed.Done());
  Timer().RunPasses(1);
  EXPECT_EQ((std::tuple{Waiters::StatusOf(timed), got_[1], got_[2]}), std::tuple(LX_NO_MEMORY, nullptr, nullptr));
  Waiter &ten = Wait(pool, 10, LX_WAIT_FOREVER), &five = Wait(pool, 5, LX_WAIT_FOREVER);
  Waiter& fiveLast = Wait(pool, 5, LX_WAIT_FOREVER);  // ties with the one before it: the one nearer the end moves
  EXPECT_EQ((std::tuple{_lx_BlockPoolPrioritize(&pool), _lx_BlockRelease(blocks[1]), Waiters::StatusOf(fiveLast),
                        FirstWaiter(pool->sSuspendCtrl), _lx_BlockPoolDelete(&pool), Waiters::StatusOf(ten),
                        Waiters::StatusOf(five), pool}),
            std::tuple(0, 0, 0u, &ten.handle, 0, LX_DELETED, LX_DELETED, nullptr));
  EXPECT_EQ((Statuses{_lx_BlockAllocate(&pool, &g_out, 0), _lx_BlockPoolPrioritize(&pool), _lx_BlockRelease(blocks[2]),
                      _lx_BlockPoolDelete(&pool), Issue(CM_BLOCK_RELEASE, &pool), _lx_BlockRelease(g_area + 16),
                      _lx_ByteRelease(g_area + 16)}),
            Statuses(7, LX_POOL_ERROR));
  blocks.insert(blocks.end(), {got_[0], got_[5]});
  for (size_t i = 2; i < blocks.size(); ++i) FreeArea(blocks[i]);  // nothing else can free them now
}

TEST_F(PoolTest, BytesAreExactAFittingAllocationGoesAheadOneReleaseServesEveryWaiterItCanAndCallersAreChecked) {
  static LX_BLOCK_POOL blocks = nullptr, blocksFromTimer = nullptr;
  static LX_BYTE_POOL pool = nullptr, bytesFromTimer = nullptr;
  EXPECT_EQ((Statuses{_lx_BytePoolCreate(nullptr, "x", g_area, 100), _lx_BytePoolCreate(&pool, "x", nullptr, 99),
                      _lx_BytePoolCreate(&pool, "x", g_area, 99), _lx_BytePoolCreate(&pool, "bytes", g_area, 100),
                      _lx_BlockPoolCreate(&blocks, "b", 20, g_area, 60)}),
            (Statuses{LX_POOL_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, 0, 0}));
  void *block = nullptr, *untouched = &untouched;
  EXPECT_EQ(
      OnTimerThread([&]() -> Statuses {
        return (Statuses{_lx_BlockPoolCreate(&blocksFromTimer, "t", 16, g_area, 32), _lx_BlockPoolDelete(&blocks),
                         _lx_BlockAllocate(&blocks, &untouched, 5), _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT),
                         _lx_BlockPoolPrioritize(&blocks), _lx_BytePoolCreate(&bytesFromTimer, "t", g_area, 100),
                         _lx_BytePoolDelete(&pool), _lx_ByteAllocate(&pool, &untouched, 1, LX_NO_WAIT),
                         _lx_BytePoolPrioritize(&pool), _lx_BlockRelease(block)});
      }),
      (Statuses{19, 19, LX_WAIT_ERROR, 0, 0, 19, 19, 19, 0, 0}));
  void* mine[2] = {Take(blocks), Take(pool, 10)};
  Statuses outside;  // the caller is checked before the block's address, after the bytes' address
  std::thread([&] {
    outside = (Statuses{_lx_BlockAllocate(&blocks, &block, 0), _lx_BlockRelease(mine[0]), _lx_BlockRelease(nullptr),
                        _lx_BlockPoolPrioritize(&blocks), _lx_BlockPoolDelete(&blocks),
                        _lx_ByteAllocate(&pool, &block, 1, 0), _lx_ByteRelease(mine[1]), _lx_BytePoolPrioritize(&pool),
                        _lx_BytePoolDelete(&pool), _lx_ByteRelease(nullptr)});
  }).join();
  EXPECT_EQ(outside, (Statuses{2, 2, 2, 2, 2, 2, 2, 2, 2, LX_PTR_ERROR}));
  EXPECT_EQ((std::tuple{blocksFromTimer, bytesFromTimer, untouched, Peek(blocks->u32AvailableBlocks),
                        Peek(pool->u32AvailableBytes), _lx_BlockRelease(mine[0]), _lx_ByteRelease(mine[1])}),
            std::tuple(nullptr, nullptr, (void*)&untouched, 2u, 90u, 0, 0));
  for (uint32_t size : {1, 13, 64}) EXPECT_EQ(_lx_ByteRelease(Aligned(Take(pool, size))), LX_SUCCESS) << size;
  auto available = [] { return Peek(pool->u32AvailableBytes); };
  void *sixty = Take(pool, 60), *nothing = Take(pool, 0);
  Waiter& waiter = Wait(pool, 32, LX_WAIT_FOREVER, 60);
  void* thirty = Take(pool, 30);  // fits: does not queue behind the waiter
  EXPECT_EQ((std::tuple{available(), _lx_ByteRelease(sixty), Waiters::StatusOf(waiter), available()}),
            std::tuple(10u, 0, 0u, 10u));
  for (void* m : {nothing, thirty, got_[0]}) ASSERT_EQ(_lx_ByteRelease(m), LX_SUCCESS);
  void* taken[3] = {Take(pool, 40), Take(pool, 50), Take(pool, 10)};  // the last one an exact fit
  Waiter &big = Wait(pool, 32, LX_WAIT_FOREVER, 50), &small = Wait(pool, 10, LX_WAIT_FOREVER, 5);
  Waiter& timed = Wait(pool, 32, 2, 1);
  EXPECT_EQ((std::tuple{_lx_ByteRelease(taken[0]), available(), Waiting(pool->sSuspendCtrl)}), std::tuple(0, 40u, 3));
  Timer().RunPasses(3);  // the one that does not fit holds back those behind it
  EXPECT_EQ((std::tuple{Waiters::StatusOf(timed), small.Done(), _lx_ByteRelease(taken[2]), Waiters::StatusOf(big)}),
            std::tuple(LX_NO_MEMORY, false, 0, 0u));
  Waiter &tiny = Wait(pool, 10, LX_WAIT_FOREVER, 5), &last = Wait(pool, 10, LX_WAIT_FOREVER, 90);
  EXPECT_EQ((std::tuple{available(), _lx_ByteRelease(got_[1]), Waiters::StatusOf(small), Waiters::StatusOf(tiny),
                        available(), _lx_BytePoolDelete(&pool), Waiters::StatusOf(last), _lx_ByteRelease(taken[1])}),
            std::tuple(0u, 0, 0u, 0u, 40u, 0, LX_DELETED, LX_POOL_ERROR));
  for (void* m : {taken[1], got_[2], got_[4]}) FreeArea(m);
}

// Memory the heap refuses goes back to the pool, serving the next waiter, and the allocation answers
// LX_NO_MEMORY. The heap is made to refuse by an address-space limit below what the areas need.
rlim_t Mapped() { return (std::ifstream("/proc/self/statm") >> g_pages, g_pages * sysconf(_SC_PAGESIZE)); }
bool Limit(rlim_t bytes) { return setrlimit(RLIMIT_AS, std::array{rlimit{bytes, RLIM_INFINITY}}.data()) == 0; }

TEST_F(PoolTest, BytesWithoutHeapGoBackAndServeTheNextWaiter) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "sanitizer allocators do not return NULL under an address-space limit";
#endif
  const bool set = Limit(Mapped() / 2);
  void* probe = set ? std::malloc(64 * kMiB) : nullptr;  // an emulator may not enforce the limit
  Limit(RLIM_INFINITY);
  std::free(probe);
  if (!set || probe != nullptr) GTEST_SKIP() << "address-space limit not enforced here";
  static LX_BYTE_POOL pool = nullptr;
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "big", g_area, kBudget), LX_SUCCESS);
  void* all = Take(pool, kBudget);
  Waiter &first = Wait(pool, 32, LX_WAIT_FOREVER, 300 * kMiB), &second = Wait(pool, 32, LX_WAIT_FOREVER, 200 * kMiB);
  ASSERT_TRUE(Limit(Mapped() - kBudget + 100 * kMiB));  // once the budget's area is freed, 100 MiB more at most
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);          // grants the 300, given back, which grants the 200, given back
  void* refused = &refused;
  EXPECT_EQ((std::tuple{Waiters::StatusOf(first), Waiters::StatusOf(second), got_[0], got_[1],
                        _lx_ByteAllocate(&pool, &refused, 300 * kMiB, 0), refused, Limit(RLIM_INFINITY),
                        Waiting(pool->sSuspendCtrl), Peek(pool->u32AvailableBytes)}),
            std::tuple(LX_NO_MEMORY, LX_NO_MEMORY, nullptr, nullptr, LX_NO_MEMORY, &refused, true, 0, kBudget));
}

}  // namespace
}  // namespace quorvin::test

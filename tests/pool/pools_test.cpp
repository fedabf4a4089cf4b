// Block and byte pools: creation checks, zeroed and aligned memory, exact accounting, hand-over order,
// time-outs, aborts, prioritize, delete, refused releases and callers, and memory the heap refuses
// after the dispatcher granted it.
#include <sys/resource.h>

#include <cstring>
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
// Memory aligned for any type (as strictly as a long double, with a 16-byte store that the sanitizers check), or
// NULL.
void* Aligned(void* m) {
  return reinterpret_cast<uintptr_t>(m) % alignof(long double) ? nullptr : (*static_cast<long double*>(m) = 2.5L, m);
}

struct PoolTest : KernelTest {
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

TEST_F(PoolTest, BlocksAndBytesAreExactZeroedHandedOverInOrderTimedOutPrioritizedAbortedDeletedAndCallersChecked) {
  static LX_BLOCK_POOL ten = nullptr, blocks = nullptr, blocksFromTimer = nullptr;
  static LX_BYTE_POOL pool = nullptr, bytesFromTimer = nullptr;
  EXPECT_EQ(
      (Statuses{_lx_BytePoolCreate(nullptr, "x", g_area, 100), _lx_BytePoolCreate(&pool, "x", nullptr, 99),
                _lx_BytePoolCreate(&pool, "x", g_area, 99), _lx_BytePoolCreate(&pool, "bytes", g_area, 100),
                _lx_BlockPoolCreate(nullptr, "x", 16, g_area, 32), _lx_BlockPoolCreate(&blocks, "x", 16, nullptr, 30),
                _lx_BlockPoolCreate(&blocks, "x", 16, nullptr, 16), _lx_BlockPoolCreate(&blocks, "x", 16, g_area, 16),
                _lx_BlockPoolCreate(&blocks, "x", 0, g_area, 16), _lx_BlockPoolCreate(&blocks, "b", 20, g_area, 60),
                _lx_BlockPoolCreate(&ten, "ten", 20, g_area, 200)}),
      (Statuses{LX_POOL_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, 0, LX_POOL_ERROR, LX_SIZE_ERROR, LX_PTR_ERROR,
                LX_SIZE_ERROR, LX_SIZE_ERROR, 0, 0}));
  // Blocks: zeroed, handed over in order, timed out, prioritized, aborted and released by the delete.
  std::vector<void*> held;
  for (int i = 0; i < 10; ++i) std::memset(held.emplace_back(Aligned(Take(ten))), 0xA5, 20);
  Waiter &first = Wait(ten, 32, LX_WAIT_FOREVER), &timed = Wait(ten, 32, 3);
  EXPECT_EQ((std::tuple{_lx_BlockRelease(held[0]), Waiters::StatusOf(first), std::memcmp(got_[0], g_area, 20)}),
            std::tuple(0, 0u, 0));  // zeroed again
  Timer().RunPasses(3);
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_BLOCK_POOL_WAIT);
  Timer().RunPasses(1);
  Waiter &w10 = Wait(ten, 10, LX_WAIT_FOREVER), &w5 = Wait(ten, 5, LX_WAIT_FOREVER);
  Waiter& w5Last = Wait(ten, 5, LX_WAIT_FOREVER);  // ties with the one before it: the one nearer the end moves
  // What timed out or was aborted leaves no memory.
  EXPECT_EQ(
      (std::tuple{Waiters::StatusOf(timed), _lx_BlockPoolPrioritize(&ten), _lx_BlockRelease(held[1]),
                  Waiters::StatusOf(w5Last), FirstWaiter(ten->sSuspendCtrl), _lx_ThreadWaitAbort(&w5.handle),
                  Waiters::StatusOf(w5), _lx_BlockPoolDelete(&ten), Waiters::StatusOf(w10), ten, got_[1], got_[3]}),
      std::tuple(LX_NO_MEMORY, 0, 0, 0u, &w10.handle, 0, LX_WAIT_ABORTED, 0, LX_DELETED, nullptr, nullptr, nullptr));
  EXPECT_EQ((Statuses{_lx_BlockAllocate(&ten, &g_out, 0), _lx_BlockPoolPrioritize(&ten), _lx_BlockRelease(held[2]),
                      _lx_BlockPoolDelete(&ten), Issue(CM_BLOCK_RELEASE, &ten), _lx_BlockRelease(g_area + 16)}),
            Statuses(6, LX_POOL_ERROR));  // the last: memory that no pool handed out
  held.insert(held.end(), {got_[0], got_[4]});
  for (size_t i = 2; i < held.size(); ++i) FreeArea(held[i]);  // nothing else can free them now
  // Bytes: callers, exact accounting, a fitting allocation goes ahead, one release serves every waiter it can.
  void *block = nullptr, *untouched = &untouched;
  const auto onTimer = [&] {
    return (Statuses{_lx_BlockPoolCreate(&blocksFromTimer, "t", 16, g_area, 32), _lx_BlockPoolDelete(&blocks),
                     _lx_BlockAllocate(&blocks, &untouched, 5), _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT),
                     _lx_BytePoolCreate(&bytesFromTimer, "t", g_area, 100), _lx_BytePoolDelete(&pool),
                     _lx_ByteAllocate(&pool, &untouched, 1, LX_NO_WAIT), _lx_BlockRelease(block)});
  };
  EXPECT_EQ(OnTimerThread(onTimer), (Statuses{19, 19, LX_WAIT_ERROR, 0, 19, 19, 19, 0}));
  void* mine[2] = {Take(blocks), Take(pool, 10)};
  Statuses outside;  // the caller is checked before the block's address, after the bytes' address
  std::thread([&] {
    outside = (Statuses{_lx_BlockAllocate(&blocks, &block, 0), _lx_BlockRelease(mine[0]), _lx_BlockRelease(nullptr),
                        _lx_BlockPoolPrioritize(&blocks), _lx_BlockPoolDelete(&blocks),
                        _lx_ByteAllocate(&pool, &block, 1, 0), _lx_ByteRelease(mine[1]), _lx_BytePoolPrioritize(&pool),
                        _lx_BytePoolDelete(&pool), _lx_ByteRelease(nullptr)});
  }).join();
  EXPECT_EQ((std::tuple{outside, blocksFromTimer, bytesFromTimer, untouched, Peek(blocks->u32AvailableBlocks),
                        Peek(pool->u32AvailableBytes), _lx_BlockRelease(mine[0]), _lx_ByteRelease(mine[1])}),
            std::tuple(Statuses{2, 2, 2, 2, 2, 2, 2, 2, 2, LX_PTR_ERROR}, nullptr, nullptr, (void*)&untouched, 2u, 90u,
                       0, 0));
  for (uint32_t size : {1, 13, 64}) EXPECT_EQ(_lx_ByteRelease(Aligned(Take(pool, size))), LX_SUCCESS) << size;
  auto available = [] { return Peek(pool->u32AvailableBytes); };
  void* taken[4] = {Take(pool, 40), Take(pool, 50), Take(pool, 10), Take(pool, 0)};  // an exact fit, then nothing
  Waiter &big = Wait(pool, 32, LX_WAIT_FOREVER, 50), &small = Wait(pool, 10, LX_WAIT_FOREVER, 5);
  // The one that does not fit holds back the one behind it, which would fit; an allocation that fits goes ahead.
  EXPECT_EQ((std::tuple{_lx_ByteRelease(taken[0]), available(), Waiting(pool->sSuspendCtrl)}), std::tuple(0, 40u, 2));
  void* thirty = Take(pool, 30);
  EXPECT_EQ((std::tuple{available(), _lx_ByteRelease(thirty), _lx_ByteRelease(taken[3]), _lx_ByteRelease(taken[2]),
                        Waiters::StatusOf(big), available()}),
            std::tuple(10u, 0, 0, 0, 0u, 0u));
  Waiter &tiny = Wait(pool, 10, LX_WAIT_FOREVER, 5), &last = Wait(pool, 10, LX_WAIT_FOREVER, 90);
  EXPECT_EQ((std::tuple{_lx_ByteRelease(got_[5]), Waiters::StatusOf(small), Waiters::StatusOf(tiny), available(),
                        _lx_BytePoolDelete(&pool), Waiters::StatusOf(last), _lx_ByteRelease(taken[1])}),
            std::tuple(0, 0u, 0u, 40u, 0, LX_DELETED, LX_POOL_ERROR));
  for (void* m : {taken[1], got_[6], got_[7]}) FreeArea(m);
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

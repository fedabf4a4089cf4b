// Block and byte pools: creation checks, zeroed and aligned memory, exact accounting, hand-over order,
// time-outs, aborts, prioritize, delete, refused releases and callers, and memory the heap refuses
// after the dispatcher granted it.
#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <thread>
#include <tuple>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

char g_area[512];  // named at creation, never used
constexpr rlim_t kMiB = 1024 * 1024;

bool Zeroed(const void* memory, size_t size) {
  return std::all_of(static_cast<const char*>(memory), static_cast<const char*>(memory) + size,
                     [](char b) { return b == 0; });
}

class PoolTest : public KernelTest {
 protected:
  void TearDown() override { waiters_.JoinAll(); }
  // A thread whose allocation waits on the pool when this returns; memory_ keeps what it receives.
  template <typename Pool, typename... Size>
  Waiter& Wait(Pool& pool, uint16_t priority, uint32_t wait, Size... size) {
    void** memory = &memory_.emplace_back();
    return waiters_.StartOn(
        pool->sSuspendCtrl,
        [&pool, memory, wait, size...] {
          if constexpr (sizeof...(size) == 0)
            return _lx_BlockAllocate(&pool, memory, wait);
          else
            return _lx_ByteAllocate(&pool, memory, size..., wait);
        },
        priority);
  }
  // Memory taken without waiting (NULL if refused).
  template <typename Pool, typename... Size>
  static void* Take(Pool& pool, Size... size) {
    void* memory = nullptr;
    if constexpr (sizeof...(size) == 0)
      EXPECT_EQ(_lx_BlockAllocate(&pool, &memory, LX_NO_WAIT), LX_SUCCESS);
    else
      EXPECT_EQ(_lx_ByteAllocate(&pool, &memory, size..., LX_NO_WAIT), LX_SUCCESS) << (size + ...);
    return memory;
  }
  Waiters waiters_;
  std::deque<void*> memory_;
};

TEST_F(PoolTest, BlocksAreZeroedAndHandedOverInOrderTimedOutAbortedPrioritizedAndReleasedByTheDelete) {
  static LX_BLOCK_POOL pool = nullptr;
  EXPECT_EQ(
      (Statuses{_lx_BlockPoolCreate(nullptr, "x", 16, g_area, 32), _lx_BlockPoolCreate(&pool, "x", 16, nullptr, 30),
                _lx_BlockPoolCreate(&pool, "x", 16, nullptr, 16), _lx_BlockPoolCreate(&pool, "x", 16, g_area, 16),
                _lx_BlockPoolCreate(&pool, "x", 0, g_area, 16), _lx_BlockPoolCreate(&pool, "x", 0, g_area, 0)}),
      (Statuses{LX_POOL_ERROR, LX_SIZE_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR, LX_SIZE_ERROR}));
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "ten", 32, g_area, 320), LX_SUCCESS);
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) std::memset(blocks.emplace_back(Take(pool)), 0xA5, 32);  // the last block too
  void* none = &none;
  EXPECT_EQ((std::tuple{_lx_BlockAllocate(&pool, &none, LX_NO_WAIT), none}), std::tuple(LX_NO_MEMORY, (void*)&none));
  Waiter& first = Wait(pool, 32, LX_WAIT_FOREVER);
  Waiter& second = Wait(pool, 32, LX_WAIT_FOREVER);
  EXPECT_EQ((std::tuple{_lx_BlockRelease(blocks[0]), Waiters::StatusOf(first), FirstWaiter(pool->sSuspendCtrl)}),
            std::tuple(0, 0u, &second.handle));
  EXPECT_TRUE(Zeroed(memory_[0], 32));  // the released block comes back zeroed
  EXPECT_EQ((std::tuple{_lx_ThreadWaitAbort(&second.handle), Waiters::StatusOf(second)}),
            std::tuple(0, LX_WAIT_ABORTED));
  Waiter& timed = Wait(pool, 32, 3);
  Timer().RunPasses(3);
  EXPECT_FALSE(timed.Done());
  Timer().RunPasses(1);
  EXPECT_EQ((std::tuple{Waiters::StatusOf(timed), memory_[1], memory_[2], SleepAgentEntries()}),
            std::tuple(LX_NO_MEMORY, nullptr, nullptr, size_t{0}));
  Waiter& ten = Wait(pool, 10, LX_WAIT_FOREVER);
  Waiter& five = Wait(pool, 5, LX_WAIT_FOREVER);
  Waiter& fiveLast = Wait(pool, 5, LX_WAIT_FOREVER);  // ties with the one before it: the one nearer the end moves
  EXPECT_EQ((std::tuple{_lx_BlockPoolPrioritize(&pool), _lx_BlockRelease(blocks[1]), Waiters::StatusOf(fiveLast),
                        FirstWaiter(pool->sSuspendCtrl), _lx_BlockPoolDelete(&pool)}),
            std::tuple(0, 0, 0u, &ten.handle, 0));
  EXPECT_EQ((std::tuple{Waiters::StatusOf(ten), Waiters::StatusOf(five), pool}),
            std::tuple(LX_DELETED, LX_DELETED, nullptr));
  alignas(16) unsigned char foreign[32] = {};
  void* block = nullptr;
  EXPECT_EQ((Statuses{_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), _lx_BlockPoolPrioritize(&pool),
                      _lx_BlockRelease(blocks[2]), _lx_BlockPoolDelete(&pool), Issue(CM_BLOCK_RELEASE, &pool),
                      _lx_BlockRelease(foreign + 16), _lx_ByteRelease(foreign + 16)}),
            Statuses(7, LX_POOL_ERROR));
  blocks.insert(blocks.end(), {memory_[0], memory_[5]});
  for (size_t i = 2; i < blocks.size(); ++i) FreeArea(blocks[i]);  // nothing else can free them now
}

TEST_F(PoolTest, BytesAreExactAFittingAllocationGoesAheadAndOneReleaseServesEveryWaiterItCan) {
  static LX_BYTE_POOL pool = nullptr;
  EXPECT_EQ((Statuses{_lx_BytePoolCreate(nullptr, "x", g_area, 100), _lx_BytePoolCreate(&pool, "x", nullptr, 99),
                      _lx_BytePoolCreate(&pool, "x", g_area, 99), _lx_BytePoolCreate(&pool, "bytes", g_area, 100)}),
            (Statuses{LX_POOL_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR, 0}));
  auto available = [] { return Peek(pool->u32AvailableBytes); };
  void* sixty = Take(pool, 60);
  void* nothing = Take(pool, 0);
  Waiter& waiter = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{60});
  void* thirty = Take(pool, 30);  // fits: does not queue behind the waiter
  EXPECT_EQ((std::tuple{available(), _lx_ByteRelease(sixty), Waiters::StatusOf(waiter), available()}),
            std::tuple(10u, 0, 0u, 10u));
  for (void* m : {nothing, thirty, memory_[0]}) ASSERT_EQ(_lx_ByteRelease(m), LX_SUCCESS);
  void* taken[3] = {Take(pool, 40), Take(pool, 50), Take(pool, 10)};  // the last one an exact fit
  Waiter& big = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{50});
  Waiter& small = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{5});
  Waiter& timed = Wait(pool, 32, 2, uint64_t{1});
  EXPECT_EQ((std::tuple{_lx_ByteRelease(taken[0]), available(), Waiting(pool->sSuspendCtrl)}), std::tuple(0, 40u, 3));
  Timer().RunPasses(3);  // the one that does not fit holds back those behind it
  EXPECT_EQ((std::tuple{Waiters::StatusOf(timed), small.Done(), _lx_ByteRelease(taken[2]), Waiters::StatusOf(big)}),
            std::tuple(LX_NO_MEMORY, false, 0, 0u));
  Waiter& tiny = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{5});
  EXPECT_EQ((std::tuple{available(), _lx_ByteRelease(memory_[1]), Waiters::StatusOf(small), Waiters::StatusOf(tiny),
                        available()}),
            std::tuple(0u, 0, 0u, 0u, 40u));
  Waiter& last = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{90});
  char* name = nullptr;
  uint32_t u = 9;
  SuspendNode* first = nullptr;
  EXPECT_EQ((Statuses{_lx_BytePoolInfoGet(&pool, &name, &u, &u, &first, &u, nullptr), _lx_BytePoolDelete(&pool),
                      Waiters::StatusOf(last), _lx_ByteRelease(taken[1])}),
            (Statuses{LX_PTR_ERROR, 0, LX_DELETED, LX_POOL_ERROR}));
  for (void* m : {taken[1], memory_[2], memory_[4]}) FreeArea(m);
}

// Both pools hand out memory aligned for any type, whatever the size, with the header in front of it.
TEST_F(PoolTest, MemoryIsAlignedForAnyTypeAndTheTimerThreadAndOutsideThreadsAreRefused) {
  static LX_BLOCK_POOL blocks = nullptr, blocksFromTimer = nullptr;
  static LX_BYTE_POOL bytes = nullptr, bytesFromTimer = nullptr;
  ASSERT_EQ(
      (Statuses{_lx_BlockPoolCreate(&blocks, "odd", 20, g_area, 60), _lx_BytePoolCreate(&bytes, "b", g_area, 100)}),
      (Statuses{0, 0}));
  for (auto [memory, size] :
       {std::pair{Take(blocks), 20}, {Take(bytes, 1), 1}, {Take(bytes, 13), 13}, {Take(bytes, 64), 64}}) {
    static_assert(alignof(long double) == alignof(std::max_align_t));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % alignof(std::max_align_t), 0u) << size;
    if (size >= 16) *static_cast<long double*>(memory) = 2.5L;  // 16-aligned: the sanitizers check the store
    EXPECT_EQ(size == 20 ? _lx_BlockRelease(memory) : _lx_ByteRelease(memory), LX_SUCCESS) << size;
  }
  void *block = nullptr, *untouched = &untouched;
  EXPECT_EQ(
      OnTimerThread([&]() -> Statuses {
        return (Statuses{_lx_BlockPoolCreate(&blocksFromTimer, "t", 16, g_area, 32), _lx_BlockPoolDelete(&blocks),
                         _lx_BlockAllocate(&blocks, &untouched, 5), _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT),
                         _lx_BlockPoolPrioritize(&blocks), _lx_BytePoolCreate(&bytesFromTimer, "t", g_area, 100),
                         _lx_BytePoolDelete(&bytes), _lx_ByteAllocate(&bytes, &untouched, 1, LX_NO_WAIT),
                         _lx_BytePoolPrioritize(&bytes), _lx_BlockRelease(block)});
      }),
      (Statuses{19, 19, LX_WAIT_ERROR, 0, 0, 19, 19, 19, 0, 0}));
  EXPECT_EQ((std::tuple{blocksFromTimer, bytesFromTimer, untouched}), std::tuple(nullptr, nullptr, (void*)&untouched));
  void* mine[2] = {Take(blocks), Take(bytes, 10)};
  Statuses outside;
  std::thread([&] {
    void* out = nullptr;
    outside = (Statuses{_lx_BlockAllocate(&blocks, &out, LX_NO_WAIT), _lx_BlockRelease(mine[0]),
                        _lx_BlockRelease(nullptr),  // the caller is checked before the address
                        _lx_BlockPoolPrioritize(&blocks), _lx_BlockPoolDelete(&blocks),
                        _lx_ByteAllocate(&bytes, &out, 1, LX_NO_WAIT), _lx_ByteRelease(mine[1]),
                        _lx_BytePoolPrioritize(&bytes), _lx_BytePoolDelete(&bytes),
                        _lx_ByteRelease(nullptr)});  // the address is checked before the caller
  }).join();
  EXPECT_EQ(outside, (Statuses{2, 2, 2, 2, 2, 2, 2, 2, 2, LX_PTR_ERROR}));
  EXPECT_EQ((Statuses{Peek(blocks->u32AvailableBlocks), Peek(bytes->u32AvailableBytes), _lx_BlockRelease(mine[0]),
                      _lx_ByteRelease(mine[1]), _lx_BlockPoolDelete(&blocks), _lx_BytePoolDelete(&bytes)}),
            (Statuses{2, 90, 0, 0, 0, 0}));
}

// Memory the heap refuses goes back to the pool, serving the next waiter, and the allocation answers
// LX_NO_MEMORY. The heap is made to refuse by an address-space limit below what the areas need.
TEST_F(PoolTest, BytesWithoutHeapGoBackAndServeTheNextWaiter) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "sanitizer allocators do not return NULL under an address-space limit";
#endif
  const auto mapped = [] {
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
  };
  const auto limit = [](rlim_t bytes) {
    const rlimit value{bytes, RLIM_INFINITY};
    return setrlimit(RLIMIT_AS, &value) == 0;
  };
  const bool set = limit(mapped() / 2);
  void* probe = set ? std::malloc(64 * kMiB) : nullptr;  // an emulator may not enforce the limit
  limit(RLIM_INFINITY);
  std::free(probe);
  if (!set || probe != nullptr) GTEST_SKIP() << "address-space limit not enforced here";
  static LX_BYTE_POOL pool = nullptr;
  constexpr uint32_t kBudget = 512 * kMiB;
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "big", g_area, kBudget), LX_SUCCESS);
  void* all = Take(pool, kBudget);
  Waiter& first = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{300 * kMiB});
  Waiter& second = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{200 * kMiB});
  ASSERT_TRUE(limit(mapped() - kBudget + 100 * kMiB));  // once the budget's area is freed, 100 MiB more at most
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);          // grants the 300, given back, which grants the 200, given back
  void* refused = &refused;
  EXPECT_EQ((std::tuple{Waiters::StatusOf(first), Waiters::StatusOf(second), memory_[0], memory_[1],
                        _lx_ByteAllocate(&pool, &refused, 300 * kMiB, 0), refused}),
            std::tuple(LX_NO_MEMORY, LX_NO_MEMORY, nullptr, nullptr, LX_NO_MEMORY, (void*)&refused));
  ASSERT_TRUE(limit(RLIM_INFINITY));
  EXPECT_EQ((std::tuple{Waiting(pool->sSuspendCtrl), Peek(pool->u32AvailableBytes)}), std::tuple(0, kBudget));
}

}  // namespace
}  // namespace quorvin::test

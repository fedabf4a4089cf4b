// Block and byte pools: creation checks and the registry, zeroed and headed memory, hand-over order,
// head-of-line blocking, time-outs, aborts, prioritize, delete, refused releases and callers, and
// memory the heap refuses after the dispatcher granted it.
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
  template <typename Pool, typename... Args>
  Waiter& Wait(Pool& pool, uint16_t priority, uint32_t wait, Args... size) {
    void** memory = &memory_.emplace_back();
    return waiters_.StartOn(pool->sSuspendCtrl, [&pool, memory, wait, size...] {
      if constexpr (sizeof...(size) == 0) return _lx_BlockAllocate(&pool, memory, wait);
      else return _lx_ByteAllocate(&pool, memory, size..., wait);
    }, priority);
  }
  static void* Block(LX_BLOCK_POOL& pool) {
    void* block = nullptr;
    EXPECT_EQ(_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), LX_SUCCESS);
    return block;
  }
  static void* Bytes(LX_BYTE_POOL& pool, uint64_t size) {
    void* memory = nullptr;
    EXPECT_EQ(_lx_ByteAllocate(&pool, &memory, size, LX_NO_WAIT), LX_SUCCESS) << size;
    return memory;
  }
  static uint32_t InUse(LX_BLOCK_POOL& pool) {
    char* name = nullptr;
    uint32_t inUse = 0, total = 0, count = 0;
    SuspendNode* first = nullptr;
    LX_BLOCK_POOL* next = &pool;
    EXPECT_EQ(_lx_BlockPoolInfoGet(&pool, &name, &inUse, &total, &first, &count, &next), LX_SUCCESS);
    return next == &pool ? inUse : 0xBAD;  // the seventh pointer is never written
  }
  static uint32_t Available(LX_BYTE_POOL pool) { return Peek(pool->u32AvailableBytes); }

  Waiters waiters_;
  std::deque<void*> memory_;
};

TEST_F(PoolTest, BlockCreationTestsItsSizesInOrderAndTheRegistryHoldsFifty) {
  static LX_BLOCK_POOL many[51];
  for (auto [handle, blockSize, start, poolSize, expected] :
       {std::tuple{(LX_BLOCK_POOL*)nullptr, 16u, (void*)g_area, 32u, LX_POOL_ERROR}, {&many[0], 16u, nullptr, 30u, LX_SIZE_ERROR},
        {&many[0], 16u, nullptr, 16u, LX_PTR_ERROR}, {&many[0], 16u, g_area, 16u, LX_SIZE_ERROR},
        {&many[0], 0u, g_area, 16u, LX_SIZE_ERROR}, {&many[0], 0u, g_area, 0u, LX_SIZE_ERROR}}) {
    EXPECT_EQ(_lx_BlockPoolCreate(handle, "x", blockSize, start, poolSize), expected) << blockSize << "/" << poolSize;
  }
  EXPECT_EQ(std::tuple(many[0], S_i32BlockPoolIndex), std::tuple(nullptr, 0));
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_BlockPoolCreate(&many[i], "ABCDEFGHIJKLMNOPQRSTUVWXY", 16, g_area, 32), 0);
  EXPECT_STREQ(many[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(_lx_BlockPoolCreate(&many[50], "full", 16, g_area, 32), LX_POOL_ERROR);
  ASSERT_EQ(_lx_BlockPoolDelete(&many[7]), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockPoolCreate(&many[50], "reused", 16, g_area, 32), LX_SUCCESS);
  EXPECT_EQ(std::tuple(InUse(many[49]), InUse(many[50]), many[7]), std::tuple(0u, 0u, nullptr));
}

TEST_F(PoolTest, BlocksAreZeroedAndHeadedAndWaitersAreServedInOrderTimedOutAbortedPrioritizedAndDeleted) {
  static LX_BLOCK_POOL pool = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "ten", 32, g_area, 320), LX_SUCCESS);
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) {
    void* block = blocks.emplace_back(Block(pool));
    EXPECT_TRUE(Zeroed(block, 32)) << i;
    std::memset(block, 0xA5, 32);
  }
  void* none = &none;
  EXPECT_EQ(std::tuple(_lx_BlockAllocate(&pool, &none, LX_NO_WAIT), none), std::tuple(LX_NO_MEMORY, (void*)&none));
  Waiter& first = Wait(pool, 32, LX_WAIT_FOREVER);
  Waiter& second = Wait(pool, 32, LX_WAIT_FOREVER);
  EXPECT_EQ(StateOf(first.handle), LX_STATE_BLOCK_POOL_WAIT);
  ASSERT_EQ(_lx_BlockRelease(blocks[0]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(first), LX_SUCCESS);
  EXPECT_TRUE(Zeroed(memory_[0], 32));
  EXPECT_EQ(std::tuple(InUse(pool), FirstWaiter(pool->sSuspendCtrl)), std::tuple(10u, &second.handle));
  EXPECT_EQ(_lx_ThreadWaitAbort(&second.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(second), LX_WAIT_ABORTED);
  Waiter& timed = Wait(pool, 32, 3);
  Timer().RunPasses(3);
  EXPECT_FALSE(timed.Done());
  Timer().RunPasses(1);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(timed), StateOf(timed.handle), StateOf(second.handle)),
            std::tuple(LX_NO_MEMORY, LX_STATE_READY, LX_STATE_READY));
  EXPECT_EQ(std::tuple(memory_[1], memory_[2], SleepAgentEntries()), std::tuple(nullptr, nullptr, size_t{0}));
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);  // nobody waits
  Waiter& at31 = Wait(pool, 31, LX_WAIT_FOREVER);
  Wait(pool, 32, LX_WAIT_FOREVER);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_NOT_AVAILABLE);
  EXPECT_EQ(FirstWaiter(pool->sSuspendCtrl), &at31.handle);
  Waiter& ten = Wait(pool, 10, LX_WAIT_FOREVER);
  Wait(pool, 5, LX_WAIT_FOREVER);
  Waiter& fiveLast = Wait(pool, 5, LX_WAIT_FOREVER);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(pool->sSuspendCtrl), &fiveLast.handle);
  ASSERT_EQ(_lx_BlockRelease(blocks[1]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(fiveLast), LX_SUCCESS);
  EXPECT_EQ(std::tuple(FirstWaiter(pool->sSuspendCtrl), ten.Done()), std::tuple(&at31.handle, false));
  ASSERT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(at31), Waiters::StatusOf(ten), pool), std::tuple(1u, 1u, nullptr));
  void* block = nullptr;
  for (LX_STATUS s : {_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), _lx_BlockPoolPrioritize(&pool),
                      _lx_BlockRelease(blocks[2]), _lx_BlockPoolDelete(&pool), LX_STATUS{Issue(CM_BLOCK_RELEASE, &pool)}}) {
    EXPECT_EQ(s, LX_POOL_ERROR);
  }
  alignas(8) unsigned char foreign[32];
  std::memset(foreign, 0x5A, sizeof foreign);
  EXPECT_EQ(std::tuple(_lx_BlockRelease(foreign + 16), _lx_ByteRelease(foreign + 16)), std::tuple(2, 2));
  // A word reused by a new pool accepts the old blocks: in-use is then the unsigned difference.
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "reused", 16, g_area, 32), LX_SUCCESS);
  blocks[0] = memory_[0];
  blocks[1] = memory_[7];
  for (void* b : blocks) ASSERT_EQ(_lx_BlockRelease(b), LX_SUCCESS);
  EXPECT_EQ(std::tuple(InUse(pool), Issue(CM_BLOCK_ALLOCATE + 1, &pool)), std::tuple(0xFFFFFFF6u, LX_NOT_AVAILABLE));
  EXPECT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
}

TEST_F(PoolTest, BytesAreExactAFittingAllocationGoesAheadAndAWaiterThatDoesNotFitHoldsBackThoseBehind) {
  static LX_BYTE_POOL pool = nullptr;
  EXPECT_EQ(std::tuple(_lx_BytePoolCreate(nullptr, "x", g_area, 100), _lx_BytePoolCreate(&pool, "x", nullptr, 99),
                       _lx_BytePoolCreate(&pool, "x", g_area, 99)),
            std::tuple(LX_POOL_ERROR, LX_PTR_ERROR, LX_SIZE_ERROR));
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "bytes", g_area, 100), LX_SUCCESS);
  void* sixty = Bytes(pool, 60);
  EXPECT_TRUE(Zeroed(sixty, 60));
  void* nothing = Bytes(pool, 0);
  Waiter& waiter = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{60});
  EXPECT_EQ(StateOf(waiter.handle), LX_STATE_BYTE_POOL_WAIT);
  void* thirty = Bytes(pool, 30);  // fits: does not queue behind the waiter
  EXPECT_EQ(Available(pool), 10u);
  ASSERT_EQ(_lx_ByteRelease(sixty), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(waiter), Available(pool)), std::tuple(LX_SUCCESS, 10u));
  for (void* m : {nothing, thirty, memory_[0]}) ASSERT_EQ(_lx_ByteRelease(m), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 100u);
  void* taken[3] = {Bytes(pool, 40), Bytes(pool, 50), Bytes(pool, 10)};
  Waiter& big = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{50});
  Waiter& small = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{5});
  Waiter& timed = Wait(pool, 32, 2, uint64_t{1});
  ASSERT_EQ(_lx_ByteRelease(taken[0]), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), Waiting(pool->sSuspendCtrl)), std::tuple(40u, 3));
  Timer().RunPasses(3);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(timed), StateOf(timed.handle)), std::tuple(LX_NO_MEMORY, LX_STATE_READY));
  ASSERT_EQ(_lx_ByteRelease(taken[2]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(big), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), FirstWaiter(pool->sSuspendCtrl)), std::tuple(0u, &small.handle));
  Waiter& tiny = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{5});
  ASSERT_EQ(_lx_ByteRelease(memory_[1]), LX_SUCCESS);  // one release serves every waiter it can
  EXPECT_EQ(std::tuple(Waiters::StatusOf(small), Waiters::StatusOf(tiny), Available(pool)),
            std::tuple(LX_SUCCESS, LX_SUCCESS, 40u));
  Waiter& last = Wait(pool, 10, LX_WAIT_FOREVER, uint64_t{90});
  char* name = nullptr;
  uint32_t third = 9, fourth = 9, count = 9;
  SuspendNode* first = nullptr;
  EXPECT_EQ(_lx_BytePoolInfoGet(&pool, &name, &third, &fourth, &first, &count, nullptr), LX_PTR_ERROR);
  ASSERT_EQ(_lx_BytePoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(last), pool, S_i32BytePoolIndex), std::tuple(LX_DELETED, nullptr, 0));
  EXPECT_EQ(_lx_ByteRelease(taken[1]), LX_POOL_ERROR);
  for (void* m : {taken[1], memory_[2], memory_[4]}) FreeArea(m);
}

TEST_F(PoolTest, TheTimerThreadIsRefusedWhatCouldMakeItWaitAndOutsideThreadsAreRefused) {
  static LX_BLOCK_POOL blocks = nullptr, blocksFromTimer = nullptr;
  static LX_BYTE_POOL bytes = nullptr, bytesFromTimer = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&blocks, "blocks", 16, g_area, 32), LX_SUCCESS);
  ASSERT_EQ(_lx_BytePoolCreate(&bytes, "bytes", g_area, 100), LX_SUCCESS);
  void *block = nullptr, *untouched = &untouched;
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {_lx_BlockPoolCreate(&blocksFromTimer, "t", 16, g_area, 32), _lx_BlockPoolDelete(&blocks),
                      _lx_BlockAllocate(&blocks, &untouched, 5), _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT),
                      _lx_BlockPoolPrioritize(&blocks), _lx_BytePoolCreate(&bytesFromTimer, "t", g_area, 100),
                      _lx_BytePoolDelete(&bytes), _lx_ByteAllocate(&bytes, &untouched, 1, LX_NO_WAIT),
                      _lx_BytePoolPrioritize(&bytes), _lx_BlockRelease(block)};
            }),
            (Statuses{19, 19, LX_WAIT_ERROR, 0, 0, 19, 19, 19, 0, 0}));
  EXPECT_EQ(std::tuple(blocksFromTimer, bytesFromTimer, untouched), std::tuple(nullptr, nullptr, (void*)&untouched));
  void* mine[2] = {Block(blocks), Bytes(bytes, 10)};
  std::thread([&] {
    void* out = nullptr;
    for (LX_STATUS s : {_lx_BlockAllocate(&blocks, &out, LX_NO_WAIT), _lx_BlockRelease(mine[0]),
                        _lx_BlockRelease(nullptr),  // the caller is checked before the address
                        _lx_BlockPoolPrioritize(&blocks), _lx_BlockPoolDelete(&blocks),
                        _lx_ByteAllocate(&bytes, &out, 1, LX_NO_WAIT), _lx_ByteRelease(mine[1]),
                        _lx_BytePoolPrioritize(&bytes), _lx_BytePoolDelete(&bytes)}) EXPECT_EQ(s, LX_POOL_ERROR);
    EXPECT_EQ(_lx_ByteRelease(nullptr), LX_PTR_ERROR);  // the address is checked before the caller
  }).join();
  EXPECT_EQ(std::tuple(InUse(blocks), Available(bytes)), std::tuple(1u, 90u));
  EXPECT_EQ(std::tuple(_lx_BlockRelease(mine[0]), _lx_ByteRelease(mine[1])), std::tuple(0, 0));
  EXPECT_EQ(std::tuple(_lx_BlockPoolDelete(&blocks), _lx_BytePoolDelete(&bytes)), std::tuple(0, 0));
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
  void* all = Bytes(pool, kBudget);
  Waiter& first = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{300 * kMiB});
  Waiter& second = Wait(pool, 32, LX_WAIT_FOREVER, uint64_t{200 * kMiB});
  ASSERT_TRUE(limit(mapped() - kBudget + 100 * kMiB));  // once the budget's area is freed, 100 MiB more at most
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);  // grants the 300, given back, which grants the 200, given back
  EXPECT_EQ(std::tuple(Waiters::StatusOf(first), Waiters::StatusOf(second)), std::tuple(LX_NO_MEMORY, LX_NO_MEMORY));
  void* refused = &refused;
  EXPECT_EQ(std::tuple(memory_[0], memory_[1], _lx_ByteAllocate(&pool, &refused, 300 * kMiB, 0), refused),
            std::tuple(nullptr, nullptr, LX_NO_MEMORY, (void*)&refused));
  ASSERT_TRUE(limit(RLIM_INFINITY));
  EXPECT_EQ(std::tuple(Waiting(pool->sSuspendCtrl), Available(pool)), std::tuple(0, kBudget));
}

}  // namespace
}  // namespace quorvin::test

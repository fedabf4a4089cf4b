// Block and byte pools: creation checks and the registry, capacity, zeroed and headed memory, hand-over
// order, head-of-line blocking, time-outs, aborts, prioritize, delete, refused releases and callers, and
// memory the heap refuses after the dispatcher granted it.
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

char g_area[512];  // named at creation, never used
LX_BLOCK_POOL* const kUnwritten = reinterpret_cast<LX_BLOCK_POOL*>(0x5a5a);
constexpr rlim_t kMiB = 1024 * 1024;

rlim_t MappedBytes() {
  std::ifstream statm("/proc/self/statm");
  rlim_t pages = 0;
  statm >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

bool LimitAddressSpace(rlim_t bytes) {
  const rlimit limit{bytes, RLIM_INFINITY};
  return setrlimit(RLIMIT_AS, &limit) == 0;
}

// Whether a limit below what is mapped refuses new mappings (an emulator may ignore it).
bool LimitEnforced() {
  if (!LimitAddressSpace(MappedBytes() / 2)) return false;
  void* probe = mmap(nullptr, kMiB, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  LimitAddressSpace(RLIM_INFINITY);
  if (probe == MAP_FAILED) return true;
  munmap(probe, kMiB);
  return false;
}

class PoolTest : public KernelTest {
 protected:
  void TearDown() override { waiters_.JoinAll(); }

  // A thread that runs allocate(&its memory) and has begun to wait on list.
  Waiter& Wait(const SuspendCtrl& list, std::function<LX_STATUS(void**)> allocate, uint16_t priority = 32) {
    void** memory = &memory_.emplace_back();
    return waiters_.StartOn(list, [allocate, memory] { return allocate(memory); }, priority);
  }
  Waiter& WaitBlock(LX_BLOCK_POOL& pool, uint16_t priority = 32, uint32_t wait = LX_WAIT_FOREVER) {
    return Wait(pool->sSuspendCtrl, [&pool, wait](void** m) { return _lx_BlockAllocate(&pool, m, wait); }, priority);
  }
  Waiter& WaitBytes(LX_BYTE_POOL& pool, uint64_t size, uint16_t priority = 32, uint32_t wait = LX_WAIT_FOREVER) {
    return Wait(pool->sSuspendCtrl, [&pool, size, wait](void** m) { return _lx_ByteAllocate(&pool, m, size, wait); },
                priority);
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
    LX_BLOCK_POOL* next = kUnwritten;
    EXPECT_EQ(_lx_BlockPoolInfoGet(&pool, &name, &inUse, &total, &first, &count, &next), LX_SUCCESS);
    return next == kUnwritten ? inUse : 0xBAD;
  }
  static uint32_t Available(LX_BYTE_POOL pool) {  // not reported by info-get
    std::lock_guard lock(CmLock());
    return pool->u32AvailableBytes;
  }
  static bool Zeroed(const void* memory, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(memory);
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; });
  }
  // Frees an area whose pool is gone, as nothing else can.
  static void Discard(void* memory, size_t) { FreeArea(memory); }

  Waiters waiters_;
  std::deque<void*> memory_;  // what each waiter received, in start order
};

TEST_F(PoolTest, BlockCreateTestsSizesInOrderAndTheRegistryHoldsFiftyAndRegistersTwice) {
  static LX_BLOCK_POOL many[51];
  EXPECT_EQ(_lx_BlockPoolCreate(nullptr, "x", 16, g_area, 32), LX_POOL_ERROR);
  for (auto [blockSize, start, poolSize, expected] :  // multiple test, pool start, then room for a block + 8
       {std::tuple{16u, (void*)nullptr, 30u, LX_SIZE_ERROR}, {16u, nullptr, 16u, LX_PTR_ERROR},
        {16u, g_area, 16u, LX_SIZE_ERROR}, {0u, g_area, 16u, LX_SIZE_ERROR}, {0u, g_area, 0u, LX_SIZE_ERROR}}) {
    EXPECT_EQ(_lx_BlockPoolCreate(&many[0], "x", blockSize, start, poolSize), expected) << blockSize << "/" << poolSize;
  }
  EXPECT_EQ(std::tuple(many[0], S_i32BlockPoolIndex), std::tuple(nullptr, 0));
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_BlockPoolCreate(&many[i], "ABCDEFGHIJKLMNOPQRSTUVWXY", 16, g_area, 32), 0);
  EXPECT_STREQ(many[0]->acName, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(_lx_BlockPoolCreate(&many[50], "full", 16, g_area, 32), LX_POOL_ERROR);
  ASSERT_EQ(_lx_BlockPoolDelete(&many[7]), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockPoolCreate(&many[50], "reused", 16, g_area, 32), LX_SUCCESS);
  EXPECT_EQ(InUse(many[49]), 0u);  // moved into the freed slot, still found
  // A second create on one word registers it again; a delete then leaves a registration naming no pool.
  BlockPoolControlBlock* first = many[0];
  ASSERT_EQ(_lx_BlockPoolDelete(&many[1]), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockPoolCreate(&many[0], "again", 16, g_area, 64), LX_SUCCESS);
  EXPECT_EQ(S_i32BlockPoolIndex, 50);
  EXPECT_EQ(_lx_BlockPoolDelete(&many[0]), LX_SUCCESS);
  EXPECT_EQ(std::tuple(S_i32BlockPoolIndex, many[0]), std::tuple(49, nullptr));
  void* block = &block;
  for (LX_STATUS s : {_lx_BlockPoolDelete(&many[0]), _lx_BlockAllocate(&many[0], &block, LX_NO_WAIT)}) {
    EXPECT_EQ(s, LX_POOL_ERROR);  // the allocation is refused by the dispatcher, which finds no pool
  }
  EXPECT_EQ(block, &block);
  std::free(first);
}

TEST_F(PoolTest, TenZeroedHeadedBlocksHandedOverInOrderTimedOutOrAborted) {
  static LX_BLOCK_POOL pool = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "ten", 32, g_area, 320), LX_SUCCESS);
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) {
    void* block = blocks.emplace_back(Block(pool));
    LX_BLOCK_POOL* header = nullptr;
    std::memcpy(&header, static_cast<char*>(block) - 8, sizeof header);
    EXPECT_TRUE(Zeroed(block, 32) && header == &pool) << i;
    std::memset(block, 0xA5, 32);
  }
  void* none = &none;
  EXPECT_EQ(_lx_BlockAllocate(&pool, &none, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(none, &none);
  Waiter& first = WaitBlock(pool);
  Waiter& second = WaitBlock(pool);
  EXPECT_EQ(StateOf(first.handle), LX_STATE_BLOCK_POOL_WAIT);
  ASSERT_EQ(_lx_BlockRelease(blocks[0]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(first), LX_SUCCESS);
  EXPECT_TRUE(Zeroed(memory_[0], 32));
  EXPECT_EQ(std::tuple(InUse(pool), FirstWaiter(pool->sSuspendCtrl)), std::tuple(10u, &second.handle));
  EXPECT_EQ(_lx_ThreadWaitAbort(&second.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(second), LX_WAIT_ABORTED);
  Waiter& timed = WaitBlock(pool, 32, 3);
  Timer().RunPasses(3);
  EXPECT_FALSE(timed.Done());
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(timed), LX_NO_MEMORY);
  EXPECT_TRUE(StateOf(timed.handle) == LX_STATE_READY && StateOf(second.handle) == LX_STATE_READY);
  EXPECT_EQ(std::tuple(memory_[1], memory_[2], SleepAgentEntries()), std::tuple(nullptr, nullptr, size_t{0}));
  blocks[0] = memory_[0];
  for (void* block : blocks) ASSERT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
  EXPECT_EQ(InUse(pool), 0u);
  EXPECT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
}

TEST_F(PoolTest, PrioritizeThenDeleteReleasesWaitersAndOldOrForeignMemoryIsRefused) {
  static LX_BLOCK_POOL pool = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "two", 16, g_area, 32), LX_SUCCESS);  // the fewest 16-byte blocks
  void* held[2] = {Block(pool), Block(pool)};
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  Waiter& ten = WaitBlock(pool, 10);
  Waiter& fiveFirst = WaitBlock(pool, 5);
  Waiter& fiveLast = WaitBlock(pool, 5);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(pool->sSuspendCtrl), &fiveLast.handle);
  ASSERT_EQ(_lx_BlockRelease(held[0]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(fiveLast), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(pool->sSuspendCtrl), &ten.handle);
  EXPECT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(ten), Waiters::StatusOf(fiveFirst), pool), std::tuple(1u, 1u, nullptr));
  void* block = nullptr;
  for (LX_STATUS s : {_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), _lx_BlockPoolPrioritize(&pool),
                      _lx_BlockRelease(held[1]), _lx_BlockPoolDelete(&pool)}) EXPECT_EQ(s, LX_POOL_ERROR);
  EXPECT_EQ(Issue(CM_BLOCK_RELEASE, &pool), LX_POOL_ERROR);  // as if queued behind the delete
  alignas(8) unsigned char foreign[32];
  std::memset(foreign, 0x5A, sizeof foreign);
  EXPECT_EQ(std::tuple(_lx_BlockRelease(foreign + 16), _lx_ByteRelease(foreign + 16)),
            std::tuple(LX_POOL_ERROR, LX_POOL_ERROR));
  // A word reused by a new pool accepts the old blocks: in-use is then the unsigned difference.
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "reused", 16, g_area, 32), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockRelease(held[1]), LX_SUCCESS);
  EXPECT_EQ(InUse(pool), 0xFFFFFFFFu);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  EXPECT_EQ(Issue(CM_BLOCK_ALLOCATE + 1, &pool), LX_NOT_AVAILABLE);
  EXPECT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
  Discard(memory_[2], kBlockHeader);
}

TEST_F(PoolTest, BytesAreExactAFittingAllocationGoesAheadAndAWaiterThatDoesNotFitHoldsBackThoseBehind) {
  static LX_BYTE_POOL pool = nullptr;
  EXPECT_EQ(_lx_BytePoolCreate(&pool, "x", nullptr, 99), LX_PTR_ERROR);  // the start before the size
  EXPECT_EQ(_lx_BytePoolCreate(&pool, "x", g_area, 99), LX_SIZE_ERROR);
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "bytes", g_area, 100), LX_SUCCESS);
  void* sixty = Bytes(pool, 60);
  LX_BYTE_POOL* handle = nullptr;
  uint32_t size = 0;
  std::memcpy(&handle, static_cast<char*>(sixty) - 12, sizeof handle);
  std::memcpy(&size, static_cast<char*>(sixty) - 4, sizeof size);
  EXPECT_TRUE(Zeroed(sixty, 60) && handle == &pool && size == 60u);
  void* nothing = Bytes(pool, 0);
  Waiter& waiter = WaitBytes(pool, 60);
  EXPECT_EQ(StateOf(waiter.handle), LX_STATE_BYTE_POOL_WAIT);
  void* thirty = Bytes(pool, 30);  // fits: does not queue behind the waiter
  EXPECT_EQ(Available(pool), 10u);
  ASSERT_EQ(_lx_ByteRelease(sixty), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 10u);
  for (void* m : {nothing, thirty, memory_[0]}) ASSERT_EQ(_lx_ByteRelease(m), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 100u);
  void* taken[3] = {Bytes(pool, 40), Bytes(pool, 50), Bytes(pool, 10)};
  Waiter& big = WaitBytes(pool, 50);
  Waiter& small = WaitBytes(pool, 5, 10);
  Waiter& timed = WaitBytes(pool, 1, 32, 2);
  ASSERT_EQ(_lx_ByteRelease(taken[0]), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), Waiting(pool->sSuspendCtrl)), std::tuple(40u, 3));
  Timer().RunPasses(3);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(timed), StateOf(timed.handle)), std::tuple(LX_NO_MEMORY, LX_STATE_READY));
  ASSERT_EQ(_lx_ByteRelease(taken[2]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(big), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), FirstWaiter(pool->sSuspendCtrl)), std::tuple(0u, &small.handle));
  char* name = nullptr;
  uint32_t third = 9, fourth = 9, count = 9;
  SuspendNode* first = nullptr;
  LX_BYTE_POOL* next = nullptr;
  EXPECT_EQ(_lx_BytePoolInfoGet(&pool, &name, &third, &fourth, &first, &count, nullptr), LX_PTR_ERROR);
  ASSERT_EQ(_lx_BytePoolInfoGet(&pool, &name, &third, &fourth, &first, &count, &next), LX_SUCCESS);
  EXPECT_EQ(std::tuple(std::string(name), third, fourth, first->psOwner, count, next),
            std::tuple(std::string("bytes"), 0u, 1u, &small.handle, 1u, nullptr));
  ASSERT_EQ(_lx_BytePoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(small), pool, S_i32BytePoolIndex), std::tuple(LX_DELETED, nullptr, 0));
  EXPECT_EQ(_lx_ByteRelease(taken[1]), LX_POOL_ERROR);
  for (void* m : {taken[1], memory_[1]}) Discard(m, kByteHeader);
}

TEST_F(PoolTest, TimerThreadIsRefusedWhatCouldMakeItWaitAndOutsideThreadsAreRefused) {
  static LX_BLOCK_POOL blocks = nullptr, blocksFromTimer = nullptr;
  static LX_BYTE_POOL bytes = nullptr, bytesFromTimer = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&blocks, "blocks", 16, g_area, 32), LX_SUCCESS);
  ASSERT_EQ(_lx_BytePoolCreate(&bytes, "bytes", g_area, 100), LX_SUCCESS);
  void* block = nullptr;
  void* untouched = &untouched;
  EXPECT_EQ(OnTimerThread([&]() -> Statuses {
              return {_lx_BlockPoolCreate(&blocksFromTimer, "t", 16, g_area, 32), _lx_BlockPoolDelete(&blocks),
                      _lx_BlockAllocate(&blocks, &untouched, 5), _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT),
                      _lx_BlockPoolPrioritize(&blocks), _lx_BytePoolCreate(&bytesFromTimer, "t", g_area, 100),
                      _lx_BytePoolDelete(&bytes), _lx_ByteAllocate(&bytes, &untouched, 1, LX_NO_WAIT),
                      _lx_BytePoolPrioritize(&bytes), _lx_BlockRelease(block)};
            }),
            (Statuses{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_WAIT_ERROR, 0, 0, LX_CALLER_ERROR, LX_CALLER_ERROR,
                      LX_CALLER_ERROR, 0, 0}));
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
  if (!LimitEnforced()) GTEST_SKIP() << "address-space limit not enforced here";
  static LX_BYTE_POOL pool = nullptr;
  constexpr uint32_t kBudget = 512 * kMiB;
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "big", g_area, kBudget), LX_SUCCESS);
  void* all = Bytes(pool, kBudget);
  Waiter& first = WaitBytes(pool, 300 * kMiB);
  Waiter& second = WaitBytes(pool, 200 * kMiB);
  // Once the budget's area is freed, at most 100 MiB more may be mapped.
  ASSERT_TRUE(LimitAddressSpace(MappedBytes() - kBudget + 100 * kMiB));
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);  // grants the 300, given back, which grants the 200, given back
  EXPECT_EQ(std::tuple(Waiters::StatusOf(first), Waiters::StatusOf(second)), std::tuple(LX_NO_MEMORY, LX_NO_MEMORY));
  EXPECT_EQ(std::tuple(memory_[0], memory_[1]), std::tuple(nullptr, nullptr));
  void* refused = &refused;
  EXPECT_EQ(_lx_ByteAllocate(&pool, &refused, 300 * kMiB, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(refused, &refused);
  ASSERT_TRUE(LimitAddressSpace(RLIM_INFINITY));
  EXPECT_EQ(std::tuple(Waiting(pool->sSuspendCtrl), Available(pool)), std::tuple(0, kBudget));
}

}  // namespace
}  // namespace quorvin::test

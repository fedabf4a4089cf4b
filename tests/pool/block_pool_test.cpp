// Block pools: sizes and the registry, capacity and zeroed blocks, hand-over order, time-outs, aborts,
// prioritize, delete, foreign and dead-pool releases, and who may call.
#include <algorithm>
#include <cstring>
#include <deque>
#include <thread>
#include <tuple>
#include <vector>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

struct Info {
  char* name = nullptr;
  uint32_t inUse = 0xFFFF, total = 0xFFFF, suspended = 0xFFFF;
  SuspendNode* first = nullptr;
  LX_BLOCK_POOL* next = reinterpret_cast<LX_BLOCK_POOL*>(0x5a5a);  // never written
};

char g_area[4096];  // named at creation, never used

class BlockPoolTest : public KernelTest {
 protected:
  using Waiter = Waiters::Waiter;
  void TearDown() override {
    waiters_.JoinAll();
    for (LX_BLOCK_POOL& pool : pools_) EXPECT_TRUE(pool == nullptr || _lx_BlockPoolDelete(&pool) == LX_SUCCESS);
  }
  LX_BLOCK_POOL& NewPool(uint32_t blockSize, uint32_t poolSize) {
    LX_BLOCK_POOL& pool = pools_.emplace_back();
    EXPECT_EQ(_lx_BlockPoolCreate(&pool, "blocks", blockSize, g_area, poolSize), LX_SUCCESS);
    return pool;
  }
  static void* Take(LX_BLOCK_POOL& pool) {
    void* block = nullptr;
    EXPECT_EQ(_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), LX_SUCCESS);
    return block;
  }
  // A thread that asks for a block and keeps it in blocks_; returns once it is parked.
  Waiter& Wait(LX_BLOCK_POOL& pool, uint16_t priority = 32, uint32_t wait = LX_WAIT_FOREVER) {
    const uint32_t before = InfoOf(pool).suspended;
    void*& block = blocks_.emplace_back();
    Waiter& waiter = waiters_.Start([&pool, &block, wait] { return _lx_BlockAllocate(&pool, &block, wait); },
                                    [&pool, before] { return InfoOf(pool).suspended == before + 1; }, priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_BLOCK_POOL_WAIT);
    return waiter;
  }
  static Info InfoOf(LX_BLOCK_POOL& pool, LX_STATUS expected = LX_SUCCESS) {
    Info i;
    EXPECT_EQ(_lx_BlockPoolInfoGet(&pool, &i.name, &i.inUse, &i.total, &i.first, &i.suspended, &i.next), expected);
    EXPECT_EQ(i.next, Info{}.next);
    return i;
  }
  static LX_THREAD* FirstWaiter(LX_BLOCK_POOL& pool) {
    const SuspendNode* first = InfoOf(pool).first;
    return first != nullptr ? first->psOwner : nullptr;
  }
  // Frees a block whose pool is gone, as nothing else can.
  static void Discard(void* block) { std::free(static_cast<char*>(block) - kBlockHeader); }
  static bool Zeroed(const void* memory, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(memory);
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; });
  }

  Waiters waiters_;
  std::deque<LX_BLOCK_POOL> pools_;
  std::deque<void*> blocks_;
};

TEST_F(BlockPoolTest, CreateTestsSizesInOrderAndTheRegistryHoldsFiftyPools) {
  static LX_BLOCK_POOL many[51];
  EXPECT_EQ(_lx_BlockPoolCreate(nullptr, "x", 16, g_area, 32), LX_POOL_ERROR);
  for (auto [blockSize, start, poolSize, expected] :
       {std::tuple{16u, (void*)nullptr, 30u, LX_SIZE_ERROR},  // the multiple test comes first
        {16u, nullptr, 16u, LX_PTR_ERROR},                    // then the pool start
        {16u, g_area, 16u, LX_SIZE_ERROR},                    // then room for a block and its 8 bytes
        {0u, g_area, 16u, LX_SIZE_ERROR},  {0u, nullptr, 0u, LX_PTR_ERROR}, {0u, g_area, 0u, LX_SIZE_ERROR}}) {
    EXPECT_EQ(_lx_BlockPoolCreate(&many[0], "x", blockSize, start, poolSize), expected) << blockSize << " " << poolSize;
  }
  EXPECT_EQ(many[0], nullptr);
  EXPECT_EQ(S_i32BlockPoolIndex, 0);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(_lx_BlockPoolCreate(&many[i], "ABCDEFGHIJKLMNOPQRSTUVWXY", 16, g_area, 32), LX_SUCCESS);
  EXPECT_STREQ(InfoOf(many[0]).name, "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(std::tuple(InfoOf(many[0]).total, InfoOf(many[0]).inUse), std::tuple(2u, 0u));
  EXPECT_EQ(_lx_BlockPoolCreate(&many[50], "full", 16, g_area, 32), LX_POOL_ERROR);
  EXPECT_EQ(many[50], nullptr);
  Info o;
  EXPECT_EQ(_lx_BlockPoolInfoGet(&many[1], &o.name, nullptr, &o.total, &o.first, &o.suspended, &o.next), LX_PTR_ERROR);
  EXPECT_EQ(_lx_BlockPoolInfoGet(&many[1], &o.name, &o.inUse, &o.total, &o.first, &o.suspended, nullptr), LX_PTR_ERROR);
  ASSERT_EQ(_lx_BlockPoolDelete(&many[7]), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockPoolCreate(&many[50], "reused", 16, g_area, 32), LX_SUCCESS);
  EXPECT_EQ(InfoOf(many[49]).total, 2u);  // moved into the freed slot, still found
  InfoOf(many[7], LX_POOL_ERROR);
  for (int i = 0; i <= 50; ++i) {
    if (i != 7) {
      ASSERT_EQ(_lx_BlockPoolDelete(&many[i]), LX_SUCCESS) << i;
    }
  }
  // Creating twice on one word registers it twice; one delete leaves a registration naming no pool.
  LX_BLOCK_POOL& twice = NewPool(16, 32);
  void* leaked = twice;
  ASSERT_EQ(_lx_BlockPoolCreate(&twice, "again", 16, g_area, 64), LX_SUCCESS);
  EXPECT_EQ(S_i32BlockPoolIndex, 2);
  EXPECT_EQ(_lx_BlockPoolDelete(&twice), LX_SUCCESS);
  EXPECT_EQ(std::tuple(S_i32BlockPoolIndex, twice), std::tuple(1, nullptr));
  EXPECT_EQ(_lx_BlockPoolDelete(&twice), LX_POOL_ERROR);
  InfoOf(twice, LX_POOL_ERROR);
  void* block = &block;
  EXPECT_EQ(_lx_BlockAllocate(&twice, &block, LX_NO_WAIT), LX_POOL_ERROR);  // registered, but no pool behind it
  EXPECT_EQ(block, &block);
  std::free(leaked);
}

TEST_F(BlockPoolTest, TenZeroedBlocksFromThreeHundredTwentyBytesEachHeadedByThePool) {
  LX_BLOCK_POOL& pool = NewPool(32, 320);
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) {
    void* block = Take(pool);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(Zeroed(block, 32)) << i;
    LX_BLOCK_POOL* header = nullptr;
    std::memcpy(&header, static_cast<char*>(block) - 8, sizeof header);
    EXPECT_EQ(header, &pool);
    std::memset(block, 0xA5, 32);
    blocks.push_back(block);
  }
  void* none = &none;
  EXPECT_EQ(_lx_BlockAllocate(&pool, &none, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(none, &none);  // nothing stored
  EXPECT_EQ(std::tuple(InfoOf(pool).inUse, InfoOf(pool).total), std::tuple(10u, 10u));
  ASSERT_EQ(_lx_BlockRelease(blocks.back()), LX_SUCCESS);
  blocks.back() = Take(pool);
  EXPECT_TRUE(Zeroed(blocks.back(), 32));
  for (void* block : blocks) ASSERT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
  EXPECT_EQ(InfoOf(pool).inUse, 0u);
}

TEST_F(BlockPoolTest, ReleaseHandsTheBlockToTheFirstWaiterAndFiniteWaitsTimeOutOrAreAborted) {
  LX_BLOCK_POOL& pool = NewPool(16, 32);
  void* held[2] = {Take(pool), Take(pool)};
  Waiter& first = Wait(pool);
  Waiter& second = Wait(pool);
  EXPECT_EQ(FirstWaiter(pool), &first.handle);
  ASSERT_EQ(_lx_BlockRelease(held[0]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(first), LX_SUCCESS);
  EXPECT_TRUE(blocks_[0] != nullptr && Zeroed(blocks_[0], 16));
  EXPECT_EQ(StateOf(second.handle), LX_STATE_BLOCK_POOL_WAIT);
  EXPECT_EQ(std::tuple(InfoOf(pool).inUse, InfoOf(pool).suspended), std::tuple(2u, 1u));  // passed on, not counted
  EXPECT_EQ(FirstWaiter(pool), &second.handle);
  ASSERT_EQ(_lx_BlockRelease(blocks_[0]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(second), LX_SUCCESS);
  Waiter& timed = Wait(pool, 32, 3);
  Timer().RunPasses(3);
  EXPECT_EQ(InfoOf(pool).suspended, 1u);
  Timer().RunPasses(1);
  EXPECT_EQ(Waiters::StatusOf(timed), LX_NO_MEMORY);
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_READY);
  EXPECT_EQ(blocks_[2], nullptr);
  Waiter& aborted = Wait(pool, 32, 50);
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(aborted), LX_WAIT_ABORTED);
  EXPECT_EQ(StateOf(aborted.handle), LX_STATE_READY);
  EXPECT_TRUE(InfoOf(pool).suspended == 0u && SleepAgentEntries() == 0u);
  for (void* block : {held[1], blocks_[1]}) ASSERT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
  EXPECT_EQ(InfoOf(pool).inUse, 0u);
}

TEST_F(BlockPoolTest, PrioritizeMovesTheLastQueuedOfTheHighestPriorityBelow31ToTheFront) {
  LX_BLOCK_POOL& pool = NewPool(16, 32);  // two blocks: the smallest pool of 16-byte blocks
  void* held[2] = {Take(pool), Take(pool)};
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  Waiter& only = Wait(pool, 5);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(pool), &only.handle);
  EXPECT_EQ(_lx_ThreadWaitAbort(&only.handle), LX_SUCCESS);
  Waiter& first31 = Wait(pool, 31);
  Wait(pool, 31);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&pool), LX_NOT_AVAILABLE);
  EXPECT_EQ(FirstWaiter(pool), &first31.handle);
  ASSERT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
  LX_BLOCK_POOL& ordered = NewPool(16, 32);
  void* one = Take(ordered);
  void* two = Take(ordered);
  Waiter& ten = Wait(ordered, 10);
  Waiter& fiveFirst = Wait(ordered, 5);
  Waiter& fiveLast = Wait(ordered, 5, 40);
  EXPECT_EQ(_lx_BlockPoolPrioritize(&ordered), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(ordered), &fiveLast.handle);
  EXPECT_EQ(SleepAgentEntries(), 1u);  // still registered once
  ASSERT_EQ(_lx_BlockRelease(one), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(fiveLast), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(ordered), &ten.handle);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  ASSERT_EQ(_lx_BlockRelease(blocks_.back()), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(ten), LX_SUCCESS);
  EXPECT_FALSE(fiveFirst.Done());
  ASSERT_EQ(_lx_BlockRelease(blocks_[blocks_.size() - 3]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(fiveFirst), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockRelease(blocks_[blocks_.size() - 2]), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockRelease(two), LX_SUCCESS);
  EXPECT_EQ(InfoOf(ordered).inUse, 0u);
  for (void* block : held) Discard(block);
}

TEST_F(BlockPoolTest, DeleteReleasesWaitersAndRetiresTheHandleAndDeadOrForeignBlocksAreRefused) {
  LX_BLOCK_POOL& pool = NewPool(16, 32);
  void* held[2] = {Take(pool), Take(pool)};
  Waiter& forever = Wait(pool);
  Waiter& timed = Wait(pool, 32, 50);
  EXPECT_EQ(_lx_BlockPoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(pool, nullptr);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(forever), Waiters::StatusOf(timed)), std::tuple(LX_DELETED, LX_DELETED));
  EXPECT_EQ(std::tuple(StateOf(forever.handle), SleepAgentEntries()), std::tuple(LX_STATE_READY, size_t{0}));
  void* block = nullptr;
  for (LX_STATUS s : {_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), _lx_BlockPoolPrioritize(&pool),
                      _lx_BlockPoolDelete(&pool), _lx_BlockRelease(held[0])}) EXPECT_EQ(s, LX_POOL_ERROR);
  InfoOf(pool, LX_POOL_ERROR);
  // A release queued behind the delete finds the handle word cleared by the dispatcher.
  OwnRequest().u64Value = 0;
  EXPECT_EQ(Issue(CM_BLOCK_RELEASE, &pool), LX_POOL_ERROR);
  // Memory that never came from a pool: its "header" names no registered pool.
  alignas(8) unsigned char foreign[64] = {};
  std::memset(foreign, 0x5A, sizeof foreign);
  EXPECT_EQ(_lx_BlockRelease(foreign + 16), LX_POOL_ERROR);
  EXPECT_EQ(_lx_BlockRelease(nullptr), LX_PTR_ERROR);
  // A handle word reused by a new pool accepts the old blocks: counts beyond the total show as the
  // unsigned difference.
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "reused", 16, g_area, 32), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockRelease(held[0]), LX_SUCCESS);
  EXPECT_EQ(std::tuple(InfoOf(pool).inUse, InfoOf(pool).total), std::tuple(0xFFFFFFFFu, 2u));
  Discard(held[1]);
  EXPECT_EQ(Issue(0x12, &pool), LX_NOT_AVAILABLE);  // an operation the class does not know
}

TEST_F(BlockPoolTest, TimerThreadIsRefusedCreateDeleteAndWaitsAndOutsideThreadsAreRefused) {
  LX_BLOCK_POOL& pool = NewPool(16, 32);
  static LX_BLOCK_POOL fromTimer = nullptr;
  std::vector<LX_STATUS> statuses;
  void* block = nullptr;
  void* waited = &waited;
  Timer().Run([&] {
    statuses = {_lx_BlockPoolCreate(&fromTimer, "timer", 16, g_area, 32), _lx_BlockPoolDelete(&pool),
                _lx_BlockAllocate(&pool, &waited, 5), _lx_BlockAllocate(&pool, &block, LX_NO_WAIT),
                _lx_BlockPoolPrioritize(&pool)};
    statuses.push_back(_lx_BlockRelease(block));
  });
  EXPECT_EQ(statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_WAIT_ERROR, 0, 0, 0}));
  EXPECT_EQ(std::tuple(fromTimer, waited), std::tuple(nullptr, (void*)&waited));
  EXPECT_EQ(StateOf(*G_psTimer), LX_STATE_READY);
  void* mine = Take(pool);
  std::thread([&] {
    void* out = nullptr;
    for (LX_STATUS s : {_lx_BlockAllocate(&pool, &out, LX_NO_WAIT), _lx_BlockRelease(mine),
                        _lx_BlockRelease(nullptr),  // the caller is checked before the address
                        _lx_BlockPoolPrioritize(&pool), _lx_BlockPoolDelete(&pool)}) {
      EXPECT_EQ(s, LX_POOL_ERROR);
    }
    EXPECT_EQ(_lx_BlockAllocate(&pool, nullptr, LX_NO_WAIT), LX_POOL_ERROR);
  }).join();
  EXPECT_EQ(_lx_BlockAllocate(&pool, nullptr, LX_NO_WAIT), LX_PTR_ERROR);
  EXPECT_EQ(InfoOf(pool).inUse, 1u);
  EXPECT_EQ(_lx_BlockRelease(mine), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test

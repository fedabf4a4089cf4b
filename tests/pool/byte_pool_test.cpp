// Byte pools: creation, the budget, allocations that fit going ahead of waiters, head-of-line blocking,
// time-outs, aborts, prioritize, delete, refused releases and who may call.
#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
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
  uint32_t third = 0xFFFF, fourth = 0xFFFF, suspended = 0xFFFF;
  SuspendNode* first = nullptr;
  LX_BYTE_POOL* next = reinterpret_cast<LX_BYTE_POOL*>(0x5a5a);  // never written
};

char g_area[128];  // named at creation, never used

class BytePoolTest : public KernelTest {
 protected:
  using Waiter = Waiters::Waiter;
  void TearDown() override {
    waiters_.JoinAll();
    for (LX_BYTE_POOL& pool : pools_) EXPECT_TRUE(pool == nullptr || _lx_BytePoolDelete(&pool) == LX_SUCCESS);
  }
  LX_BYTE_POOL& NewPool(uint32_t size = 100) {
    LX_BYTE_POOL& pool = pools_.emplace_back();
    EXPECT_EQ(_lx_BytePoolCreate(&pool, "bytes", g_area, size), LX_SUCCESS);
    return pool;
  }
  static void* Take(LX_BYTE_POOL& pool, uint64_t size) {
    void* memory = nullptr;
    EXPECT_EQ(_lx_ByteAllocate(&pool, &memory, size, LX_NO_WAIT), LX_SUCCESS) << size;
    return memory;
  }
  // A thread that asks for size bytes and keeps them in memory_; returns once it is parked.
  Waiter& Wait(LX_BYTE_POOL& pool, uint64_t size, uint16_t priority = 32, uint32_t wait = LX_WAIT_FOREVER) {
    const uint32_t before = InfoOf(pool).suspended;
    void*& memory = memory_.emplace_back();
    Waiter& waiter = waiters_.Start([&pool, &memory, size, wait] { return _lx_ByteAllocate(&pool, &memory, size, wait); },
                                    [&pool, before] { return InfoOf(pool).suspended == before + 1; }, priority);
    EXPECT_EQ(StateOf(waiter.handle), LX_STATE_BYTE_POOL_WAIT);
    return waiter;
  }
  static Info InfoOf(LX_BYTE_POOL& pool, LX_STATUS expected = LX_SUCCESS) {
    Info i;
    EXPECT_EQ(_lx_BytePoolInfoGet(&pool, &i.name, &i.third, &i.fourth, &i.first, &i.suspended, &i.next), expected);
    EXPECT_EQ(i.next, Info{}.next);
    return i;
  }
  static LX_THREAD* FirstWaiter(LX_BYTE_POOL& pool) {
    const SuspendNode* first = InfoOf(pool).first;
    return first != nullptr ? first->psOwner : nullptr;
  }
  // The budget left, which info-get does not report.
  static uint32_t Available(LX_BYTE_POOL pool) {
    std::lock_guard lock(CmLock());
    return pool->u32AvailableBytes;
  }

  Waiters waiters_;
  std::deque<LX_BYTE_POOL> pools_;
  std::deque<void*> memory_;
};

TEST_F(BytePoolTest, CreateChecksInOrderAndInfoReportsZeroAndOneButNotTheBudget) {
  static LX_BYTE_POOL pool = nullptr;
  EXPECT_EQ(_lx_BytePoolCreate(nullptr, "x", g_area, 100), LX_POOL_ERROR);
  EXPECT_EQ(_lx_BytePoolCreate(&pool, "x", nullptr, 99), LX_PTR_ERROR);  // the start before the size
  EXPECT_EQ(_lx_BytePoolCreate(&pool, "x", g_area, 99), LX_SIZE_ERROR);
  EXPECT_EQ(std::tuple(pool, S_i32BytePoolIndex), std::tuple(nullptr, 0));
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "a byte pool named at length", g_area, 100), LX_SUCCESS);
  void* some = Take(pool, 30);
  const Info info = InfoOf(pool);
  EXPECT_STREQ(info.name, "a byte pool named a");
  EXPECT_EQ(std::tuple(info.third, info.fourth, info.first, info.suspended), std::tuple(0u, 1u, nullptr, 0u));
  Info o;
  EXPECT_EQ(_lx_BytePoolInfoGet(&pool, &o.name, &o.third, nullptr, &o.first, &o.suspended, &o.next), LX_PTR_ERROR);
  EXPECT_EQ(_lx_BytePoolInfoGet(&pool, &o.name, &o.third, &o.fourth, &o.first, &o.suspended, nullptr), LX_PTR_ERROR);
  ASSERT_EQ(_lx_ByteRelease(some), LX_SUCCESS);
  ASSERT_EQ(_lx_BytePoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(std::tuple(pool, S_i32BytePoolIndex), std::tuple(nullptr, 0));
  InfoOf(pool, LX_POOL_ERROR);
}

TEST_F(BytePoolTest, AllocationsAreZeroedHeadedAndExactAndOneThatFitsGoesAheadOfAWaiter) {
  LX_BYTE_POOL& pool = NewPool(100);
  void* sixty = Take(pool, 60);
  const auto* bytes = static_cast<const unsigned char*>(sixty);
  EXPECT_TRUE(std::all_of(bytes, bytes + 60, [](unsigned char b) { return b == 0; }));
  LX_BYTE_POOL* handle = nullptr;
  uint32_t size = 0;
  std::memcpy(&handle, bytes - 12, sizeof handle);
  std::memcpy(&size, bytes - 4, sizeof size);
  EXPECT_EQ(std::tuple(handle, size, Available(pool)), std::tuple(&pool, 60u, 40u));
  std::memset(sixty, 0xA5, 60);
  void* none = Take(pool, 0);  // granted at once, nothing taken
  EXPECT_EQ(Available(pool), 40u);
  Waiter& waiter = Wait(pool, 60);
  void* thirty = Take(pool, 30);  // fits: does not queue behind the waiter
  EXPECT_EQ(Available(pool), 10u);
  void* refused = &refused;
  EXPECT_EQ(_lx_ByteAllocate(&pool, &refused, 11, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(refused, &refused);
  ASSERT_EQ(_lx_ByteRelease(sixty), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 10u);
  const auto* granted = static_cast<const unsigned char*>(memory_[0]);
  EXPECT_TRUE(std::all_of(granted, granted + 60, [](unsigned char b) { return b == 0; }));
  for (void* memory : {none, thirty, memory_[0]}) ASSERT_EQ(_lx_ByteRelease(memory), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 100u);
}

TEST_F(BytePoolTest, AWaiterThatDoesNotFitHoldsBackSmallerWaitersBehindIt) {
  LX_BYTE_POOL& pool = NewPool(100);
  void* forty = Take(pool, 40);
  void* fifty = Take(pool, 50);
  void* ten = Take(pool, 10);
  Waiter& big = Wait(pool, 50);
  Waiter& small = Wait(pool, 5);
  ASSERT_EQ(_lx_ByteRelease(forty), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), InfoOf(pool).suspended), std::tuple(40u, 2u));
  ASSERT_EQ(_lx_ByteRelease(ten), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(big), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), FirstWaiter(pool)), std::tuple(0u, &small.handle));
  // One release serves every waiter that fits, in order: the 5 and a later 45, not the 60 behind them.
  Waiter& more = Wait(pool, 45);
  Waiter& blocked = Wait(pool, 60);
  ASSERT_EQ(_lx_ByteRelease(fifty), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(small), Waiters::StatusOf(more)), std::tuple(LX_SUCCESS, LX_SUCCESS));
  EXPECT_EQ(std::tuple(Available(pool), FirstWaiter(pool)), std::tuple(0u, &blocked.handle));
  EXPECT_EQ(_lx_BytePoolDelete(&pool), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(blocked), LX_DELETED);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(_lx_ByteRelease(memory_[i]), LX_POOL_ERROR);  // its pool is gone
  for (size_t i = 0; i < 3; ++i) std::free(static_cast<char*>(memory_[i]) - kByteHeader);
}

TEST_F(BytePoolTest, TimedWaitsExpireAbortsEndAndPrioritizeOnlyChangesTheOrder) {
  LX_BYTE_POOL& pool = NewPool(100);
  void* all = Take(pool, 100);
  Waiter& timed = Wait(pool, 10, 32, 2);
  Timer().RunPasses(3);
  EXPECT_EQ(Waiters::StatusOf(timed), LX_NO_MEMORY);
  EXPECT_EQ(StateOf(timed.handle), LX_STATE_READY);
  Waiter& aborted = Wait(pool, 10, 32, 50);
  EXPECT_EQ(_lx_ThreadWaitAbort(&aborted.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(aborted), LX_WAIT_ABORTED);
  EXPECT_EQ(SleepAgentEntries(), 0u);
  EXPECT_EQ(_lx_BytePoolPrioritize(&pool), LX_SUCCESS);
  Waiter& first = Wait(pool, 20, 10);
  Waiter& urgent = Wait(pool, 90, 5);
  EXPECT_EQ(_lx_BytePoolPrioritize(&pool), LX_SUCCESS);
  EXPECT_EQ(FirstWaiter(pool), &urgent.handle);
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);  // 100: the 90 first, then the 20 no longer fits
  EXPECT_EQ(Waiters::StatusOf(urgent), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Available(pool), first.Done()), std::tuple(10u, false));
  ASSERT_EQ(_lx_ByteRelease(memory_[3]), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(first), LX_SUCCESS);
  ASSERT_EQ(_lx_ByteRelease(memory_[2]), LX_SUCCESS);
  EXPECT_EQ(Available(pool), 100u);
  EXPECT_EQ(Issue(0x24, &pool), LX_NOT_AVAILABLE);  // an operation the class does not know
}

TEST_F(BytePoolTest, TimerThreadMayNotAllocateCreateOrDeleteAndOutsideThreadsAreRefused) {
  LX_BYTE_POOL& pool = NewPool(100);
  void* mine = Take(pool, 10);
  static LX_BYTE_POOL fromTimer = nullptr;
  std::vector<LX_STATUS> statuses;
  void* out = &out;
  Timer().Run([&] {
    statuses = {_lx_ByteAllocate(&pool, &out, 1, LX_NO_WAIT), _lx_BytePoolCreate(&fromTimer, "t", g_area, 100),
                _lx_BytePoolDelete(&pool), _lx_BytePoolPrioritize(&pool), _lx_ByteRelease(mine)};
  });
  EXPECT_EQ(statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_CALLER_ERROR, LX_CALLER_ERROR, 0, 0}));
  EXPECT_EQ(std::tuple(out, fromTimer, Available(pool)), std::tuple((void*)&out, nullptr, 100u));
  mine = Take(pool, 10);
  std::thread([&] {
    for (LX_STATUS s : {_lx_ByteAllocate(&pool, &out, 1, LX_NO_WAIT), _lx_ByteRelease(mine),
                        _lx_BytePoolPrioritize(&pool), _lx_BytePoolDelete(&pool)}) {
      EXPECT_EQ(s, LX_POOL_ERROR);
    }
    EXPECT_EQ(_lx_ByteRelease(nullptr), LX_PTR_ERROR);  // the address is checked before the caller
  }).join();
  alignas(8) unsigned char foreign[64];
  std::memset(foreign, 0x5A, sizeof foreign);
  EXPECT_EQ(_lx_ByteRelease(foreign + 16), LX_POOL_ERROR);
  EXPECT_EQ(Available(pool), 90u);
  EXPECT_EQ(_lx_ByteRelease(mine), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test

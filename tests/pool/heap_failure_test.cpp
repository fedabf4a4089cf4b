// Pools when the heap refuses the area after the dispatcher granted it: the grant goes back to the pool,
// serving the next waiter, and the allocation answers LX_NO_MEMORY. The heap is made to refuse by lowering
// the process's address-space limit below what the areas need (each test runs in its own process).
#include <sys/mman.h>
#include <sys/resource.h>

#include <fstream>
#include <mutex>
#include <tuple>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using namespace quorvin::detail;

char g_area[16];

// Address space the process maps now.
rlim_t MappedBytes() {
  std::ifstream statm("/proc/self/statm");
  rlim_t pages = 0;
  statm >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

class HeapFailureTest : public KernelTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "sanitizer allocators do not return NULL under an address-space limit";
#endif
    if (!LimitEnforced()) GTEST_SKIP() << "no address-space limit here (an emulator may ignore it)";
    KernelTest::SetUp();
  }
  // Whether a limit below what is mapped refuses a new mapping.
  static bool LimitEnforced() {
    const rlimit low{MappedBytes() / 2, RLIM_INFINITY};
    if (setrlimit(RLIMIT_AS, &low) != 0) return false;
    constexpr size_t kProbe = 1 << 20;
    void* probe = mmap(nullptr, kProbe, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Unlimit();
    if (probe == MAP_FAILED) return true;
    munmap(probe, kProbe);
    return false;
  }
  void TearDown() override { waiters_.JoinAll(); }
  // From now on the process may map at most `room` bytes beyond what it maps once `freed` bytes are gone.
  static void LimitTo(rlim_t freed, rlim_t room) {
    const rlimit limit{MappedBytes() - freed + room, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  }
  static void Unlimit() {
    const rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  }
  template <typename Pool>
  static bool Parked(Pool& pool, int32_t waiters) {
    std::lock_guard lock(CmLock());
    return pool->sSuspendCtrl.i32SuspendCount == waiters;
  }

  Waiters waiters_;
};

constexpr rlim_t kMiB = 1024 * 1024;

TEST_F(HeapFailureTest, ABlockWithoutHeapGoesBackToThePool) {
  static LX_BLOCK_POOL pool = nullptr;
  constexpr uint32_t kBlock = 256 * kMiB;
  ASSERT_EQ(_lx_BlockPoolCreate(&pool, "big", kBlock, g_area, 2 * kBlock), LX_SUCCESS);
  void* held[2] = {};
  for (void*& block : held) ASSERT_EQ(_lx_BlockAllocate(&pool, &block, LX_NO_WAIT), LX_SUCCESS);
  static void* waited = nullptr;
  auto& waiter = waiters_.Start([] { return _lx_BlockAllocate(&pool, &waited, LX_WAIT_FOREVER); },
                                [] { return Parked(pool, 1); });
  LimitTo(kBlock, kBlock / 2);
  ASSERT_EQ(_lx_BlockRelease(held[0]), LX_SUCCESS);  // handed to the waiter, whose area is refused
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_NO_MEMORY);
  EXPECT_EQ(waited, nullptr);
  void* refused = &refused;
  EXPECT_EQ(_lx_BlockAllocate(&pool, &refused, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(refused, &refused);
  Unlimit();
  {
    std::lock_guard lock(CmLock());
    EXPECT_EQ(std::tuple(pool->u32AvailableBlocks, pool->sSuspendCtrl.i32SuspendCount), std::tuple(1u, 0));
  }
  EXPECT_EQ(_lx_BlockRelease(held[1]), LX_SUCCESS);
}

TEST_F(HeapFailureTest, BytesWithoutHeapGoBackAndServeTheNextWaiter) {
  static LX_BYTE_POOL pool = nullptr;
  constexpr uint32_t kBudget = 512 * kMiB;
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "big", g_area, kBudget), LX_SUCCESS);
  void* all = nullptr;
  ASSERT_EQ(_lx_ByteAllocate(&pool, &all, kBudget, LX_NO_WAIT), LX_SUCCESS);
  static void* out[2] = {};
  auto& first = waiters_.Start([] { return _lx_ByteAllocate(&pool, &out[0], 300 * kMiB, LX_WAIT_FOREVER); },
                               [] { return Parked(pool, 1); });
  auto& second = waiters_.Start([] { return _lx_ByteAllocate(&pool, &out[1], 200 * kMiB, LX_WAIT_FOREVER); },
                                [] { return Parked(pool, 2); });
  LimitTo(kBudget, 100 * kMiB);
  // The 300 are granted and given back, which grants the 200, which are given back too.
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);
  EXPECT_EQ(std::tuple(Waiters::StatusOf(first), Waiters::StatusOf(second)), std::tuple(LX_NO_MEMORY, LX_NO_MEMORY));
  EXPECT_EQ(std::tuple(out[0], out[1]), std::tuple(nullptr, nullptr));
  Unlimit();
  {
    std::lock_guard lock(CmLock());
    EXPECT_EQ(std::tuple(pool->u32AvailableBytes, pool->sSuspendCtrl.i32SuspendCount), std::tuple(kBudget, 0));
  }
  void* some = nullptr;
  ASSERT_EQ(_lx_ByteAllocate(&pool, &some, 64, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_ByteRelease(some), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test

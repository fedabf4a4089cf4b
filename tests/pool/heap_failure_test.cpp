// Memory the heap refuses after the dispatcher granted it goes back to the pool, serving the next waiter, and
// the allocation answers LX_NO_MEMORY. The heap is made to refuse by an address-space limit below what the
// areas need (each test case runs in its own process).
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

using HeapFailureTest = KernelTest;

TEST_F(HeapFailureTest, BytesWithoutHeapGoBackAndServeTheNextWaiter) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "sanitizer allocators do not return NULL under an address-space limit";
#endif
  if (!LimitEnforced()) GTEST_SKIP() << "address-space limit not enforced here";
  static LX_BYTE_POOL pool = nullptr;
  static char area[16];
  constexpr uint32_t kBudget = 512 * kMiB;
  ASSERT_EQ(_lx_BytePoolCreate(&pool, "big", area, kBudget), LX_SUCCESS);
  void* all = nullptr;
  ASSERT_EQ(_lx_ByteAllocate(&pool, &all, kBudget, LX_NO_WAIT), LX_SUCCESS);
  static void* out[2] = {};
  auto parked = [](int32_t n) {
    return [n] { return Waiting(pool->sSuspendCtrl) == n; };
  };
  Waiters waiters;
  auto& first = waiters.Start([] { return _lx_ByteAllocate(&pool, &out[0], 300 * kMiB, LX_WAIT_FOREVER); }, parked(1));
  auto& second = waiters.Start([] { return _lx_ByteAllocate(&pool, &out[1], 200 * kMiB, LX_WAIT_FOREVER); }, parked(2));
  // Once the budget's area is freed, at most 100 MiB more may be mapped.
  ASSERT_TRUE(LimitAddressSpace(MappedBytes() - kBudget + 100 * kMiB));
  ASSERT_EQ(_lx_ByteRelease(all), LX_SUCCESS);  // grants the 300, given back, which grants the 200, given back
  EXPECT_EQ(std::tuple(Waiters::StatusOf(first), Waiters::StatusOf(second)), std::tuple(LX_NO_MEMORY, LX_NO_MEMORY));
  EXPECT_EQ(std::tuple(out[0], out[1]), std::tuple(nullptr, nullptr));
  void* refused = &refused;
  EXPECT_EQ(_lx_ByteAllocate(&pool, &refused, 300 * kMiB, LX_NO_WAIT), LX_NO_MEMORY);
  EXPECT_EQ(refused, &refused);
  ASSERT_TRUE(LimitAddressSpace(RLIM_INFINITY));
  EXPECT_TRUE(parked(0)());
  std::lock_guard lock(CmLock());
  EXPECT_EQ(pool->u32AvailableBytes, kBudget);
}

}  // namespace
}  // namespace quorvin::test

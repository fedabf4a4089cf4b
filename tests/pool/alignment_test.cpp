// Pool memory is aligned as malloc's is: any type can live there, and the
// header in front of it still names the pool (and, for bytes, the size).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "pool/pool_internal.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

struct alignas(16) Wide {
  uint64_t low, high;
};

// Stores a uint64_t, a double and a 16-byte aligned record at memory (UBSan
// checks the alignment of each access) and reads them back.
bool HoldsAnyType(void* memory, size_t size) {
  if (reinterpret_cast<uintptr_t>(memory) % alignof(std::max_align_t) != 0) return false;
  if (size < sizeof(Wide)) return true;
  auto* wide = static_cast<Wide*>(memory);
  *wide = Wide{0x0123456789abcdefu, 0xfedcba9876543210u};
  *static_cast<double*>(memory) = 2.5;
  *(static_cast<uint64_t*>(memory) + 1) += 1;
  return *static_cast<double*>(memory) == 2.5 && wide->high == 0xfedcba9876543211u;
}

template <typename T>
T HeaderField(void* memory, size_t offsetFromEnd) {
  T value{};
  std::memcpy(&value, static_cast<char*>(memory) - offsetFromEnd, sizeof value);
  return value;
}

TEST_F(KernelTest, BlocksAndBytesAreAlignedForAnyTypeWithTheirHeadersInFront) {
  static char area[1024];
  static LX_BLOCK_POOL blocks = nullptr;
  static LX_BYTE_POOL bytes = nullptr;
  ASSERT_EQ(_lx_BlockPoolCreate(&blocks, "odd", 20, area, 60), LX_SUCCESS);
  ASSERT_EQ(_lx_BytePoolCreate(&bytes, "bytes", area, 400), LX_SUCCESS);
  for (int round = 0; round < 2; ++round) {  // the second round reuses released areas
    std::vector<void*> out(3), held;
    for (void*& block : out) {
      ASSERT_EQ(_lx_BlockAllocate(&blocks, &block, LX_NO_WAIT), LX_SUCCESS);
      EXPECT_TRUE(HoldsAnyType(block, 20)) << block;
      EXPECT_EQ(HeaderField<LX_BLOCK_POOL*>(block, 8), &blocks);
    }
    for (uint32_t size : {0u, 1u, 7u, 12u, 13u, 64u, 100u}) {
      void* memory = nullptr;
      ASSERT_EQ(_lx_ByteAllocate(&bytes, &memory, size, LX_NO_WAIT), LX_SUCCESS) << size;
      EXPECT_TRUE(HoldsAnyType(memory, size)) << size;
      EXPECT_EQ(HeaderField<LX_BYTE_POOL*>(memory, 12), &bytes);
      EXPECT_EQ(HeaderField<uint32_t>(memory, 4), size);
      held.push_back(memory);
    }
    void* none = nullptr;
    EXPECT_EQ(_lx_ByteAllocate(&bytes, &none, 400 - 197 + 1, LX_NO_WAIT), LX_NO_MEMORY);  // exactly 197 taken
    for (void* block : out) EXPECT_EQ(_lx_BlockRelease(block), LX_SUCCESS);
    for (void* memory : held) EXPECT_EQ(_lx_ByteRelease(memory), LX_SUCCESS);
  }
  // Deleted with memory still out: the memory stays usable and its release is refused.
  void* block = nullptr;
  ASSERT_EQ(_lx_BlockAllocate(&blocks, &block, LX_NO_WAIT), LX_SUCCESS);
  ASSERT_EQ(_lx_BlockPoolDelete(&blocks), LX_SUCCESS);
  EXPECT_TRUE(HoldsAnyType(block, 20));
  EXPECT_EQ(_lx_BlockRelease(block), LX_POOL_ERROR);
  detail::FreeArea(block);  // nothing else can free it now
}

}  // namespace
}  // namespace quorvin::test

// Block pools and byte pools in the soak. Each class has a stable pool, whose
// accounting is checked, and a volatile one that the chaos thread deletes and
// re-creates under the workers (expendable workers use only that one, since a
// terminated thread cannot give its memory back).
//
// A worker allocates, finds the memory zero-filled, writes its own tag over
// all of it, may sleep a tick, finds its tag intact and releases. Accounting:
// - a block pool's in-use count (info-get) never exceeds its total, nor the
//   number of workers that can hold a block of it;
// - at rest (gate closed: nobody inside an operation) and at the end, a
//   block pool reports 0 in use of its total and no waiter, and a byte pool
//   grants its whole budget at once and not one byte more;
// - a pool never keeps waiters while it could serve them (lost wake-up).
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "soak.h"

namespace soak {
namespace {

constexpr uint32_t kBlockSize = 64, kBlocks = 3;
constexpr uint32_t kBudget = 400, kLargest = 200;
// Header in front of the memory the pools hand out (pool handle; byte pools
// add the size).
constexpr size_t kAreaFront = alignof(std::max_align_t);  // the pool area starts that far in front
constexpr int64_t kRestCheckMs = 1500;
constexpr int kRestTicks = 300;

unsigned char g_area[kBudget];  // the pool area create asks for; never used

// One word written over a worker's memory: who holds it and which operation.
uint64_t TagOf(Worker& self) { return uint64_t(self.index + 1) << 48 | (self.rng() & 0xFFFFFFFFFFFF); }

bool AllZero(const unsigned char* memory, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (memory[i] != 0) return false;
  }
  return true;
}

void Stamp(unsigned char* memory, size_t size, uint64_t tag) {
  for (size_t i = 0; i < size; ++i) memory[i] = static_cast<unsigned char>(tag >> (i % 8 * 8));
}

bool Stamped(const unsigned char* memory, size_t size, uint64_t tag) {
  for (size_t i = 0; i < size; ++i) {
    if (memory[i] != static_cast<unsigned char>(tag >> (i % 8 * 8))) return false;
  }
  return true;
}

// Fills, holds and checks memory a worker was granted; false on a fault.
bool Use(Worker& self, void* memory, size_t size, const char* pool) {
  auto* bytes = static_cast<unsigned char*>(memory);
  if (!AllZero(bytes, size)) {
    Fail("%s: %s was handed %zu bytes that were not zero-filled", pool, self.name, size);
    return false;
  }
  const uint64_t tag = TagOf(self);
  Stamp(bytes, size, tag);
  if (self.rng() % 2 == 0) _lx_ThreadSleep(1);
  if (!Stamped(bytes, size, tag)) {
    Fail("%s: memory held by %s was written by another owner", pool, self.name);
    return false;
  }
  return true;
}

// A release refused because the pool was deleted leaves the heap area to the
// caller.
void Discard(void* memory) { std::free(static_cast<unsigned char*>(memory) - kAreaFront); }

// --- Block pools. ---

LX_BLOCK_POOL g_blocks, g_volatileBlocks;
Gate g_blockGate;
Counts g_blockCounts;
int64_t g_blockRest = 0;
uint64_t g_blockRests = 0;

void CreateBlockPool(LX_BLOCK_POOL& pool, const char* name) {
  Expect(_lx_BlockPoolCreate(&pool, name, kBlockSize, g_area, kBlockSize * kBlocks), {LX_SUCCESS}, "block pool create");
}

void BlockCreate() {
  CreateBlockPool(g_blocks, "blocks");
  CreateBlockPool(g_volatileBlocks, "volatile blocks");
}

void BlockWork(Worker& self) {
  const bool stable = !self.expendable && self.rng() % 4 != 0;
  if (stable && !g_blockGate.Enter()) return;
  LX_BLOCK_POOL* pool = stable ? &g_blocks : &g_volatileBlocks;
  const uint32_t wait = RandomWait(self);
  void* block = nullptr;
  const LX_STATUS got = Timed(self, stable ? "block allocate" : "block allocate (volatile)", wait, g_blockCounts,
                              LX_NO_MEMORY, [&] { return _lx_BlockAllocate(pool, &block, wait); });
  if (stable) {
    Expect(got, {LX_SUCCESS, LX_NO_MEMORY, LX_WAIT_ABORTED}, "block allocate");
  } else {  // the pool may be deleted under the call; terminate clears a request in flight
    Expect(got, {LX_SUCCESS, LX_NO_MEMORY, LX_WAIT_ABORTED, LX_DELETED, LX_POOL_ERROR, LX_NOT_AVAILABLE},
           "volatile block allocate");
  }
  if (got == LX_SUCCESS) {
    Use(self, block, kBlockSize, "block pool");
    if (stable && InjectOnce("block-leak")) {
      g_blockGate.Leave();
      return;
    }
    const LX_STATUS released =
        Timed(self, "block release", LX_NO_WAIT, g_blockCounts, LX_NO_MEMORY, [&] { return _lx_BlockRelease(block); });
    if (stable) {
      Expect(released, {LX_SUCCESS}, "block release");
    } else {
      Expect(released, {LX_SUCCESS, LX_POOL_ERROR, LX_NOT_AVAILABLE}, "volatile block release");
      if (released == LX_POOL_ERROR) Discard(block);
    }
  }
  if (stable) g_blockGate.Leave();
}

struct BlockInfo {
  uint32_t inUse = 0, total = 0, waiters = 0;
};

bool ReadBlocks(BlockInfo& info) {
  char* name = nullptr;
  SuspendNode* first = nullptr;
  LX_BLOCK_POOL* next = nullptr;
  return _lx_BlockPoolInfoGet(&g_blocks, &name, &info.inUse, &info.total, &first, &info.waiters, &next) ==
         LX_SUCCESS;
}

// While workers run: in use at most the total, and at most one block for
// each worker that was inside, or came in, while info-get looked.
void BlockBounds() {
  const int inside = g_blockGate.Inside();
  const uint64_t entries = g_blockGate.Entries();
  BlockInfo info;
  if (!ReadBlocks(info)) {
    Fail("block pool: info-get failed on the stable pool");
    return;
  }
  const uint64_t holders = uint64_t(inside) + (g_blockGate.Entries() - entries);
  if (info.total != kBlocks || info.inUse > info.total || info.inUse > holders) {
    Fail("block pool accounting: %" PRIu32 " of %" PRIu32 " in use, at most %" PRIu64 " holders", info.inUse,
         info.total, holders);
  }
}

// At rest every block is back and nobody waits.
void BlockAtRest(const char* when) {
  BlockInfo info;
  if (!ReadBlocks(info) || info.inUse != 0 || info.total != kBlocks || info.waiters != 0) {
    Fail("block pool accounting %s: %" PRIu32 " of %" PRIu32 " in use and %" PRIu32 " waiters, no worker holding", when,
         info.inUse, info.total, info.waiters);
  }
}

void BlockChaos(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0:
      Expect(_lx_BlockPoolPrioritize(rng() % 2 == 0 ? &g_blocks : &g_volatileBlocks), {LX_SUCCESS, LX_NOT_AVAILABLE},
             "block pool prioritize");
      break;
    case 1:
      Expect(_lx_BlockPoolDelete(&g_volatileBlocks), {LX_SUCCESS}, "block pool delete");
      CreateBlockPool(g_volatileBlocks, "volatile blocks");
      break;
    case 2:
      BlockBounds();
      break;
    default:
      if (!Due(g_blockRest, kRestCheckMs)) break;
      if (g_blockGate.Close(kRestTicks)) {
        BlockAtRest("at rest");
        ++g_blockRests;
      }
      g_blockGate.Open();
  }
}

const char* BlockLostWakeUp() {
  static char what[96];
  BlockInfo info;
  if (ReadBlocks(info) && info.inUse < info.total && info.waiters > 0) {
    std::snprintf(what, sizeof what, "block pool has %" PRIu32 " of %" PRIu32 " blocks free and %" PRIu32 " waiters",
                  info.total - info.inUse, info.total, info.waiters);
    return what;
  }
  return nullptr;
}

void BlockFinal() { BlockAtRest("at the end"); }

void BlockReport() {
  std::printf("    block pool: %" PRIu64 " rest checks (0 of %" PRIu32 " in use each time)\n", g_blockRests, kBlocks);
}

Family g_blockFamily{"block pool", g_blockCounts, BlockCreate, BlockWork,   BlockChaos,
                     BlockLostWakeUp, nullptr,      nullptr,     BlockFinal, BlockReport};
Register g_blockRegister(g_blockFamily);

// --- Byte pools. ---

LX_BYTE_POOL g_bytes, g_volatileBytes;
Gate g_byteGate;
std::atomic<int> g_byteHolders{0};  // workers between a granted allocation and its release
Counts g_byteCounts;
int64_t g_byteRest = 0;
uint64_t g_byteRests = 0;

void CreateBytePool(LX_BYTE_POOL& pool, const char* name) {
  Expect(_lx_BytePoolCreate(&pool, name, g_area, kBudget), {LX_SUCCESS}, "byte pool create");
}

void ByteCreate() {
  CreateBytePool(g_bytes, "bytes");
  CreateBytePool(g_volatileBytes, "volatile bytes");
}

void ByteWork(Worker& self) {
  const bool stable = !self.expendable && self.rng() % 4 != 0;
  if (stable && !g_byteGate.Enter()) return;
  LX_BYTE_POOL* pool = stable ? &g_bytes : &g_volatileBytes;
  const uint32_t wait = RandomWait(self);
  const uint64_t size = 1 + self.rng() % kLargest;
  void* memory = nullptr;
  const LX_STATUS got = Timed(self, stable ? "byte allocate" : "byte allocate (volatile)", wait, g_byteCounts,
                              LX_NO_MEMORY, [&] { return _lx_ByteAllocate(pool, &memory, size, wait); });
  if (stable) {
    Expect(got, {LX_SUCCESS, LX_NO_MEMORY, LX_WAIT_ABORTED}, "byte allocate");
  } else {
    Expect(got, {LX_SUCCESS, LX_NO_MEMORY, LX_WAIT_ABORTED, LX_DELETED, LX_POOL_ERROR, LX_NOT_AVAILABLE},
           "volatile byte allocate");
  }
  if (got == LX_SUCCESS) {
    if (stable) ++g_byteHolders;
    Use(self, memory, size, "byte pool");
    if (stable) --g_byteHolders;
    if (stable && InjectOnce("byte-leak")) {
      g_byteGate.Leave();
      return;
    }
    const LX_STATUS released =
        Timed(self, "byte release", LX_NO_WAIT, g_byteCounts, LX_NO_MEMORY, [&] { return _lx_ByteRelease(memory); });
    if (stable) {
      Expect(released, {LX_SUCCESS}, "byte release");
    } else {
      Expect(released, {LX_SUCCESS, LX_POOL_ERROR, LX_NOT_AVAILABLE}, "volatile byte release");
      if (released == LX_POOL_ERROR) Discard(memory);
    }
  }
  if (stable) g_byteGate.Leave();
}

uint32_t ByteWaiters(LX_BYTE_POOL* pool) {
  char* name = nullptr;
  uint32_t reserved = 0, fragments = 0, waiters = 0;
  SuspendNode* first = nullptr;
  LX_BYTE_POOL* next = nullptr;
  if (_lx_BytePoolInfoGet(pool, &name, &reserved, &fragments, &first, &waiters, &next) != LX_SUCCESS) return 0;
  return waiters;
}

// Info-get does not report the free bytes: at rest the whole budget must be
// granted at once, and then not one byte more.
void ByteAtRest(const char* when) {
  void* all = nullptr;
  void* more = nullptr;
  const LX_STATUS whole = _lx_ByteAllocate(&g_bytes, &all, kBudget, LX_NO_WAIT);
  const LX_STATUS extra = whole == LX_SUCCESS ? _lx_ByteAllocate(&g_bytes, &more, 1, LX_NO_WAIT) : LX_SUCCESS;
  if (whole != LX_SUCCESS || extra != LX_NO_MEMORY || ByteWaiters(&g_bytes) != 0) {
    Fail("byte pool accounting %s: the budget of %" PRIu32 " bytes gave status %u, one byte more status %u", when,
         kBudget, whole, extra);
  }
  if (all != nullptr) Expect(_lx_ByteRelease(all), {LX_SUCCESS}, "byte release (rest check)");
  if (more != nullptr) Expect(_lx_ByteRelease(more), {LX_SUCCESS}, "byte release (rest check)");
}

void ByteChaos(std::mt19937_64& rng) {
  switch (rng() % 3) {
    case 0:
      Expect(_lx_BytePoolPrioritize(rng() % 2 == 0 ? &g_bytes : &g_volatileBytes), {LX_SUCCESS, LX_NOT_AVAILABLE},
             "byte pool prioritize");
      break;
    case 1:
      Expect(_lx_BytePoolDelete(&g_volatileBytes), {LX_SUCCESS}, "byte pool delete");
      CreateBytePool(g_volatileBytes, "volatile bytes");
      break;
    default:
      if (!Due(g_byteRest, kRestCheckMs)) break;
      if (g_byteGate.Close(kRestTicks)) {
        ByteAtRest("at rest");
        ++g_byteRests;
      }
      g_byteGate.Open();
  }
}

// Waiters while nobody holds bytes and everyone inside waits: the last
// release must have served the first of them.
const char* ByteLostWakeUp() {
  static char what[96];
  const int inside = g_byteGate.Inside();
  const uint32_t waiters = ByteWaiters(&g_bytes);
  if (waiters > 0 && g_byteHolders.load() == 0 && uint32_t(inside) == waiters) {
    std::snprintf(what, sizeof what, "byte pool has %" PRIu32 " waiters and nobody holds any of its bytes", waiters);
    return what;
  }
  return nullptr;
}

void ByteFinal() { ByteAtRest("at the end"); }

void ByteReport() {
  std::printf("    byte pool: %" PRIu64 " rest checks (whole budget of %" PRIu32 " granted each time)\n", g_byteRests,
              kBudget);
}

Family g_byteFamily{"byte pool", g_byteCounts, ByteCreate, ByteWork,  ByteChaos,
                    ByteLostWakeUp, nullptr,     nullptr,    ByteFinal, ByteReport};
Register g_byteRegister(g_byteFamily);

}  // namespace
}  // namespace soak

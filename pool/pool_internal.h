// What block pools and byte pools share: the registry, the checks and request
// paths of delete and prioritize, the heap areas with their headers, and the
// dispatcher's pool look-up and delete.
//
// A pool's handle word is written by create and delete (calling threads) and
// cleared again by the dispatcher's delete under S_sCmLock, so a request
// queued behind the delete finds no pool rather than freed memory. The
// dispatcher reads the word only under S_sCmLock; calling threads read it
// atomically.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "cm/object_class.h"
#include "cm/registry.h"
#include "quorvin/lx_pool.h"

namespace quorvin::detail {

extern void* S_paBlockPool[kRegistrySlots];
extern int32_t S_i32BlockPoolIndex;
extern void* S_paBytePool[kRegistrySlots];
extern int32_t S_i32BytePoolIndex;

// Operations of both classes, below the class code.
inline constexpr uint16_t kPoolAllocate = 0x1;
inline constexpr uint16_t kPoolDelete = 0x3;
inline constexpr uint16_t kPoolPrioritize = 0x5;
inline constexpr uint16_t kPoolRelease = 0x6;

// Header in front of the memory handed out: the pool handle, and for byte
// pools the size as an unsigned 32-bit value after it.
inline constexpr size_t kBlockHeader = sizeof(void*);
inline constexpr size_t kByteHeader = sizeof(void*) + sizeof(uint32_t);

// The heap area behind every address a pool hands out, as malloc aligns it:
//
//   area                                      area + kAreaFront = address
//   | padding (kAreaFront - header) | header |  memory: size bytes, zeroed |
//
// The area starts on an alignof(max_align_t) boundary and the front is a
// multiple of it, so the address is aligned for any type (16 bytes on both
// targets). The header ends right at the address, where releases read it;
// the padding exists only so that the address is aligned, and a release
// frees the area from its true start. A pool's budget counts only the size.
inline constexpr size_t kAreaAlign = alignof(std::max_align_t);
inline constexpr size_t kAreaFront = (kByteHeader + kAreaAlign - 1) / kAreaAlign * kAreaAlign;
static_assert(kBlockHeader <= kAreaFront && kByteHeader <= kAreaFront && kAreaFront % kAreaAlign == 0);

// A zero-filled area for size bytes of memory, or nullptr; returns the
// address handed out.
inline unsigned char* AllocateArea(uint64_t size) noexcept {
  const uint64_t bytes = (kAreaFront + size + kAreaAlign - 1) / kAreaAlign * kAreaAlign;
  void* area = std::aligned_alloc(kAreaAlign, bytes);
  if (area == nullptr) return nullptr;
  std::memset(area, 0, bytes);
  return static_cast<unsigned char*>(area) + kAreaFront;
}
inline void FreeArea(void* memory) noexcept { std::free(static_cast<unsigned char*>(memory) - kAreaFront); }

constexpr uint16_t PoolTimeout(const SuspendCtrl&) noexcept { return LX_NO_MEMORY; }

// A caller that is not a thread of the system has no request block.
inline bool IsSystemThread(LX_THREAD* caller) noexcept { return TcbOf(caller) != nullptr; }

template <typename Pool>
class PoolFamily {
 public:
  constexpr PoolFamily(void** slots, int32_t& count, uint16_t classCode, size_t header) noexcept
      : registry_(slots, count), class_(classCode), header_(header) {}

  // --- Both sides. ---
  static Pool* PoolOf(Pool** handle) noexcept {
    return handle != nullptr ? std::atomic_ref<Pool*>(*handle).load(std::memory_order_acquire) : nullptr;
  }
  static SuspendCtrl* ListOf(void* handle) noexcept {
    Pool* pool = PoolOf(static_cast<Pool**>(handle));
    return pool != nullptr ? &pool->sSuspendCtrl : nullptr;
  }
  static constexpr SuspendClass kClass{&ListOf, &PoolTimeout, &FrontCountUp};

  // --- Calling threads. ---
  HandleRegistry& Registry() noexcept { return registry_; }

  // Registered and naming a pool.
  bool Live(Pool** handle) noexcept { return registry_.Contains(handle) && PoolOf(handle) != nullptr; }

  // The end of a create: registers the handle (again, if it already is) and
  // publishes the pool; a full registry frees it.
  LX_STATUS Register(Pool** handle, Pool* pool) noexcept {
    if (!registry_.Add(handle)) {
      std::free(pool);
      return LX_POOL_ERROR;
    }
    std::atomic_ref<Pool*>(*handle).store(pool, std::memory_order_release);
    return LX_SUCCESS;
  }

  // Retires the handle whatever the dispatcher answers.
  LX_STATUS Delete(Pool** handle) {
    if (!Live(handle)) return LX_POOL_ERROR;
    LX_THREAD* caller = _lx_ThreadIdentify();
    if (caller == G_psTimer) return LX_CALLER_ERROR;
    if (!IsSystemThread(caller)) return LX_POOL_ERROR;
    const LX_STATUS status = IssueOwnRequest(caller, class_ | kPoolDelete, handle, LX_NO_WAIT);
    registry_.Remove(handle);
    std::atomic_ref<Pool*>(*handle).store(nullptr, std::memory_order_release);
    return status;
  }

  LX_STATUS Prioritize(Pool** handle) {
    if (!registry_.Contains(handle)) return LX_POOL_ERROR;
    LX_THREAD* caller = _lx_ThreadIdentify();
    if (!IsSystemThread(caller)) return LX_POOL_ERROR;
    return IssueOwnRequest(caller, class_ | kPoolPrioritize, handle, LX_NO_WAIT);
  }

  // After allocate's checks: asks the dispatcher, then takes the heap area
  // for the size that the grant leaves in the request's u64Value (a byte pool
  // keeps the requested size there; the block class writes its block size).
  // When the heap refuses, the grant goes back through a release request,
  // serving whoever it can, and the answer is LX_NO_MEMORY.
  LX_STATUS Allocate(LX_THREAD* caller, Pool** handle, void** out, uint32_t waitOption) {
    const LX_STATUS status = IssueOwnRequest(caller, class_ | kPoolAllocate, handle, waitOption);
    if (status != LX_SUCCESS) return status;
    const uint64_t size = (*caller)->sRequest.u64Value;
    unsigned char* memory = AllocateArea(size);
    if (memory == nullptr) {
      IssueOwnRequest(caller, class_ | kPoolRelease, handle, LX_NO_WAIT);  // u64Value: still the size
      return LX_NO_MEMORY;
    }
    unsigned char* header = memory - header_;
    std::memcpy(header, &handle, sizeof handle);
    if (header_ == kByteHeader) {
      const auto bytes = static_cast<uint32_t>(size);
      std::memcpy(header + sizeof handle, &bytes, sizeof bytes);
    }
    *out = memory;
    return LX_SUCCESS;
  }

  // After release's checks: refuses memory whose header names no live pool of
  // this family, asks the dispatcher, and frees the area once it accepted.
  LX_STATUS Release(LX_THREAD* caller, void* memory) {
    const unsigned char* header = static_cast<unsigned char*>(memory) - header_;
    Pool** handle = nullptr;
    std::memcpy(&handle, header, sizeof handle);
    if (!Live(handle)) return LX_POOL_ERROR;
    if (header_ == kByteHeader) {
      uint32_t bytes = 0;
      std::memcpy(&bytes, header + sizeof handle, sizeof bytes);
      (*caller)->sRequest.u64Value = bytes;
    }
    const LX_STATUS status = IssueOwnRequest(caller, class_ | kPoolRelease, handle, LX_NO_WAIT);
    if (status == LX_SUCCESS) FreeArea(memory);
    return status;
  }

  // --- Dispatcher thread, S_sCmLock held. ---

  // The pool a request names, or nullptr (answered with LX_POOL_ERROR) when
  // its word no longer names one: deleted by a request served earlier.
  static Pool* Dispatched(CmServiceRequest& request) noexcept {
    Pool* pool = PoolOf(static_cast<Pool**>(request.pvObject));
    if (pool == nullptr) CompleteLocked(request, LX_POOL_ERROR);
    return pool;
  }

  // Releases every waiter with LX_DELETED, clears the handle word and frees
  // the pool; areas still handed out keep their memory.
  static void DeleteLocked(CmServiceRequest& request) noexcept {
    Pool* pool = Dispatched(request);
    if (pool == nullptr) return;
    request.u16Status = LX_SUCCESS;
    CM_WakeUpAllThreadInSuspendList(&request, &pool->sSuspendCtrl, LX_DELETED);
    std::atomic_ref<Pool*>(*static_cast<Pool**>(request.pvObject)).store(nullptr, std::memory_order_release);
    std::free(pool);
    CM_WakeUpThread(&request);
  }

 private:
  HandleRegistry registry_;
  uint16_t class_;
  size_t header_;
};

}  // namespace quorvin::detail

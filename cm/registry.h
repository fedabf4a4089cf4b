// The 50-slot handle registries of the object classes (mutexes, event-flag
// groups, block pools, byte pools).
//
// Slots 0 .. count-1 hold the handles of live objects. Look-ups scan from the
// last used slot down; removal moves the last used handle into the freed
// slot. One lock per registry serialises additions, removals and the look-ups
// beside them, so a look-up never sees a half-moved table. A full registry
// refuses the addition; nothing is ever written past the table.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <mutex>

#include "cm/cm_internal.h"

namespace quorvin::detail {

inline constexpr int32_t kRegistrySlots = 50;

class HandleRegistry {
 public:
  HandleRegistry(void** slots, int32_t& count) noexcept : slots_(slots), count_(count) {}
  HandleRegistry(const HandleRegistry&) = delete;
  HandleRegistry& operator=(const HandleRegistry&) = delete;

  // Appends a handle; false when every slot is in use.
  bool Add(void* handle) noexcept {
    std::lock_guard guard(lock_);
    if (count_ >= kRegistrySlots) return false;
    slots_[count_] = handle;
    ++count_;
    return true;
  }

  bool Contains(const void* handle) noexcept {
    std::lock_guard guard(lock_);
    return IndexOf(handle) >= 0;
  }

  // Removes the last registration of a handle; false when it is not registered.
  bool Remove(const void* handle) noexcept {
    std::lock_guard guard(lock_);
    const int32_t index = IndexOf(handle);
    if (index < 0) return false;
    const int32_t last = count_ - 1;
    slots_[index] = slots_[last];
    slots_[last] = nullptr;
    --count_;
    return true;
  }

  bool Full() noexcept {
    std::lock_guard guard(lock_);
    return count_ >= kRegistrySlots;
  }

 private:
  int32_t IndexOf(const void* handle) const noexcept {
    for (int32_t i = count_ - 1; i >= 0; --i) {
      if (slots_[i] == handle) return i;
    }
    return -1;
  }

  void** slots_;
  int32_t& count_;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  PosixMutex lock_{mutex_};
};

}  // namespace quorvin::detail

// The 50-slot handle registries of the object classes (mutexes, event-flag
// groups, block pools, byte pools).
//
// Slots 0 .. count-1 hold the handles of live objects. Look-ups scan from the
// last used slot down; removal moves the last used handle into the freed
// slot. One lock per registry serialises additions and removals; look-ups
// take no lock and read the slots and the count atomically. A look-up still
// finds a handle that stays registered while others come and go: a handle
// only ever moves down, into a slot below it, and the move writes the new
// slot before it clears the old one, so a downward scan that finds the old
// slot cleared finds the handle further down. A full registry refuses the
// addition; nothing is ever written past the table.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <mutex>

#include "cm/cm_internal.h"

namespace quorvin::detail {

inline constexpr int32_t kRegistrySlots = 50;

class HandleRegistry {
 public:
  constexpr HandleRegistry(void** slots, int32_t& count) noexcept : slots_(slots), count_(count) {}
  HandleRegistry(const HandleRegistry&) = delete;
  HandleRegistry& operator=(const HandleRegistry&) = delete;

  // Appends a handle; false when every slot is in use.
  bool Add(void* handle) noexcept {
    std::lock_guard guard(lock_);
    const int32_t count = LoadRelaxed(count_);
    if (count >= kRegistrySlots) return false;
    Slot(count).store(handle, std::memory_order_release);
    std::atomic_ref<int32_t>(count_).store(count + 1, std::memory_order_release);
    return true;
  }

  // A registered handle: first the slot where the handle was last found (a
  // hint per handle address, so a full registry is not scanned call after
  // call), then a scan. The hint only says where to look: a slot holding
  // the handle below the count is a registration however it got there.
  bool Contains(const void* handle) const noexcept {
    std::atomic_ref<int32_t> hint(hints_[HintOf(handle)]);
    const int32_t guess = hint.load(std::memory_order_relaxed);
    if (guess < std::atomic_ref<int32_t>(count_).load(std::memory_order_acquire) &&
        Slot(guess).load(std::memory_order_acquire) == handle) {
      return true;
    }
    const int32_t index = IndexOf(handle);
    if (index < 0) return false;
    hint.store(index, std::memory_order_relaxed);
    return true;
  }

  // Removes the last registration of a handle; false when it is not registered.
  bool Remove(const void* handle) noexcept {
    std::lock_guard guard(lock_);
    const int32_t index = IndexOf(handle);
    if (index < 0) return false;
    const int32_t last = LoadRelaxed(count_) - 1;
    Slot(index).store(Slot(last).load(std::memory_order_relaxed), std::memory_order_seq_cst);
    Slot(last).store(nullptr, std::memory_order_seq_cst);
    std::atomic_ref<int32_t>(count_).store(last, std::memory_order_release);
    return true;
  }

  bool Full() const noexcept { return LoadRelaxed(count_) >= kRegistrySlots; }

 private:
  std::atomic_ref<void*> Slot(int32_t index) const noexcept { return std::atomic_ref<void*>(slots_[index]); }

  // Handles are often neighbouring words of one array: the bits above the
  // word offset tell them apart.
  static constexpr int kHints = 16;
  static size_t HintOf(const void* handle) noexcept { return (reinterpret_cast<uintptr_t>(handle) >> 3) % kHints; }

  int32_t IndexOf(const void* handle) const noexcept {
    void** const slots = slots_;
    for (int32_t i = std::atomic_ref<int32_t>(count_).load(std::memory_order_acquire) - 1; i >= 0; --i) {
      if (std::atomic_ref<void*>(slots[i]).load(std::memory_order_acquire) == handle) return i;
    }
    return -1;
  }

  void** slots_;
  int32_t& count_;
  mutable int32_t hints_[kHints] = {};
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  PosixMutex lock_{mutex_};
};

}  // namespace quorvin::detail

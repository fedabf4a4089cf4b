// The fuzz driver's shared pieces: the random source, the caller context that
// checks every status against the set the service documents, and the objects
// the calls work on.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <vector>

#include "quorvin/quorvin.h"

namespace quorvin::fuzz {

// Who makes a call: a thread of the kernel, the timer thread (from an
// expiration function) or a plain POSIX thread the kernel does not know.
enum class Caller : uint8_t { kKernel, kTimer, kPlain };

// A set of statuses as a bit mask (every status is below 32).
constexpr uint32_t Statuses(std::initializer_list<uint32_t> list) {
  uint32_t set = 0;
  for (uint32_t status : list) set |= 1u << status;
  return set;
}

class Rng {
 public:
  explicit Rng(uint64_t seed) : engine_(seed) {}
  uint64_t Next() { return engine_(); }
  uint32_t Below(uint32_t n) { return static_cast<uint32_t>(engine_() % n); }
  bool Percent(uint32_t p) { return Below(100) < p; }
  template <typename T>
  T& Pick(std::vector<T>& items) { return items[Below(static_cast<uint32_t>(items.size()))]; }
  // A value from the edges of the 32-bit range or anywhere in it.
  uint32_t Size();
  // No wait mostly, else a few ticks; forever only when asked for (callers
  // that a refusal or a release is certain to end).
  uint32_t Wait(bool forever = false);

 private:
  std::mt19937_64 engine_;
};

// The calling thread's view: its random source and who it is. Check() counts
// the call and ends the run, naming seed and call number, on a status outside
// the documented set.
struct Ctx {
  Rng& rng;
  Caller caller;
  // A victim's request may be answered LX_NOT_AVAILABLE when a terminate
  // takes it over; the victim then ends at its next cancellation point.
  bool victim = false;
  void Check(const char* service, uint32_t status, uint32_t allowed) const;
  // The wait option for a service that refuses waits on the timer thread:
  // there any wait may be asked for, since none can stall it.
  uint32_t RefusedWait() const { return rng.Wait(caller == Caller::kTimer); }
};

// Objects of every class, in small fixed sets of handle words. Words are read
// and written atomically (the library changes some of them on delete).
inline constexpr int kSlots = 3;
inline constexpr int kVictims = 3;
struct World {
  LX_MUTEX mutexes[kSlots] = {};
  LX_EVENT_FLAGS groups[kSlots] = {};
  LX_BLOCK_POOL blockPools[kSlots] = {};
  LX_BYTE_POOL bytePools[kSlots] = {};
  LX_SEMAPHORE semaphores[kSlots] = {};
  LX_QUEUE queues[kSlots] = {};
  LX_TIMER timers[kSlots] = {};
  CM_QUEUE cmQueues[kSlots] = {};
  CmSemaphoreControlBlock* cmSemaphores[kSlots] = {};
  FramedQueueCtrl framed[kSlots] = {};
  alignas(8) uint8_t framedBuffers[kSlots][2048] = {};
  QueueListCtrl* lists[kSlots] = {};
  alignas(8) uint32_t listStorage[kSlots][16 * 16] = {};
  alignas(8) uint32_t cmQueueStorage[16 * 16] = {};
  LX_THREAD threads[kSlots] = {};   // made and deleted by the fuzzer
  LX_THREAD victims[kVictims] = {}; // long-lived workers that are suspended, aborted, terminated
  LX_SEMAPHORE releasedSemaphore = nullptr;  // only forever gets wait on it
  LX_EVENT_FLAGS releasedGroup = nullptr;
  std::vector<void*> blocks;  // memory handed out and not yet released
  std::vector<void*> bytes;
  uint32_t queueCreations = 0;  // budget: each one may keep a descriptor open
};

World& TheWorld();

template <typename T>
T LoadWord(T& word) {
  return std::atomic_ref<T>(word).load(std::memory_order_acquire);
}
template <typename T>
void StoreWord(T& word, T value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

// One random call of one service family (fuzz_calls.cpp).
void RandomCall(Ctx& ctx);
// The calls a victim thread makes on the shared objects.
void VictimCall(Ctx& ctx, std::vector<void*>& blocks);
// Releases every area still handed out.
void ReleaseAll(Ctx& ctx);

// Progress, read by the watchdog and the failure report.
extern std::atomic<uint64_t> g_calls;
extern std::atomic<const char*> g_service;
extern uint64_t g_seed;

}  // namespace quorvin::fuzz

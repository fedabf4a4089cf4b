// Mutexes in the soak: four stable mutexes (two with inheritance) whose
// ownership is tracked, so two owners at once are caught, and two volatile
// ones that the chaos thread deletes and re-creates under the workers.
#include <cstdio>

#include "soak.h"

namespace soak {
namespace {

constexpr int kStable = 4, kVolatile = 2;
LX_MUTEX g_stable[kStable];
std::atomic<Worker*> g_holder[kStable];
LX_MUTEX g_volatile[kVolatile];
Counts g_counts;

void Create() {
  for (int i = 0; i < kStable; ++i) Expect(_lx_MutexCreate(&g_stable[i], "stable", i < 2), {LX_SUCCESS}, "mutex create");
  for (LX_MUTEX& mutex : g_volatile) Expect(_lx_MutexCreate(&mutex, "volatile", 1), {LX_SUCCESS}, "mutex create");
}

void Work(Worker& self) {
  const uint32_t wait = RandomWait(self);
  if (self.expendable || self.rng() % 4 == 0) {  // a terminated thread must hold no stable mutex
    LX_MUTEX& mutex = g_volatile[self.rng() % kVolatile];
    const LX_STATUS got = Timed(self, "mutex get (volatile)", wait, g_counts, LX_NOT_AVAILABLE,
                                [&] { return _lx_MutexGet(&mutex, wait); });
    Expect(got, {LX_SUCCESS, LX_NOT_AVAILABLE, LX_WAIT_ABORTED, LX_DELETED, LX_MUTEX_ERROR}, "volatile mutex get");
    // A put in flight when the chaos thread terminates this worker is
    // answered LX_NOT_AVAILABLE: terminate clears the request's service code.
    if (got == LX_SUCCESS) {
      Expect(_lx_MutexPut(&mutex), {LX_SUCCESS, LX_MUTEX_ERROR, LX_NOT_AVAILABLE}, "volatile mutex put");
    }
    return;
  }
  const int i = static_cast<int>(self.rng() % kStable);
  const bool fake = self.index == 0 && Injecting("mutual-exclusion");  // "holds" without getting
  const LX_STATUS got = fake ? LX_SUCCESS : Timed(self, "mutex get", wait, g_counts, LX_NOT_AVAILABLE,
                                                  [&] { return _lx_MutexGet(&g_stable[i], wait); });
  Expect(got, {LX_SUCCESS, LX_NOT_AVAILABLE, LX_WAIT_ABORTED}, "mutex get");
  if (got != LX_SUCCESS) return;
  if (Worker* other = g_holder[i].exchange(&self); other != nullptr) {
    Fail("mutual exclusion: %s got mutex %d while %s holds it", self.name, i, other->name);
  }
  if (fake || self.rng() % 4 == 0) _lx_ThreadSleep(1);
  Worker* expected = &self;
  if (!g_holder[i].compare_exchange_strong(expected, nullptr)) {
    Fail("mutual exclusion: mutex %d changed hands while %s held it", i, self.name);
  }
  if (!fake) Expect(_lx_MutexPut(&g_stable[i]), {LX_SUCCESS}, "mutex put");
}

void Chaos(std::mt19937_64& rng) {
  if (rng() % 2 == 0) {
    LX_MUTEX* mutex = rng() % 2 == 0 ? &g_stable[rng() % kStable] : &g_volatile[rng() % kVolatile];
    Expect(_lx_MutexPrioritize(mutex), {LX_SUCCESS, LX_NOT_AVAILABLE}, "mutex prioritize");
    return;
  }
  LX_MUTEX& mutex = g_volatile[rng() % kVolatile];
  Expect(_lx_MutexDelete(&mutex), {LX_SUCCESS}, "mutex delete");
  Expect(_lx_MutexCreate(&mutex, "volatile", static_cast<uint16_t>(rng() % 2)), {LX_SUCCESS}, "mutex re-create");
}

// Owner, waiter count; false when the mutex cannot be read.
bool Read(LX_MUTEX& mutex, LX_THREAD*& owner, uint32_t& waiters) {
  char* name = nullptr;
  uint32_t count = 0;
  SuspendNode* first = nullptr;
  LX_MUTEX* next = nullptr;
  return _lx_MutexInfoGet(&mutex, &name, &count, &owner, &first, &waiters, &next) == LX_SUCCESS;
}

const char* LostWakeUp() {
  static char what[64];
  for (int i = 0; i < kStable; ++i) {
    LX_THREAD* owner = nullptr;
    uint32_t waiters = 0;
    if (Read(g_stable[i], owner, waiters) && owner == nullptr && waiters > 0) {
      std::snprintf(what, sizeof what, "mutex %d has no owner and %u waiters", i, waiters);
      return what;
    }
  }
  return nullptr;
}

void FinalCheck() {
  for (int i = 0; i < kStable; ++i) {
    LX_THREAD* owner = nullptr;
    uint32_t waiters = 0;
    if (!Read(g_stable[i], owner, waiters) || owner != nullptr || waiters != 0 || g_holder[i] != nullptr) {
      Fail("mutex %d is not free at the end (owner %p, %u waiters)", i, static_cast<void*>(owner), waiters);
    }
  }
}

Family g_family{"mutex", g_counts, Create, Work, Chaos, LostWakeUp, nullptr, nullptr, FinalCheck, nullptr};
Register g_register(g_family);

}  // namespace
}  // namespace soak

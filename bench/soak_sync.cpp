// Counting semaphores and event-flag groups in the soak. Both are served in
// the calling thread on POSIX primitives: a thread waiting on them is out of
// reach of a wait abort, so their endless waits are ended by puts and sets.
// Expendable workers only put, set flags and get them without waiting: a
// thread terminated inside a get would take a count or an armed wait with it.
//
// Semaphores keep a ledger: every put is counted before it is made and every
// get after it succeeded, so the count (read with sem_getvalue on the
// semaphore the handle names) can never exceed the initial count plus puts
// minus gets, and at the end it equals it.
//
// Event-flag groups: a get must return flags that satisfy it; the group's
// count of armed waits never exceeds the gets that may be waiting; and a
// forever get whose flags are present must have been released (lost
// wake-up). At the end no wait is armed.
#include <semaphore.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "soak.h"

namespace soak {
namespace {

// --- Semaphores. ---

constexpr int kSemaphores = 2;
constexpr uint32_t kTokens = 1;
constexpr int64_t kSpareLimit = 1;  // extra puts only while the ledger says the count is 0

struct Semaphore {
  LX_SEMAPHORE handle = nullptr;
  std::atomic<uint64_t> puts{0}, gets{0};
  std::atomic<int> endless{0};  // gets waiting forever
};
Semaphore g_semaphores[kSemaphores];
Counts g_semaphoreCounts;

int ValueOf(Semaphore& semaphore) {
  int value = 0;
  sem_getvalue(semaphore.handle, &value);
  return value;
}

int64_t Expected(const Semaphore& semaphore) {
  return int64_t{kTokens} + int64_t(semaphore.puts.load()) - int64_t(semaphore.gets.load());
}

void Put(Semaphore& semaphore) {
  if (!InjectOnce("semaphore-ledger")) ++semaphore.puts;
  Expect(_lx_SemaphorePut(&semaphore.handle), {LX_SUCCESS}, "semaphore put");
}

void SemaphoreCreate() {
  for (Semaphore& semaphore : g_semaphores) {
    Expect(_lx_SemaphoreCreate(&semaphore.handle, "soak", kTokens), {LX_SUCCESS}, "semaphore create");
  }
}

void SemaphoreWork(Worker& self) {
  Semaphore& semaphore = g_semaphores[self.rng() % kSemaphores];
  // A put or a get on its own, so the count moves. Expendable workers only
  // put: a put is no cancellation point, so the ledger stays exact.
  const bool spare = self.rng() % 8 == 0;
  if (spare && Expected(semaphore) < kSpareLimit) {
    Put(semaphore);
    return;
  }
  if (self.expendable) return;
  const uint32_t wait = spare ? LX_NO_WAIT : RandomWait(self);
  if (wait == LX_WAIT_FOREVER) ++semaphore.endless;
  const LX_STATUS got = Timed(self, "semaphore get", wait, g_semaphoreCounts, LX_NO_INSTANCE,
                              [&] { return _lx_SemaphoreGet(&semaphore.handle, wait); });
  if (wait == LX_WAIT_FOREVER) --semaphore.endless;
  Expect(got, {LX_SUCCESS, LX_NO_INSTANCE}, "semaphore get");
  if (got != LX_SUCCESS) return;
  ++semaphore.gets;
  if (spare) return;
  if (self.rng() % 4 == 0) _lx_ThreadSleep(1);
  Put(semaphore);
}

// Gets are counted before the count is read, puts after: the count read in
// between can only be lower than the ledger's bound.
void SemaphoreChaos(std::mt19937_64& rng) {
  Semaphore& semaphore = g_semaphores[rng() % kSemaphores];
  const uint64_t gets = semaphore.gets.load();
  const int value = ValueOf(semaphore);
  const int64_t bound = int64_t{kTokens} + int64_t(semaphore.puts.load()) - int64_t(gets);
  if (value > bound) {
    Fail("semaphore count %d is above %" PRId64 ", the initial count plus puts minus gets", value, bound);
  }
}

const char* SemaphoreLostWakeUp() {
  static char what[80];
  for (int i = 0; i < kSemaphores; ++i) {
    Semaphore& semaphore = g_semaphores[i];
    const int endless = semaphore.endless.load();
    const int value = ValueOf(semaphore);
    if (endless > 0 && value > 0) {
      std::snprintf(what, sizeof what, "semaphore %d has count %d and %d endless gets", i, value, endless);
      return what;
    }
  }
  return nullptr;
}

void SemaphoreDrain() {
  for (Semaphore& semaphore : g_semaphores) {
    if (semaphore.endless.load() > 0) Put(semaphore);
  }
}

void SemaphoreFinal() {
  for (int i = 0; i < kSemaphores; ++i) {
    Semaphore& semaphore = g_semaphores[i];
    if (ValueOf(semaphore) != Expected(semaphore)) {
      Fail("semaphore %d ends with count %d, the ledger says %" PRId64 " (%" PRIu64 " puts, %" PRIu64 " gets)", i,
           ValueOf(semaphore), Expected(semaphore), semaphore.puts.load(), semaphore.gets.load());
    }
  }
}

void SemaphoreReport() {
  for (int i = 0; i < kSemaphores; ++i) {
    std::printf("    semaphore %d: %" PRIu64 " puts, %" PRIu64 " gets, count %d\n", i, g_semaphores[i].puts.load(),
                g_semaphores[i].gets.load(), ValueOf(g_semaphores[i]));
  }
}

Family g_semaphoreFamily{"semaphore",         g_semaphoreCounts, SemaphoreCreate, SemaphoreWork,  SemaphoreChaos,
                         SemaphoreLostWakeUp, nullptr,           SemaphoreDrain,  SemaphoreFinal, SemaphoreReport};
Register g_semaphoreRegister(g_semaphoreFamily);

// --- Event-flag groups. ---

constexpr int kGroups = 2;
constexpr uint32_t kFlags = 0xFF;

struct Group {
  LX_EVENT_FLAGS handle = nullptr;
  Gate getters;  // never closed: counts the gets that may wait
  // The endless get each worker is in, if any: flags (0: none), option, and
  // which of the worker's gets it is.
  std::atomic<uint32_t> wanted[kWorkers];
  std::atomic<uint16_t> option[kWorkers];
  std::atomic<uint32_t> instance[kWorkers];
  uint64_t armedChecks = 0;
};
Group g_groups[kGroups];
Counts g_eventCounts;

uint32_t SomeFlags(std::mt19937_64& rng) { return 1u << rng() % 8 | 1u << rng() % 8; }

struct GroupInfo {
  uint32_t flags = 0, armed = 0;
};

bool ReadGroup(Group& group, GroupInfo& info) {
  char* name = nullptr;
  LX_THREAD* first = nullptr;
  LX_EVENT_FLAGS* next = nullptr;
  return _lx_EventFlagsInfoGet(&group.handle, &name, &info.flags, &first, &info.armed, &next) == LX_SUCCESS;
}

void EventCreate() {
  for (Group& group : g_groups) Expect(_lx_EventFlagsCreate(&group.handle, "soak"), {LX_SUCCESS}, "event flags create");
}

void EventGet(Worker& self, Group& group) {
  const uint32_t requested = SomeFlags(self.rng);
  const auto option = static_cast<uint16_t>(self.rng() % 4);
  const uint32_t wait = self.expendable ? LX_NO_WAIT : RandomWait(self);
  const bool waits = wait != LX_NO_WAIT;
  if (waits) group.getters.Enter();
  if (wait == LX_WAIT_FOREVER) {
    ++group.instance[self.index];
    group.option[self.index] = option;
    group.wanted[self.index] = requested;
    if (InjectOnce("lost-wake-up")) {  // flags set for a wait that never returns
      _lx_EventFlagsSet(&group.handle, requested, LX_OR);
      for (;;) ::pause();
    }
  }
  uint32_t actual = 0;
  const LX_STATUS got = Timed(self, "event flags get", wait, g_eventCounts, LX_NO_EVENTS,
                              [&] { return _lx_EventFlagsGet(&group.handle, requested, option, &actual, wait); });
  group.wanted[self.index] = 0;
  if (waits) group.getters.Leave();
  Expect(got, {LX_SUCCESS, LX_NO_EVENTS}, "event flags get");
  if (got == LX_SUCCESS && EventFlagCmp(actual, requested, option) == 0) {
    Fail("event flags: a get for 0x%" PRIx32 " (option %u) returned 0x%" PRIx32 ", which does not satisfy it",
         requested, option, actual);
  }
}

void EventWork(Worker& self) {
  Group& group = g_groups[self.rng() % kGroups];
  switch (self.rng() % 3) {
    case 0:
      Expect(_lx_EventFlagsSet(&group.handle, SomeFlags(self.rng), LX_OR), {LX_SUCCESS}, "event flags set");
      break;
    case 1:
      Expect(_lx_EventFlagsSet(&group.handle, static_cast<uint32_t>(self.rng()), LX_AND), {LX_SUCCESS},
             "event flags clear");
      break;
    default: EventGet(self, group);
  }
}

// Armed waits at most the gets that were waiting, or began to, while
// info-get looked: a wait that ended must have withdrawn its arming.
void EventChaos(std::mt19937_64& rng) {
  Group& group = g_groups[rng() % kGroups];
  if (rng() % 2 == 0) {
    Expect(_lx_EventFlagsSet(&group.handle, rng() % 2 == 0 ? 0 : SomeFlags(rng), rng() % 2 == 0 ? LX_AND : LX_OR),
           {LX_SUCCESS}, "event flags set (chaos)");
    return;
  }
  const int inside = group.getters.Inside();
  const uint64_t entries = group.getters.Entries();
  GroupInfo info;
  if (!ReadGroup(group, info)) {
    Fail("event flags: info-get failed");
    return;
  }
  const uint64_t getters = uint64_t(inside) + (group.getters.Entries() - entries);
  if (info.armed > getters) {
    Fail("event flags: %" PRIu32 " armed waits, but at most %" PRIu64 " gets were waiting", info.armed, getters);
  }
  ++group.armedChecks;
}

// The flags churn, so a stuck wait is not seen satisfied at every look: a
// forever get once seen satisfied must have ended a margin later. (Seen while
// it was not yet armed, it would have returned at once.)
const char* EventLostWakeUp() {
  static char what[128];
  static uint32_t seenInstance[kGroups][kWorkers];
  static int64_t seenAt[kGroups][kWorkers];
  const int64_t margin = int64_t{g_options.marginTicks} * 10;
  for (int g = 0; g < kGroups; ++g) {
    Group& group = g_groups[g];
    GroupInfo info;
    if (!ReadGroup(group, info)) continue;
    for (int w = 0; w < kWorkers; ++w) {
      const uint32_t instance = group.instance[w].load();
      const uint32_t wanted = group.wanted[w].load();
      if (wanted == 0) continue;
      if (seenInstance[g][w] != instance) {
        if (EventFlagCmp(info.flags, wanted, group.option[w].load()) == 0) continue;
        seenInstance[g][w] = instance;
        seenAt[g][w] = NowMs();
      }
      if (NowMs() - seenAt[g][w] > margin) {
        std::snprintf(what, sizeof what, "%s waits forever on event flags group %d for 0x%" PRIx32
                      " (option %u), which the group held %" PRId64 " ms ago", g_workers[w].name, g, wanted,
                      group.option[w].load(), NowMs() - seenAt[g][w]);
        return what;
      }
    }
  }
  return nullptr;
}

void EventDrain() {
  for (Group& group : g_groups) _lx_EventFlagsSet(&group.handle, kFlags, LX_OR);
}

void EventFinal() {
  for (int g = 0; g < kGroups; ++g) {
    GroupInfo info;
    if (!ReadGroup(g_groups[g], info) || info.armed != 0) {
      Fail("event flags group %d ends with %" PRIu32 " armed waits and no thread waiting", g, info.armed);
    }
  }
}

void EventReport() {
  std::printf("    event flags: %" PRIu64 " + %" PRIu64 " armed-wait checks\n", g_groups[0].armedChecks,
              g_groups[1].armedChecks);
}

Family g_eventFamily{"event flags",   g_eventCounts, EventCreate, EventWork, EventChaos,
                     EventLostWakeUp, nullptr,       EventDrain,  EventFinal, EventReport};
Register g_eventRegister(g_eventFamily);

}  // namespace
}  // namespace soak

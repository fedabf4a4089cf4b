// The fuzz driver: boots the kernel and calls every service with random and
// hostile arguments, from a kernel thread, from the timer thread (inside an
// expiration function) and from plain POSIX threads, while three victim
// threads wait on the same objects and are suspended, aborted, terminated and
// re-created under them. Every status must be one the service documents; a
// watchdog ends a run that stops making calls. At the end no descriptor may
// have leaked and an object of every class must still work.
//
//   fuzz [--calls=N] [--seed=S] [--stall=SECONDS] [--verbose]
//
// The run enters private mount and IPC namespaces itself (as the test
// programs do), so its queues and pid list never meet the machine's.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <pthread.h>

#include "fuzz/fuzz.h"
#include "support/isolation.h"

// The platform's diagnostic log: the library's lines are dropped, not printed.
extern "C" void dlog_printf(int, int, const char*, ...);
extern "C" void dlog_printf(int, int, const char*, ...) {}


namespace quorvin::fuzz {

std::atomic<uint64_t> g_calls{0};
std::atomic<const char*> g_service{"start-up"};
uint64_t g_seed = 1;

namespace {

struct Options {
  uint64_t calls = 20000;
  int stallSeconds = 60;
  bool verbose = false;
};
Options g_options;
World g_world;
std::atomic<uint64_t> g_byCaller[3];
// The driver's own progress: the victims' calls alone must not hide a stuck driver.
std::atomic<uint64_t> g_driverSteps{0};
std::atomic<const char*> g_driverDoing{"start-up"};
std::atomic<const char*> g_driverLast{"nothing"};
LX_THREAD g_driver = nullptr;

const char* CallerName(Caller caller) {
  switch (caller) {
    case Caller::kKernel: return "kernel thread";
    case Caller::kTimer: return "timer thread";
    default: return "plain thread";
  }
}

[[noreturn]] void Exit(int code) {
  std::fflush(stdout);
  std::fflush(stderr);
#ifdef QUORVIN_COVERAGE_BUILD
  std::exit(code);  // writes the coverage counters of the program and the library; _exit writes none
#endif
  ::_exit(code);
}

// An exact expectation of the final round.
void Expect(const char* what, uint32_t status, uint32_t expected) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  g_driverSteps.fetch_add(1, std::memory_order_relaxed);
  g_driverLast.store(what, std::memory_order_relaxed);
  if (status == expected) return;
  std::fprintf(stderr, "fuzz: FAIL seed %" PRIu64 ": sanity round: %s returned %u, expected %u\n", g_seed, what,
               status, expected);
  Exit(1);
}

void DescribeThread(const char* name);

// ---- The watchdog: a plain thread outside the kernel ----
void* Watchdog(void*) {
  uint64_t last = ~uint64_t{0}, lastSteps = ~uint64_t{0};
  int still = 0;
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const uint64_t now = g_calls.load(std::memory_order_relaxed);
    const uint64_t steps = g_driverSteps.load(std::memory_order_relaxed);
    still = now == last || steps == lastSteps ? still + 1 : 0;
    last = now;
    lastSteps = steps;
    if (still < g_options.stallSeconds) continue;
    std::fprintf(stderr,
                 "fuzz: HANG seed %" PRIu64 ": no progress for %d s at call %" PRIu64 "; the driver is in: %s, its "
                 "last call: %s; last call of anyone: %s\n",
                 g_seed, still, now, g_driverDoing.load(), g_driverLast.load(), g_service.load());
    DescribeThread("fuzz");
    for (LX_THREAD& victim : g_world.victims) {
      if (LX_THREAD tcb = LoadWord(victim)) {
        std::fprintf(stderr, "fuzz:   %s state %u\n", tcb->acName, LoadWord(tcb->u16State));
      }
    }
    Exit(2);
  }
}

// ---- Victims: kernel threads that keep waiting on the shared objects ----
std::atomic<bool> g_victimsStop{false};
std::atomic<bool> g_victimRunning[kVictims];
uint64_t g_victimGeneration = 0;

void* VictimEntry(uint64_t input) {
  const auto index = static_cast<int>(input & 0xFF);
  Rng rng(g_seed ^ (input * 0x9E3779B97F4A7C15ull));
  Ctx ctx{rng, Caller::kKernel, true};
  std::vector<void*> blocks;
  while (!g_victimsStop.load(std::memory_order_acquire)) VictimCall(ctx, blocks);
  for (void* block : blocks) _lx_BlockRelease(block);
  g_victimRunning[index].store(false, std::memory_order_release);
  return nullptr;
}

void StartVictim(int index) {
  static const char* const kNames[] = {"victim0", "victim1", "victim2"};
  g_victimRunning[index].store(true, std::memory_order_release);
  const uint64_t input = (++g_victimGeneration << 8) | static_cast<uint64_t>(index);
  Expect("_lx_ThreadCreate (victim)",
         _lx_ThreadCreate(&g_world.victims[index], kNames[index], VictimEntry, input, nullptr, 0, 32, 0, 0, 1),
         LX_SUCCESS);
}

// Prints where the kernel thread named name sleeps (for a report).
void DescribeThread(const char* name) {
  DIR* tasks = ::opendir("/proc/self/task");
  if (tasks == nullptr) return;
  while (dirent* entry = ::readdir(tasks)) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    char comm[32] = {}, syscall[128] = {}, wchan[64] = {};
    const auto slurp = [&](const char* file, char* into, size_t size) {
      if (FILE* f = std::fopen((task + file).c_str(), "r")) {
        if (std::fgets(into, static_cast<int>(size), f) == nullptr) into[0] = 0;
        std::fclose(f);
      }
    };
    slurp("/comm", comm, sizeof comm);
    if (std::strncmp(comm, name, std::strlen(name)) != 0) continue;
    slurp("/syscall", syscall, sizeof syscall);
    slurp("/wchan", wchan, sizeof wchan);
    std::fprintf(stderr, "fuzz:   task %s (%s): wchan %s, syscall %s", entry->d_name, name, wchan, syscall);
  }
  ::closedir(tasks);
}

// Terminates and deletes a thread; both must succeed, and the word is cleared.
void EndThread(const char* what, LX_THREAD& handle) {
  Expect(what, _lx_ThreadTerminate(&handle), LX_SUCCESS);
  if (const LX_STATUS status = _lx_ThreadDelete(&handle); status != LX_SUCCESS) {
    std::fprintf(stderr, "fuzz: %s: delete refused, state %u\n", handle->acName, LoadWord(handle->u16State));
    DescribeThread(handle->acName);
    Expect(what, status, LX_SUCCESS);
  }
  StoreWord(handle, static_cast<LX_THREAD>(nullptr));
}

// ThreadSanitizer runs a pending signal handler at the next call it
// intercepts, so a cancellation there acts inside functions that are no
// cancellation point (an unlock, say) and cannot unwind; AddressSanitizer's
// runtime fails its own check when a victim unwinds out of its suspension
// handler. Under either, running victims are not terminated (docs/testing.md).
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t kChaosKinds = 2;
#else
constexpr uint32_t kChaosKinds = 3;
#endif

// Suspends and resumes, aborts the wait of, or ends and re-creates a victim.
void VictimChaos(Rng& rng) {
  const auto index = static_cast<int>(rng.Below(kVictims));
  LX_THREAD& victim = g_world.victims[index];
  switch (rng.Below(kChaosKinds)) {
    case 0:
      Expect("_lx_ThreadSuspend (victim)", _lx_ThreadSuspend(&victim), LX_SUCCESS);
      _lx_ThreadSleep(rng.Below(2));
      Expect("_lx_ThreadResume (victim)", _lx_ThreadResume(&victim), LX_SUCCESS);
      break;
    case 1: {
      const LX_STATUS status = _lx_ThreadWaitAbort(&victim);
      Expect("_lx_ThreadWaitAbort (victim)", status == LX_WAIT_ABORT_ERROR ? LX_SUCCESS : status, LX_SUCCESS);
      break;
    }
    default:
      EndThread("terminate and delete (victim)", victim);
      StartVictim(index);
  }
}

// ---- Calls from the timer thread and from plain threads ----
constexpr int kBatch = 16;
std::atomic<uint64_t> g_timerBatchSeed{0};
std::atomic<bool> g_timerBatchDone{false};

void TimerBatch(uint32_t) {
  Rng rng(g_timerBatchSeed.load(std::memory_order_acquire));
  Ctx ctx{rng, Caller::kTimer};
  for (int i = 0; i < kBatch; ++i) RandomCall(ctx);
  g_timerBatchDone.store(true, std::memory_order_release);
}

void RunOnTimerThread(Rng& rng) {
  g_timerBatchSeed.store(rng.Next(), std::memory_order_release);
  g_timerBatchDone.store(false, std::memory_order_release);
  LX_TIMER timer = nullptr;
  Expect("_lx_TimerCreate (batch)", _lx_TimerCreate(&timer, "batch", TimerBatch, 0, 1, 0, 1), LX_SUCCESS);
  while (!g_timerBatchDone.load(std::memory_order_acquire)) _lx_ThreadSleep(1);
  Expect("_lx_TimerDelete (batch)", _lx_TimerDelete(&timer), LX_SUCCESS);
}

void* PlainBatch(void* seed) {
  Rng own(reinterpret_cast<uintptr_t>(seed));
  Ctx ctx{own, Caller::kPlain};
  for (int i = 0; i < kBatch; ++i) RandomCall(ctx);
  return nullptr;
}

void RunOnPlainThread(Rng& rng) {
  pthread_t plain;
  const int created = pthread_create(&plain, nullptr, PlainBatch, reinterpret_cast<void*>(rng.Next()));
  const int joined = created == 0 ? pthread_join(plain, nullptr) : 0;
  if (created != 0 || joined != 0) {
    std::fprintf(stderr, "fuzz: FAIL seed %" PRIu64 " after call %" PRIu64 ": plain thread: create %s, join %s\n",
                 g_seed, g_calls.load(), std::strerror(created), std::strerror(joined));
    Exit(1);
  }
}

// ---- Forever waits that a timer is certain to end ----
CM_QUEUE g_releasedCmQueue = nullptr;

void Release(uint32_t which) {
  uint32_t message[16] = {which};
  switch (which) {
    case 0: _lx_SemaphorePut(&g_world.releasedSemaphore); break;
    case 1: _lx_EventFlagsSet(&g_world.releasedGroup, 0x80000000u, LX_OR); break;
    default: CmQueueSend(&g_releasedCmQueue, message, LX_NO_WAIT);
  }
}

void ForeverWait(Rng& rng) {
  const uint32_t which = rng.Below(3);
  LX_TIMER timer = nullptr;
  Expect("_lx_TimerCreate (release)", _lx_TimerCreate(&timer, "release", Release, which, 1 + rng.Below(3), 0, 1),
         LX_SUCCESS);
  uint32_t actual = 0;
  uint32_t message[16];
  switch (which) {
    case 0: Expect("_lx_SemaphoreGet forever", _lx_SemaphoreGet(&g_world.releasedSemaphore, LX_WAIT_FOREVER), LX_SUCCESS); break;
    case 1:
      Expect("_lx_EventFlagsGet forever",
             _lx_EventFlagsGet(&g_world.releasedGroup, 0x80000000u, LX_OR_CLEAR, &actual, LX_WAIT_FOREVER), LX_SUCCESS);
      break;
    default: Expect("CmQueueReceive forever", CmQueueReceive(&g_releasedCmQueue, message, LX_WAIT_FOREVER), LX_SUCCESS);
  }
  // The expiry may still be running when the wait ends.
  while (LoadWord(timer->u16Active) != 0) _lx_ThreadSleep(1);
  Expect("_lx_TimerDelete (release)", _lx_TimerDelete(&timer), LX_SUCCESS);
}

// ---- Descriptors ----
struct Descriptors {
  int queues = 0;  // host message queues
  int others = 0;
  std::string names;  // the others, for a report
};

Descriptors CountDescriptors() {
  Descriptors count;
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return count;
  const int own = ::dirfd(directory);
  while (dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == own) continue;
    char target[256] = {};
    const std::string path = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target - 1);
    const bool queue = length > 0 && std::strncmp(target, "/mq_", 4) == 0;
    (queue ? count.queues : count.others)++;
    if (!queue) count.names += std::string(" ") + entry->d_name + "=" + target;
  }
  ::closedir(directory);
  return count;
}

// ---- Start and end ----
void Setup() {
  World& w = g_world;
  for (LX_SEMAPHORE& semaphore : w.semaphores) Expect("_lx_SemaphoreCreate", _lx_SemaphoreCreate(&semaphore, "s", 1), LX_SUCCESS);
  Expect("_lx_SemaphoreCreate", _lx_SemaphoreCreate(&w.releasedSemaphore, "released", 0), LX_SUCCESS);
  Expect("_lx_EventFlagsCreate", _lx_EventFlagsCreate(&w.releasedGroup, "released"), LX_SUCCESS);
  Expect("CmQueueCreate", CmQueueCreate(&g_releasedCmQueue, 4, 16, nullptr), LX_SUCCESS);
  for (int i = 0; i < kSlots - 1; ++i) {
    Expect("_lx_MutexCreate", _lx_MutexCreate(&w.mutexes[i], "m", static_cast<uint16_t>(i)), LX_SUCCESS);
    Expect("_lx_EventFlagsCreate", _lx_EventFlagsCreate(&w.groups[i], "g"), LX_SUCCESS);
    static uint8_t area[64];
    Expect("_lx_BlockPoolCreate", _lx_BlockPoolCreate(&w.blockPools[i], "b", 16, area, 64), LX_SUCCESS);
    Expect("_lx_BytePoolCreate", _lx_BytePoolCreate(&w.bytePools[i], "y", area, 1000), LX_SUCCESS);
    Expect("_lx_QueueCreate", _lx_QueueCreate(&w.queues[i], i == 0 ? "fz0" : "fz1", 4, area, 64), LX_SUCCESS);
    Expect("CmQueueCreate", CmQueueCreate(&w.cmQueues[i], 3, 4, nullptr), LX_SUCCESS);
  }
}

void StopVictims() {
  g_victimsStop.store(true, std::memory_order_release);
  for (int i = 0; i < kVictims; ++i) {
    // A victim may be suspended: resume it until its entry has returned.
    while (g_victimRunning[i].load(std::memory_order_acquire)) {
      _lx_ThreadResume(&g_world.victims[i]);
      _lx_ThreadSleep(1);
    }
    EndThread("terminate and delete (ended victim)", g_world.victims[i]);
  }
}

// Every class once more, on fresh objects and on the survivors: nothing the
// run did may have broken them.
void SanityRound() {
  World& w = g_world;
  // Mutexes: the survivors go, a fresh one works.
  for (LX_MUTEX& mutex : w.mutexes) {
    if (LoadWord(mutex) != nullptr) Expect("_lx_MutexDelete", _lx_MutexDelete(&mutex), LX_SUCCESS);
  }
  LX_MUTEX mutex = nullptr;
  Expect("_lx_MutexCreate", _lx_MutexCreate(&mutex, "sane", LX_INHERIT), LX_SUCCESS);
  Expect("_lx_MutexGet", _lx_MutexGet(&mutex, LX_NO_WAIT), LX_SUCCESS);
  Expect("_lx_MutexGet (owned)", _lx_MutexGet(&mutex, 2), LX_NOT_AVAILABLE);
  Expect("_lx_MutexPut", _lx_MutexPut(&mutex), LX_SUCCESS);
  Expect("_lx_MutexDelete", _lx_MutexDelete(&mutex), LX_SUCCESS);

  // Semaphores and groups are never deleted: the survivors still count and flag.
  for (LX_SEMAPHORE& semaphore : w.semaphores) {
    if (LoadWord(semaphore) == nullptr) continue;
    Expect("_lx_SemaphorePut", _lx_SemaphorePut(&semaphore), LX_SUCCESS);
    Expect("_lx_SemaphoreGet", _lx_SemaphoreGet(&semaphore, 1), LX_SUCCESS);
  }
  for (LX_EVENT_FLAGS& group : w.groups) {
    if (LoadWord(group) == nullptr) continue;
    uint32_t actual = 0;
    Expect("_lx_EventFlagsSet", _lx_EventFlagsSet(&group, 0x40000000u, LX_OR), LX_SUCCESS);
    Expect("_lx_EventFlagsGet", _lx_EventFlagsGet(&group, 0x40000000u, LX_OR_CLEAR, &actual, LX_NO_WAIT), LX_SUCCESS);
    Expect("the flag got", (actual & 0x40000000u) != 0 ? LX_SUCCESS : LX_NO_EVENTS, LX_SUCCESS);
  }

  // Pools: every survivor is deleted; fresh ones count exactly.
  for (LX_BLOCK_POOL& pool : w.blockPools) {
    if (LoadWord(pool) != nullptr) Expect("_lx_BlockPoolDelete", _lx_BlockPoolDelete(&pool), LX_SUCCESS);
  }
  for (LX_BYTE_POOL& pool : w.bytePools) {
    if (LoadWord(pool) != nullptr) Expect("_lx_BytePoolDelete", _lx_BytePoolDelete(&pool), LX_SUCCESS);
  }
  static uint8_t area[128];
  LX_BLOCK_POOL blocks = nullptr;
  Expect("_lx_BlockPoolCreate", _lx_BlockPoolCreate(&blocks, "sane", 24, area, 96), LX_SUCCESS);
  void* held[4] = {};
  for (void*& block : held) Expect("_lx_BlockAllocate", _lx_BlockAllocate(&blocks, &block, LX_NO_WAIT), LX_SUCCESS);
  void* extra = nullptr;
  Expect("_lx_BlockAllocate (empty)", _lx_BlockAllocate(&blocks, &extra, 1), LX_NO_MEMORY);
  for (void* block : held) Expect("_lx_BlockRelease", _lx_BlockRelease(block), LX_SUCCESS);
  Expect("_lx_BlockPoolDelete", _lx_BlockPoolDelete(&blocks), LX_SUCCESS);
  LX_BYTE_POOL bytes = nullptr;
  Expect("_lx_BytePoolCreate", _lx_BytePoolCreate(&bytes, "sane", area, 100), LX_SUCCESS);
  void* memory = nullptr;
  Expect("_lx_ByteAllocate", _lx_ByteAllocate(&bytes, &memory, 100, LX_NO_WAIT), LX_SUCCESS);
  Expect("_lx_ByteAllocate (spent)", _lx_ByteAllocate(&bytes, &extra, 1, LX_NO_WAIT), LX_NO_MEMORY);
  Expect("_lx_ByteRelease", _lx_ByteRelease(memory), LX_SUCCESS);
  Expect("_lx_BytePoolDelete", _lx_BytePoolDelete(&bytes), LX_SUCCESS);

  // Host queues: a fresh one carries a message unchanged.
  LX_QUEUE queue = nullptr;
  uint32_t out[4] = {1, 2, 3, 4}, in[4] = {};
  Expect("_lx_QueueCreate", _lx_QueueCreate(&queue, "sane", 4, area, 64), LX_SUCCESS);
  Expect("_lx_QueueSend", _lx_QueueSend(&queue, out, LX_NO_WAIT), LX_SUCCESS);
  Expect("_lx_QueueReceive", _lx_QueueReceive(&queue, in, 1), LX_SUCCESS);
  Expect("the message received", std::memcmp(in, out, sizeof in) == 0 ? LX_SUCCESS : LX_QUEUE_ERROR, LX_SUCCESS);

  // Framed queue with its lock.
  FramedQueueCtrl framed{};
  static uint8_t buffer[256];
  Expect("QueueCreate", QueueCreate(&framed, "sanefq", 10, 4, buffer, 0, 1), LX_SUCCESS);
  const char text[10] = "framed";
  char got[10] = {};
  Expect("QueueSend", QueueSend(&framed, text, 1, FRAMED_QUEUE_AT_BACK), LX_SUCCESS);
  Expect("QueueReceive", QueueReceive(&framed, got, 1), LX_SUCCESS);
  Expect("the framed message", std::memcmp(got, text, sizeof got) == 0 ? LX_SUCCESS : LX_QUEUE_ERROR, LX_SUCCESS);
  Expect("QueueFlush", QueueFlush(&framed), LX_SUCCESS);

  // Dispatcher queues: every survivor is deleted, a fresh one round-trips.
  for (CM_QUEUE& cmQueue : w.cmQueues) {
    if (LoadWord(cmQueue) != nullptr) Expect("CmQueueDelete", CmQueueDelete(&cmQueue), LX_SUCCESS);
  }
  CM_QUEUE cmQueue = nullptr;
  Expect("CmQueueCreate", CmQueueCreate(&cmQueue, 1, 4, nullptr), LX_SUCCESS);
  Expect("CmQueueSend", CmQueueSend(&cmQueue, out, LX_NO_WAIT), LX_SUCCESS);
  Expect("CmQueueSend (full)", CmQueueSend(&cmQueue, out, 1), LX_QUEUE_FULL);
  Expect("CmQueueReceive", CmQueueReceive(&cmQueue, in, LX_NO_WAIT), LX_SUCCESS);
  Expect("CmQueueDelete", CmQueueDelete(&cmQueue), LX_SUCCESS);

  // The dispatcher's semaphore class on a block of its own.
  auto* block = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
  block->u32Ceiling = 1;
  CmSemaphoreControlBlock* word = block;
  CmServiceRequest& request = (*g_driver).sRequest;
  const auto issue = [&](uint16_t service) {
    std::atomic_ref<uint16_t>(request.u16Service).store(service, std::memory_order_relaxed);
    request.psTarget = nullptr;
    request.psThread = &g_driver;
    request.pvObject = &word;
    std::atomic_ref<uint32_t>(request.u32WaitOption).store(LX_NO_WAIT, std::memory_order_relaxed);
    CM_Request(&request);
    return request.u16Status;
  };
  Expect("CM_Request semaphore put", issue(CM_SEMAPHORE_PUT), LX_SUCCESS);
  Expect("CM_Request semaphore get", issue(CM_SEMAPHORE_GET), LX_SUCCESS);
  Expect("CM_Request semaphore get (none)", issue(CM_SEMAPHORE_GET), LX_NO_INSTANCE);
  Expect("CM_Request semaphore delete", issue(CM_SEMAPHORE_DELETE), LX_SUCCESS);
  Expect("CM_Request unknown class", issue(0x95), LX_NOT_AVAILABLE);

  // Timers still fire, threads still start and end.
  static std::atomic<int> fired{0};
  LX_TIMER timer = nullptr;
  Expect("_lx_TimerCreate", _lx_TimerCreate(&timer, "sane", [](uint32_t) { fired.store(1); }, 0, 2, 0, 1), LX_SUCCESS);
  for (int i = 0; i < 500 && fired.load() == 0; ++i) _lx_ThreadSleep(1);
  Expect("the timer fired", fired.load() == 1 ? LX_SUCCESS : LX_TIMER_ERROR, LX_SUCCESS);
  Expect("_lx_TimerDelete", _lx_TimerDelete(&timer), LX_SUCCESS);
  static std::atomic<int> ran{0};
  LX_THREAD thread = nullptr;
  Expect("_lx_ThreadCreate",
         _lx_ThreadCreate(&thread, "sane", [](uint64_t) -> void* { ran.store(1); return nullptr; }, 0, nullptr, 0, 32,
                          0, 0, 1),
         LX_SUCCESS);
  for (int i = 0; i < 500 && ran.load() == 0; ++i) _lx_ThreadSleep(1);
  Expect("the thread ran", ran.load() == 1 ? LX_SUCCESS : LX_THREAD_ERROR, LX_SUCCESS);
  EndThread("terminate and delete (ended thread)", thread);
}

void* DriverEntry(uint64_t) {
  Rng rng(g_seed);
  Ctx ctx{rng, Caller::kKernel};
  Setup();
  if (!g_options.verbose) {
    // The services' own lines ("... is not implement") would drown the report.
    std::fflush(stdout);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  // Counted before the victims start: no reply pipe is open meanwhile.
  const Descriptors before = CountDescriptors();
  for (int i = 0; i < kVictims; ++i) StartVictim(i);
  const auto start = std::chrono::steady_clock::now();
  while (g_calls.load(std::memory_order_relaxed) < g_options.calls) {
    g_driverSteps.fetch_add(1, std::memory_order_relaxed);
    const uint32_t roll = rng.Below(1000);
    if (roll < 12) {
      g_driverDoing = "a batch on the timer thread";
      RunOnTimerThread(rng);
    } else if (roll < 24) {
      g_driverDoing = "a batch on a plain thread";
      RunOnPlainThread(rng);
    } else if (roll < 28) {
      g_driverDoing = "a forever wait";
      ForeverWait(rng);
    } else if (roll < 36) {
      g_driverDoing = "victim chaos";
      VictimChaos(rng);
    } else {
      g_driverDoing = "a random call";
      RandomCall(ctx);
    }
  }
  g_driverDoing = "the final round";
  StopVictims();
  for (LX_THREAD& thread : g_world.threads) {
    if (LoadWord(thread) != nullptr) EndThread("terminate and delete (fuzzer's thread)", thread);
  }
  ReleaseAll(ctx);
  const uint64_t fuzzCalls = g_calls.load();
  SanityRound();

  const Descriptors after = CountDescriptors();
  const int queuesAllowed = before.queues + static_cast<int>(g_world.queueCreations) + 2;  // + the sanity round's
  if (after.others != before.others || after.queues > queuesAllowed) {
    std::fprintf(stderr,
                 "fuzz: FAIL seed %" PRIu64 ": descriptors leaked: %d other than queues before, %d after; %d queue "
                 "descriptors, at most %d expected\n",
                 g_seed, before.others, after.others, after.queues, queuesAllowed);
    std::fprintf(stderr, "fuzz:   before:%s\nfuzz:   after:%s\n", before.names.c_str(), after.names.c_str());
    Exit(1);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr,
               "fuzz: PASS seed %" PRIu64 ": %" PRIu64 " calls in %.1f s (kernel threads %" PRIu64 ", timer thread %" PRIu64
               ", plain threads %" PRIu64 "), no descriptor leaked, sanity round passed\n",
               g_seed, fuzzCalls, seconds, g_byCaller[0].load(), g_byCaller[1].load(), g_byCaller[2].load());
  Exit(0);
}

void Define() {
  if (_lx_ThreadCreate(&g_driver, "fuzz", DriverEntry, 0, nullptr, 0, 32, 0, 0, 1) != LX_SUCCESS) {
    std::fprintf(stderr, "fuzz: cannot start the driver thread\n");
    Exit(1);
  }
}

bool ParseOptions(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto value = [&](const char* name) -> const char* {
      const size_t length = std::strlen(name);
      return arg.compare(0, length, name) == 0 ? arg.c_str() + length : nullptr;
    };
    if (const char* v = value("--calls=")) {
      g_options.calls = std::strtoull(v, nullptr, 10);
    } else if (const char* s = value("--seed=")) {
      g_seed = std::strtoull(s, nullptr, 10);
    } else if (const char* t = value("--stall=")) {
      g_options.stallSeconds = std::atoi(t);
    } else if (arg == "--verbose") {
      g_options.verbose = true;
    } else {
      std::fprintf(stderr, "usage: %s [--calls=N] [--seed=S] [--stall=SECONDS] [--verbose]\n", argv[0]);
      return false;
    }
  }
  return true;
}

}  // namespace

World& TheWorld() { return g_world; }

void Ctx::Check(const char* service, uint32_t status, uint32_t allowed) const {
  const uint64_t call = g_calls.fetch_add(1, std::memory_order_relaxed) + 1;
  g_byCaller[static_cast<int>(caller)].fetch_add(1, std::memory_order_relaxed);
  g_service.store(service, std::memory_order_relaxed);
  if (caller == Caller::kKernel && !victim) g_driverLast.store(service, std::memory_order_relaxed);
  if (status < 32 && (allowed >> status & 1u) != 0) return;
  if (victim && status == LX_NOT_AVAILABLE) _lx_ThreadSleep(100);  // a terminate ends the thread in here
  std::string expected;
  for (uint32_t s = 0; s < 32; ++s) {
    if ((allowed >> s & 1u) != 0) expected += " " + std::to_string(s);
  }
  std::fprintf(stderr, "fuzz: FAIL seed %" PRIu64 " call %" PRIu64 " (%s): %s returned %u, expected one of%s\n",
               g_seed, call, CallerName(caller), service, status, expected.c_str());
  Exit(1);
}

}  // namespace quorvin::fuzz

int main(int argc, char** argv) {
  using namespace quorvin::fuzz;
  if (!ParseOptions(argc, argv)) return 2;
  quorvin::test::EnterIsolation();
  if (!quorvin::test::Isolated()) {
    std::fprintf(stderr, "fuzz: needs private mount/IPC namespaces: %s\n", quorvin::test::IsolationProblem().c_str());
    return 1;
  }
  std::fprintf(stderr, "fuzz: seed %" PRIu64 ", %" PRIu64 " calls\n", g_seed, g_options.calls);
  pthread_t watchdog;
  pthread_create(&watchdog, nullptr, Watchdog, nullptr);
  _lx_initialize_kernel_enter(nullptr, nullptr, Define);
}

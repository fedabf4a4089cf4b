// Fuzz and soak in one driver. Worker threads draw rows from a table with one row per class of services; a row
// calls one of the class's services with random and hostile arguments, each drawn by its parameter's type (Arg):
// NULL handles, another class's handle and garbage words where the library can tell them apart, missing outputs,
// sizes and options from the edges of their range, short waits. Rows run on kernel threads and on the timer
// thread; each status must be one that the class's services document. Between rows the workers keep ledgers on
// stable objects that no row touches: one owner of a mutex at a time, no count of a semaphore lost, no pool block
// leaked, every message sent through a host queue, a dispatcher queue and a locked framed queue received intact.
// A chaos thread suspends, resumes, wait-aborts, terminates and re-creates workers; a watchdog names a call that
// does not return. At the end every ledger must balance and no descriptor may be left open.
//
//   stress [--seconds=S] [--workers=W] [--seed=S] [--stall=S] [--inject=FAULT]
//
// --inject makes a fault on purpose, and the run must then fail with its report: lost-wake-up (worker 0 keeps the
// stable mutex, so a forever get never returns), mutual-exclusion (a worker uses the mutex without getting it) or
// ledgers (one fault in each ledger checked at the end). The run enters private mount and IPC namespaces itself, so its
// queues and pid list never meet the machine's.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
#include <thread>
#include <tuple>

#include "quorvin/quorvin.h"
#include "support/isolation.h"

extern "C" int dlog_printf(int, int, const char*, ...);
extern "C" int dlog_printf(int, int, const char*, ...) { return 0; }  // the platform's log: dropped

namespace {

uint64_t g_seconds = 2, g_workers = 4, g_seed = 1, g_stall = 30;  // the options
char g_inject[32] = {};
std::atomic<uint64_t> g_calls{0};
std::atomic<bool> g_stop{false};
std::atomic<int> g_failures{0}, g_holder{-1};  // g_holder: the worker that holds the stable mutex
[[noreturn]] void Exit(int code) { QUORVIN_COVERAGE_BUILD ? std::exit(code) : ::_exit(code); }  // exit writes coverage
// One line, one fprintf: stderr writes each call whole, so lines of two threads never mix.
#define FAIL(text, ...) (++g_failures, std::fprintf(stderr, "stress: FAIL seed %lu: " text "\n", g_seed, __VA_ARGS__))
// Whether this run injects the fault here: inside the workers, worker 0 makes it.
bool Injecting(const char* fault, int self = 0) { return self == 0 && std::strcmp(g_inject, fault) == 0; }
constexpr uint32_t S(auto... statuses) { return ((1u << statuses) | ...); }  // a set of statuses
thread_local bool t_expendable = false;                                      // the chaos thread may terminate it
thread_local const char* t_service = "";  // the service a row calls, by its template's name
thread_local std::atomic<const char*> t_unwatched, *t_doing = &t_unwatched;  // a worker's, for the watchdog's report
void Check(const char* what, uint32_t status, uint32_t allowed) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  const bool ended = status == LX_NOT_AVAILABLE && (g_stop || t_expendable);
  if ((status > 31 || (allowed >> status & 1) == 0) && !ended) FAIL("%s returned %u", what, status);
}

// ---- Random and hostile arguments ----
using Rng = std::mt19937_64;
uint32_t Below(Rng& r, uint64_t n) { return static_cast<uint32_t>(r() % n); }
uint32_t Wait(Rng& r) { return _lx_ThreadIdentify() == G_psTimer || Below(r, 5) < 3 ? LX_NO_WAIT : 1 + Below(r, 3); }
// Room for the largest message of any queue the driver makes: a smaller buffer was once overrun into the
// thread's own descriptor. Outputs and buffers point 16 bytes in: a release of that memory reads a header.
alignas(16) thread_local uint8_t t_message[4096];
thread_local uint64_t t_garbage;
void Expire(uint32_t) {}

// The objects: four handle words (or framed queues) per class. The rows create, use and delete the first three;
// the fourth is stable, created once for the ledgers, and no row touches it.
template <typename T, typename... Of>
constexpr bool kOneOf = (std::is_same_v<T, Of> || ...);
template <typename T>  // a class whose handles the library keeps in a registry, or any class
constexpr bool kRegistered = kOneOf<T, LX_MUTEX, LX_EVENT_FLAGS, LX_BLOCK_POOL, LX_BYTE_POOL>;
template <typename T>
constexpr bool kObject =
    kRegistered<T> || kOneOf<T, LX_SEMAPHORE, LX_QUEUE, FramedQueueCtrl, CM_QUEUE, LX_TIMER, LX_THREAD>;
template <typename T>
std::array<T, 4> g_slot;
constexpr uint64_t kStable = 3;
template <typename T>
T* const g_stable = &g_slot<T>[kStable];
alignas(8) uint8_t g_framedBuffer[4][2048];

// A value for a parameter of type T. In a create (a service with a name) a handle is an empty slot or NULL, as a
// create on a live word would lose its object, and integers come from the edges of their range. Elsewhere a
// handle is NULL, a slot, or for a class with a registry also a garbage word or another class's handle, and a
// 32-bit integer is a short wait (or a small count or flag set). Sizes of 64 bits never ask for much memory.
template <typename T, bool kCreate>
T Arg(Rng& r) {
  static constexpr uint32_t kEdges[] = {0, 1, 2, 3, 4, 8, 9, 16, 64, 100, 4096, 0x7FFFFFFF, 0x80000000, ~0u};
  using Word = std::remove_pointer_t<T>;
  constexpr bool kRegistry = kRegistered<Word>;
  const uint32_t roll = Below(r, 10);
  void* other = r() % 2 ? static_cast<void*>(&g_slot<LX_MUTEX>[Below(r, 3)]) : &g_slot<LX_BYTE_POOL>[Below(r, 3)];
  if constexpr (std::is_same_v<T, uint64_t>)
    return roll ? Below(r, 4096) : uint64_t{1} << 40;
  else if constexpr (std::is_integral_v<T>)
    return T(!kCreate && sizeof(T) == 4 ? Wait(r) : roll < 7 ? kEdges[r() % 14] : r());
  else if constexpr (std::is_same_v<T, const char*>)
    return std::array<T, 4>{"fz", "", nullptr, "name-over-19-bytes"}[roll % 4];
  else if constexpr (std::is_function_v<Word>)
    return roll ? &Expire : nullptr;
  else if constexpr (!kObject<Word>)
    return roll ? (T)(t_message + 16) : nullptr;
  else if constexpr (kCreate) {
    for (uint64_t i = 0; i < kStable; ++i)
      if (roll && !std::atomic_ref(g_slot<Word>[i]).load()) return &g_slot<Word>[i];
    return nullptr;
  } else if (kRegistry && roll == 1)
    return reinterpret_cast<T>(&(t_garbage = r() % 2 ? r() : 0));
  else
    return kRegistry && roll == 2 ? static_cast<T>(other) : roll ? &g_slot<Word>[Below(r, 3)] : nullptr;
}
template <typename R, typename... A>
uint32_t Invoke(Rng& r, R (*service)(A...)) {
  [[maybe_unused]] constexpr bool kCreate = (std::is_same_v<A, const char*> || ...);
  std::tuple<A...> args{Arg<A, kCreate>(r)...};
  return static_cast<uint32_t>(std::apply(service, args));
}
uint32_t Invoke(Rng& r, uint32_t (*written)(Rng&)) { return written(r); }  // a call written out
uint32_t FramedCreate(Rng& r) {  // on a slot not in use, in its own buffer, which must hold the queue
  const uint32_t i = Below(r, 3), size = Below(r, 400), slots = Below(r, 5);
  FramedQueueCtrl* queue = Below(r, 12) ? &g_slot<FramedQueueCtrl>[i] : nullptr;
  if ((queue && queue->psMsgQueue) || QueueCalcSize(size, slots) > sizeof g_framedBuffer[i]) return LX_SUCCESS;
  return QueueCreate(queue, Arg<const char*, true>(r), size, slots, r() % 12 ? g_framedBuffer[i] : nullptr, 0, r() % 2);
}
uint32_t CmQueueMake(Rng& r) { return CmQueueCreate(Arg<CM_QUEUE*, true>(r), Below(r, 9), 1u << Below(r, 6), nullptr); }

// ---- The table: one row per class, the services it draws from and every status they document ----
template <auto kService>
uint32_t Call(Rng& r) {
  t_service = __PRETTY_FUNCTION__;  // names the service: "... [with auto kService = <service>]"
  t_doing->store(t_service);
  return Invoke(r, kService);
}
template <uint32_t kAllowed, auto... kServices>
void Row(Rng& r) {
  static constexpr uint32_t (*kCalls[])(Rng&) = {Call<kServices>...};
  const uint32_t status = kCalls[r() % sizeof...(kServices)](r);
  Check(t_service, status, kAllowed);
}
// The last three rows run in worker 0 only: creates, as two on one empty slot would lose an object, and the state
// that an application must not share between threads (a timer used while another thread deletes it is used after
// its free; framed and dispatcher queues), with the host queue's delete, info get and prioritize, whose "not
// implemented" line ends the process when a terminate lands in it. Thread services are left to the chaos thread,
// which uses them on the workers.
constexpr void (*kRows[])(Rng&) = {
    Row<S(0, 1, 3, 19, 26, 28, 29), _lx_MutexGet, _lx_MutexPut, _lx_MutexDelete, _lx_MutexPrioritize, _lx_MutexInfoGet>,
    Row<S(0, 3, 4, 6, 7, 8, 19), _lx_EventFlagsGet, _lx_EventFlagsSet, _lx_EventFlagsInfoGet, _lx_EventFlagsDelete>,
    Row<S(0, 1, 2, 3, 4, 16, 19, 26, 29), _lx_BlockAllocate, _lx_BlockRelease, _lx_BlockPoolDelete,
        _lx_BlockPoolInfoGet, _lx_BlockPoolPrioritize, _lx_ByteAllocate, _lx_ByteRelease, _lx_BytePoolDelete,
        _lx_BytePoolInfoGet, _lx_BytePoolPrioritize>,
    Row<S(0, 4, 12, 13, 14, 19), _lx_SemaphoreGet, _lx_SemaphorePut, _lx_SemaphoreDelete, _lx_SemaphoreInfoGet,
        _lx_SemaphorePrioritize, _lx_ThreadSleep, _lx_ThreadInfoGet>,
    Row<S(0, 3, 9, 10, 11), _lx_QueueSend, _lx_QueueFrontSend, LP_QueueSend, _lx_QueueReceive, _lx_QueueFlush>,
    Row<S(0, 2, 3, 5, 6, 9, 12, 14, 15, 16, 19, 21, 22, 23, 24, 28, 31), _lx_MutexCreate, _lx_EventFlagsCreate,
        _lx_BlockPoolCreate, _lx_BytePoolCreate, _lx_SemaphoreCreate, _lx_QueueCreate, _lx_TimerCreate, FramedCreate,
        CmQueueMake>,
    Row<S(0, 3, 19, 21, 22), _lx_TimerDelete, _lx_TimerActivate, _lx_TimerDeactivate, _lx_TimerChange,
        _lx_TimerInfoGet>,
    Row<S(0, 1, 3, 4, 9, 10, 11, 26, 29), _lx_QueueDelete, _lx_QueueInfoGet, _lx_QueuePrioritize, QueueSend,
        QueueReceive, QueueFlush, CmQueueSend, CmQueueFrontSend, CmQueueReceive, CmQueueFlush, CmQueuePrioritize,
        CmQueueDelete>};
void RandomRow(Rng& r, bool solo) { kRows[r() % (solo ? std::size(kRows) : std::size(kRows) - 3)](r); }

// ---- Ledgers on the stable objects ----
// What went into each stable object less what came out: the pool starts with its 3 free blocks, the semaphore with
// its count of 2, the queues empty. At the end each object is drained and every ledger must come out at 0.
constexpr const char* kLedgers[] = {"the stable mutex",      "the stable pool",         "the stable semaphore",
                                    "the stable host queue", "the stable framed queue", "the stable dispatcher queue"};
std::atomic<int64_t> g_balance[std::size(kLedgers)] = {0, 3, 2, 0, 0, 0};
// One step into (a put, a send) or out of (a get, a receive) the semaphore or a queue; m is the message. The framed
// queue waits for its lock as long (a send: 100 ticks or none), and a receive whose lock does not come in time
// answers LX_QUEUE_ERROR and leaves the message queued.
uint32_t Step(uint32_t ledger, bool in, void* m, uint32_t wait) {
  if (ledger == 2)
    return in ? _lx_SemaphorePut(g_stable<LX_SEMAPHORE>) : _lx_SemaphoreGet(g_stable<LX_SEMAPHORE>, wait);
  if (ledger == 3)
    return in ? _lx_QueueSend(g_stable<LX_QUEUE>, m, wait) : _lx_QueueReceive(g_stable<LX_QUEUE>, m, wait);
  if (ledger == 4)
    return in ? QueueSend(g_stable<FramedQueueCtrl>, m, !wait, 1) : QueueReceive(g_stable<FramedQueueCtrl>, m, wait);
  return in ? CmQueueSend(g_stable<CM_QUEUE>, m, wait) : CmQueueReceive(g_stable<CM_QUEUE>, m, wait);
}
constexpr uint64_t kMaxWorkers = 44;
struct Worker {
  LX_THREAD handle = nullptr;
  std::atomic<const char*> doing{nullptr};
  std::atomic<time_t> since{0};     // when it began its row or ledger operation; 0 once it has left its loop
  std::atomic<bool> ledger{false};  // in a ledger operation: not suspended nor aborted, a lost time-out hangs
} g_w[kMaxWorkers];
void LedgerOp(Rng& r, int self) {  // workers that the chaos thread may terminate never run these
  const uint32_t ledger = Below(r, std::size(kLedgers)), wait = Below(r, 5) ? Wait(r) : 3;
  // Worker 0 may "hold" the mutex without a get, or keep it for ever: a forever get of another worker never ends.
  const bool in = r() % 2, fake = Injecting("mutual-exclusion", self), keep = Injecting("lost-wake-up", self);
  g_w[self].ledger = true;
  t_doing->store(kLedgers[ledger]);  // for the watchdog's report
  uint64_t message[2] = {r(), 0};
  void* block = nullptr;
  uint32_t status = LX_SUCCESS;
  if (ledger == 0 && (fake || (status = _lx_MutexGet(g_stable<LX_MUTEX>, Below(r, 5) ? wait : LX_WAIT_FOREVER)) == 0)) {
    t_doing->store("holding the stable mutex");
    const int before = g_holder.exchange(self);
    if (fake || Below(r, 5) == 0) _lx_ThreadSleep(1);
    if (g_holder.exchange(-1) != self || before != -1) FAIL("mutual exclusion: w%02d shared the mutex", self);
    if (!fake && !keep) Check("_lx_MutexPut (stable)", _lx_MutexPut(g_stable<LX_MUTEX>), S(0));
  } else if (ledger == 1 && (status = _lx_BlockAllocate(g_stable<LX_BLOCK_POOL>, &block, wait)) == LX_SUCCESS) {
    Check("_lx_BlockRelease (stable)", _lx_BlockRelease(block), S(0));  // allocated and released: no change
  } else if (ledger > 1) {
    message[1] = in ? ~message[0] : 0;
    if ((status = Step(ledger, in, message, wait)) == LX_SUCCESS) g_balance[ledger] += in ? 1 : -1;
    if (status == LX_SUCCESS && ledger > 2 && message[1] != ~message[0]) FAIL("message %lu came damaged", message[0]);
  }
  Check(kLedgers[ledger], status, S(0, 4, 10, 11, 13, 16, 26, 29) | (ledger == 4 && !in ? S(9) : 0));
  g_w[self].ledger = false;
}

// ---- Workers, the watchdog and the chaos thread ----
bool Expendable(uint64_t i) { return i % 5 == 4; }  // the chaos thread may end it: it keeps no ledger
void TimerRows(uint32_t) {  // two rows on the timer thread, inside an expiration function, at every tick
  static Rng r(g_seed);
  for (int i = 0; i < 2 && !g_stop; ++i) RandomRow(r, false);
}
void* WorkerEntry(uint64_t input) {
  const int self = input & 0xFF;
  Rng r(g_seed * 1000003 + input);
  t_expendable = Expendable(self);
  t_doing = &g_w[self].doing;
  for (; !g_stop; g_w[self].doing = nullptr) {
    g_w[self].since = std::time(nullptr);
    Below(r, 2) || Expendable(self) ? RandomRow(r, self == 0) : LedgerOp(r, self);
  }
  g_w[self].since = 0;
  return nullptr;
}
void StartWorker(uint64_t i) {
  g_w[i].since = std::time(nullptr);
  const uint64_t input = g_calls << 8 | i;
  Check("a worker's create", _lx_ThreadCreate(&g_w[i].handle, "w", WorkerEntry, input, nullptr, 0, 32, 0, 0, 1), S(0));
}
// A plain thread outside the kernel: a worker in one call too long, or no call returning.
[[noreturn]] void Watchdog() {
  for (uint64_t last = 0, still = 0;; last = g_calls, ::sleep(1)) {
    if ((still = g_calls == last ? still + 1 : 0) > g_stall) FAIL("hang: no call returned for %lu s", still), Exit(2);
    for (uint64_t i = 0; i < g_workers; ++i) {
      const char* doing = g_w[i].doing;
      const time_t since = g_w[i].since;  // 0: out of its loop (a terminated worker's thread may still leave it)
      if (doing && since && uint64_t(std::time(nullptr) - since) > g_stall && doing == g_w[i].doing)
        FAIL("hang: w%02lu has been in %s since %ld (mutex held by w%d)", i, doing, since, +g_holder), Exit(2);
    }
  }
}
long Descriptors() {  // the least of a few looks: a reply pipe may be in flight
  long least = 1 << 30;
  for (int look = 0; look < 5; ++look, _lx_ThreadSleep(1))
    least = std::min<long>(least, std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
  return least;
}
void* ChaosEntry(uint64_t) {
  Rng r(g_seed);
  const uint32_t made = _lx_MutexCreate(g_stable<LX_MUTEX>, "stable", 0) |
                        _lx_SemaphoreCreate(g_stable<LX_SEMAPHORE>, "stable", 2) |
                        _lx_QueueCreate(g_stable<LX_QUEUE>, "stable", 4, g_framedBuffer[kStable], 64) |
                        CmQueueCreate(g_stable<CM_QUEUE>, 4, 4, nullptr) |
                        QueueCreate(g_stable<FramedQueueCtrl>, "ledger", 16, 4, g_framedBuffer[kStable] + 1024, 0, 1) |
                        _lx_BlockPoolCreate(g_stable<LX_BLOCK_POOL>, "stable", 24, g_framedBuffer[kStable], 72) |
                        _lx_TimerCreate(g_stable<LX_TIMER>, "rows", TimerRows, 0, 1, 1, 1);
  Check("the stable objects", made, S(0));
  const long before = Descriptors();
  for (uint64_t i = 0; i < g_workers; ++i) StartWorker(i);
  for (const time_t end = std::time(nullptr) + g_seconds; std::time(nullptr) < end && g_failures == 0;) {
    // A ledger operation runs undisturbed (kind 3): quick suspensions can outlast their resumes (docs/testing.md).
    const uint32_t i = Below(r, g_workers), kind = g_w[i].ledger ? 3 : Below(r, 4);
    LX_THREAD* worker = &g_w[i].handle;
    const bool terminate = kind == 2 && !QUORVIN_SANITIZED && Expendable(i);  // see docs/testing.md
    if (kind == 0) Check("_lx_ThreadSuspend (worker)", _lx_ThreadSuspend(worker), S(0));
    if (kind == 1) Check("_lx_ThreadWaitAbort (worker)", _lx_ThreadWaitAbort(worker), S(0, 27));
    if (terminate) Check("_lx_ThreadTerminate (worker)", _lx_ThreadTerminate(worker), S(0));
    _lx_ThreadSleep(Below(r, 2));
    if (kind == 0) Check("_lx_ThreadResume (worker)", _lx_ThreadResume(worker), S(0));
    if (terminate) Check("_lx_ThreadDelete (worker)", _lx_ThreadDelete(worker), S(0)), StartWorker(i);
  }
  g_stop = true;
  // Every worker leaves its loop: no wait of a row is longer than 3 ticks, and one that never ends is the
  // watchdog's to report. The resumes also free a worker suspended twice whose two resumes merged.
  for (uint64_t i = 0; i < g_workers; ++i)
    for (LX_THREAD* worker = &g_w[i].handle; g_w[i].since != 0; _lx_ThreadSleep(1)) _lx_ThreadResume(worker);
  // Every ledger must balance now that the workers are out of their loops. The host queues of the rows stay open,
  // as a queue delete is not implemented. The faults to inject: in every ledger a step counted but never made (a
  // release, a put, a send), and a descriptor leaked.
  long open = 0;
  for (uint64_t i = 0; i < kStable; ++i)
    for (LX_QUEUE q : {g_slot<LX_QUEUE>[i], g_slot<FramedQueueCtrl>[i].psMsgQueue}) open += q && q->i32MqDes >= 0;
  for (std::atomic<int64_t>& balance : g_balance) balance += Injecting("ledgers");  // a step counted, never made
  if (Injecting("ledgers")) std::fopen("/dev/null", "r");                           // a descriptor leaked
  for (void* block; _lx_BlockAllocate(g_stable<LX_BLOCK_POOL>, &block, LX_NO_WAIT) == LX_SUCCESS;) --g_balance[1];
  for (uint32_t ledger = 2; ledger < std::size(kLedgers); ++ledger)
    for (uint64_t m[2]; Step(ledger, false, m, LX_NO_WAIT) == LX_SUCCESS;) --g_balance[ledger];
  const long leaked = Descriptors() - before - open;
  if (leaked != 0 || std::any_of(g_balance + 1, std::end(g_balance), [](auto& b) { return b != 0; }))
    FAIL("ledgers off: pool %ld, semaphore %ld, host %ld, framed %ld, dispatcher queue %ld, descriptors %ld",
         +g_balance[1], +g_balance[2], +g_balance[3], +g_balance[4], +g_balance[5], leaked);
  if (g_failures == 0) std::fprintf(stderr, "stress: PASS seed %lu: %lu calls\n", g_seed, +g_calls);
  Exit(g_failures == 0 ? 0 : 1);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    const int matched = std::sscanf(a, "--seconds=%lu", &g_seconds) + std::sscanf(a, "--workers=%lu", &g_workers) +
                        std::sscanf(a, "--seed=%lu", &g_seed) + std::sscanf(a, "--stall=%lu", &g_stall) +
                        std::sscanf(a, "--inject=%31s", g_inject);
    if (matched != 1) return std::fprintf(stderr, "stress: unknown option %s (see stress.cpp)\n", a), 2;
  }
  g_workers = std::clamp<uint64_t>(g_workers, 1, kMaxWorkers);
  quorvin::test::EnterIsolation();
  if (!quorvin::test::Isolated()) return std::fprintf(stderr, "%s\n", quorvin::test::IsolationProblem().c_str()), 1;
  // The "not implemented" lines go nowhere; while the process has one thread, as another may be printing.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 3;
  std::thread(Watchdog).detach();
  _lx_initialize_kernel_enter(nullptr, nullptr, [] {  // the application's definition
    static LX_THREAD chaos = nullptr;                 // a handle word lives as long as its thread
    if (_lx_ThreadCreate(&chaos, "chaos", ChaosEntry, 0, nullptr, 0, 10, 0, 0, 1) != LX_SUCCESS) Exit(3);
  });
}

// Fuzz and soak in one driver. Worker threads draw rows from a table of every service and call it with random
// and hostile arguments, each drawn by its parameter's type (Arg): NULL handles, another class's handle and
// garbage words where the library can tell them apart, missing outputs, sizes and options from the edges of
// their range, short waits. Rows run on kernel threads, on the timer thread and on plain POSIX threads; each
// status must be one the service documents. Between rows the workers keep ledgers on stable objects that no
// row touches: one owner of a mutex at a time, no count of a semaphore lost, every message received intact, no
// pool block leaked or handed out dirty. A chaos thread suspends, resumes, wait-aborts, terminates and
// re-creates workers; a watchdog names a call that does not return. At the end every ledger must balance and
// no descriptor may be left open.
//
//   stress [--seconds=S] [--workers=W] [--seed=S] [--stall=S] [--inject=FAULT]
//
// --inject makes a fault on purpose, and the run must then fail with its report: lost-wake-up (a wait that
// never ends), mutual-exclusion (a worker uses the mutex without getting it) or ledgers (one fault in each
// ledger checked at the end). The run enters private mount and IPC namespaces itself, so its queues and pid
// list never meet the machine's.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
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
std::atomic<int> g_failures{0};
[[noreturn]] void Exit(int code) { QUORVIN_COVERAGE_BUILD ? std::exit(code) : ::_exit(code); }  // exit writes coverage
// One line, one fprintf: stderr writes each call whole, so lines of two threads never mix.
#define FAIL(text, ...) (++g_failures, std::fprintf(stderr, "stress: FAIL seed %lu: " text "\n", g_seed, __VA_ARGS__))
bool Injecting(const char* fault) { return std::strcmp(g_inject, fault) == 0; }
template <typename... T>
constexpr uint32_t S(T... statuses) {  // a set of statuses
  return ((1u << statuses) | ...);
}
thread_local bool t_expendable = false;  // the chaos thread may terminate it, and take over its request
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
void* Quick(uint64_t ticks) { return _lx_ThreadSleep(ticks % 3), nullptr; }

// The objects the rows create, use and delete: three handle words (or framed queues) per class.
template <typename T>
using Slots = std::array<T, 3>;
struct Objects : Slots<LX_MUTEX>,
                 Slots<LX_EVENT_FLAGS>,
                 Slots<LX_BLOCK_POOL>,
                 Slots<LX_BYTE_POOL>,
                 Slots<LX_SEMAPHORE>,
                 Slots<LX_QUEUE>,
                 Slots<FramedQueueCtrl>,
                 Slots<CM_QUEUE>,
                 Slots<LX_TIMER>,
                 Slots<LX_THREAD> {
} g_objects;
template <typename T>
T& Slot(uint64_t i) {
  return static_cast<Slots<T>&>(g_objects)[i % 3];
}
alignas(8) uint8_t g_framedBuffer[3][2048];

// A value for a parameter of type T. In a create (a service with a name) a handle is an empty slot or NULL, as a
// create on a live word would lose its object, and integers come from the edges of their range. Elsewhere a
// handle is NULL, a slot, or for a class with a registry also a garbage word or another class's handle, and a
// 32-bit integer is a short wait (or a small count or flag set). Sizes of 64 bits never ask for much memory.
template <typename T, bool kCreate>
T Arg(Rng& r) {
  static constexpr uint32_t kEdges[] = {0, 1, 2, 3, 4, 8, 9, 16, 64, 100, 4096, 0x7FFFFFFF, 0x80000000, ~0u};
  using Word = std::remove_pointer_t<T>;
  constexpr bool kRegistry = std::is_same_v<Word, LX_MUTEX> || std::is_same_v<Word, LX_EVENT_FLAGS> ||
                             std::is_same_v<Word, LX_BLOCK_POOL> || std::is_same_v<Word, LX_BYTE_POOL>;
  const uint32_t roll = Below(r, 10);
  void* other = r() % 2 ? static_cast<void*>(&Slot<LX_MUTEX>(r())) : &Slot<LX_BYTE_POOL>(r());
  if constexpr (std::is_same_v<T, uint64_t>)
    return roll ? Below(r, 4096) : uint64_t{1} << 40;
  else if constexpr (std::is_integral_v<T>)
    return T(!kCreate && sizeof(T) == 4 ? Wait(r) : roll < 7 ? kEdges[r() % 14] : r());
  else if constexpr (std::is_same_v<T, const char*>)
    return std::array<T, 4>{"fz", "", nullptr, "name-over-19-bytes"}[roll % 4];
  else if constexpr (std::is_function_v<Word>)
    return roll ? std::get<T>(std::tuple(&Expire, &Quick)) : nullptr;
  else if constexpr (!std::is_base_of_v<Slots<Word>, Objects>)
    return roll ? (T)(t_message + 16) : nullptr;
  else if constexpr (kCreate) {
    for (Word& word : static_cast<Slots<Word>&>(g_objects))
      if (roll && !std::atomic_ref(word).load()) return &word;
    return nullptr;
  } else {
    if (kRegistry && roll == 1) return reinterpret_cast<T>(&(t_garbage = r() % 2 ? r() : 0));
    return kRegistry && roll == 2 ? static_cast<T>(other) : roll ? &Slot<Word>(r()) : nullptr;
  }
}
template <typename R, typename... A>
uint32_t Invoke(Rng& r, R (*service)(A...)) {
  constexpr bool kCreate = (std::is_same_v<A, const char*> || ...);
  std::tuple<A...> args{Arg<A, kCreate>(r)...};
  return static_cast<uint32_t>(std::apply(service, args));
}
uint32_t FramedCreate(Rng& r) {  // on a slot not in use, in its own buffer, which must hold the queue
  const uint32_t i = Below(r, 3), size = Below(r, 400), slots = Below(r, 5);
  FramedQueueCtrl* queue = Below(r, 12) ? &Slot<FramedQueueCtrl>(i) : nullptr;
  if ((queue && queue->psMsgQueue) || QueueCalcSize(size, slots) > sizeof g_framedBuffer[i]) return LX_SUCCESS;
  return QueueCreate(queue, Arg<const char*, true>(r), size, slots, r() % 12 ? g_framedBuffer[i] : nullptr, 0, r() % 2);
}
uint32_t CmQueueMake(Rng& r) { return CmQueueCreate(Arg<CM_QUEUE*, true>(r), Below(r, 9), 1u << Below(r, 6), nullptr); }
uint32_t ThreadDelete(Rng& r) {  // the word of a deleted thread still names its record, which a create recycles
  LX_THREAD* thread = Arg<LX_THREAD*, false>(r);
  const uint32_t deleted = _lx_ThreadDelete(thread);
  if (deleted == LX_SUCCESS) *thread = nullptr;
  return deleted;
}
uint32_t TimeGet(Rng&) { return _lx_TimeGet() & 0; }
uint32_t ThreadChange(Rng& r) { return Invoke(r, _lx_ThreadPreemptionChange); }
uint32_t WakeUpPipe(Rng& r) {  // a wake-up round trip on a fresh pipe, or none; the signal closes both ends
  CmServiceRequest q{};
  q.ai32ReplyPipe[0] = q.ai32ReplyPipe[1] = -1;
  if (r() % 2 && ::pipe(q.ai32ReplyPipe) == 0) CM_WakeUpThreadEx(q.ai32ReplyPipe[1]);
  CM_WaitingSignalEx(q.ai32ReplyPipe[0]);
  const int32_t woken = CM_WakeUpThreadEx(-1) | CM_WakeUpThread(&q);
  return woken | CM_WaitingSignal(&q);
}

// ---- The tables: every service, and the statuses it documents ----
struct Row {
  const char* name;
  uint32_t (*call)(Rng& r);
  uint32_t allowed;
};
template <auto kService>
uint32_t Call(Rng& r) {
  return Invoke(r, kService);
}
#define LX(name, ...) Row("_lx_" #name, Call<_lx_##name>, S(__VA_ARGS__))
#define ROW(name, ...) Row(#name, Call<name>, S(__VA_ARGS__))
#define FN(name, ...) Row(#name, name, S(__VA_ARGS__))
constexpr Row kRows[] = {LX(MutexGet, 0, 1, 19, 26, 28, 29),
                         LX(MutexPut, 0, 19, 28),
                         LX(MutexDelete, 0, 19, 28),
                         LX(MutexPrioritize, 0, 28, 29),
                         LX(MutexInfoGet, 0, 3, 28),
                         LX(EventFlagsGet, 0, 3, 4, 6, 7, 8, 19),
                         LX(EventFlagsSet, 0, 6, 8),
                         LX(EventFlagsInfoGet, 0, 3, 6),
                         LX(EventFlagsDelete, 0, 6, 19),
                         LX(BlockAllocate, 0, 1, 2, 3, 4, 16, 26),
                         LX(BlockRelease, 0, 2, 3),
                         LX(BlockPoolDelete, 0, 2, 19),
                         LX(BlockPoolInfoGet, 0, 2, 3),
                         LX(BlockPoolPrioritize, 0, 2, 29),
                         LX(ByteAllocate, 0, 1, 2, 3, 16, 19, 26),
                         LX(ByteRelease, 0, 2, 3),
                         LX(BytePoolDelete, 0, 2, 19),
                         LX(BytePoolInfoGet, 0, 2, 3),
                         LX(BytePoolPrioritize, 0, 2, 29),
                         LX(SemaphoreGet, 0, 4, 12, 13),
                         LX(SemaphorePut, 0, 12),
                         LX(SemaphoreDelete, 0),
                         LX(SemaphoreInfoGet, 0),
                         LX(SemaphorePrioritize, 0),
                         LX(QueueSend, 0, 3, 9, 11),
                         LX(QueueFrontSend, 0, 3, 9, 11),
                         ROW(LP_QueueSend, 0, 3, 9, 11),
                         LX(QueueReceive, 0, 3, 9, 10),
                         LX(QueueFlush, 0, 9),
                         LX(QueueDelete, 0),
                         LX(QueueInfoGet, 0),
                         LX(QueuePrioritize, 0),
                         LX(ThreadSleep, 0, 14, 19),
                         FN(TimeGet, 0)};
// Worker 0 only: creates, as two on one empty slot would lose an object, the state that an application must not
// share between threads (a timer used while another thread deletes it is used after its free), and the pipe round
// trip, whose pipe a terminate in the middle would leave open.
constexpr Row kSoloRows[] = {LX(MutexCreate, 0, 28, 31),
                             LX(EventFlagsCreate, 0, 6, 19),
                             LX(BlockPoolCreate, 0, 2, 3, 5, 19),
                             LX(BytePoolCreate, 0, 2, 3, 5, 19),
                             LX(SemaphoreCreate, 0, 12, 19),
                             LX(QueueCreate, 0, 3, 5, 9),
                             LX(TimerCreate, 0, 2, 19, 21, 22, 23),
                             LX(TimerDelete, 0, 19, 21),
                             LX(TimerActivate, 0, 21, 22),
                             LX(TimerDeactivate, 0, 21),
                             LX(TimerChange, 0, 21, 22),
                             LX(TimerInfoGet, 0, 3, 21),
                             FN(FramedCreate, 0, 9),
                             ROW(QueueSend, 0, 3, 4, 9, 11),
                             ROW(QueueReceive, 0, 3, 9, 10),
                             ROW(QueueFlush, 0, 9),
                             FN(CmQueueMake, 0, 5, 9),
                             ROW(CmQueueSend, 0, 1, 3, 4, 9, 11, 26),
                             ROW(CmQueueFrontSend, 0, 1, 3, 4, 9, 11, 26),
                             ROW(CmQueueReceive, 0, 1, 3, 4, 9, 10, 26),
                             ROW(CmQueueFlush, 0, 9),
                             ROW(CmQueuePrioritize, 0, 9, 29),
                             ROW(CmQueueDelete, 0, 9),
                             LX(ThreadCreate, 0, 3, 14, 15, 16, 24),
                             LX(ThreadResume, 0, 14),
                             LX(ThreadSuspend, 0, 14),
                             LX(ThreadTerminate, 0, 14),
                             FN(ThreadDelete, 0, 14, 17),
                             LX(ThreadWaitAbort, 0, 14, 27),
                             LX(ThreadInfoGet, 0, 3, 14),
                             LX(ThreadPriorityChange, 0, 3, 14, 15, 19),
                             FN(ThreadChange, 0, 3, 14, 15, 19, 24),
                             FN(WakeUpPipe, 0)};
thread_local std::atomic<const char*>* t_doing = nullptr;  // a worker's, for the watchdog's report
void RandomRow(Rng& r, bool solo) {
  const Row& row = solo && r() % 2 ? kSoloRows[r() % std::size(kSoloRows)] : kRows[r() % std::size(kRows)];
  if (t_doing != nullptr) t_doing->store(row.name);
  Check(row.name, row.call(r), row.allowed);
}

// ---- Ledgers on stable objects, which no row touches ----
struct Stable {
  LX_MUTEX mutex = nullptr;
  LX_SEMAPHORE semaphore = nullptr;
  LX_QUEUE queue = nullptr;
  FramedQueueCtrl framed{};
  CM_QUEUE cmQueue = nullptr;
  LX_BLOCK_POOL blocks = nullptr;
  alignas(8) uint8_t framedBuffer[512];
  std::atomic<int> holder{-1};
  std::atomic<int64_t> count{2}, sent{0}, received{0};  // count: the semaphore's initial count, plus puts, less gets
} g_st;
uint32_t Transfer(uint64_t q, bool send, uint64_t* m, uint32_t wait) {  // a message over a queue of each class
  if (q % 3 == 0) return send ? _lx_QueueSend(&g_st.queue, m, wait) : _lx_QueueReceive(&g_st.queue, m, wait);
  if (q % 3 == 1) return send ? QueueSend(&g_st.framed, m, wait == 0, q % 2) : QueueReceive(&g_st.framed, m, wait);
  return send ? CmQueueSend(&g_st.cmQueue, m, wait) : CmQueueReceive(&g_st.cmQueue, m, wait);
}
void LedgerOp(Rng& r, uint64_t self) {  // workers that the chaos thread may terminate never run these
  const uint32_t roll = Below(r, 5), wait = Below(r, 5) ? Wait(r) : 3;
  static constexpr const char* kOps[] = {"a get of the stable mutex", "a put or get of the stable semaphore",
                                         "an allocation from the stable pool", "a stable queue", "a stable queue"};
  if (t_doing != nullptr) t_doing->store(kOps[roll]);                            // for the watchdog's report
  const bool give = r() % 2, fake = self == 0 && Injecting("mutual-exclusion");  // "holds" the mutex without a get
  uint64_t message[2] = {r(), 0};
  char* block = nullptr;
  if (roll == 0) {
    const uint32_t got = fake ? LX_SUCCESS : _lx_MutexGet(&g_st.mutex, Below(r, 5) ? wait : LX_WAIT_FOREVER);
    Check("_lx_MutexGet (stable)", got, S(0, 26, 29));
    if (got != LX_SUCCESS) return;
    const int before = g_st.holder.exchange(self);
    if (fake || Below(r, 5) == 0) _lx_ThreadSleep(1);
    if (g_st.holder.exchange(-1) != int(self) || before != -1) FAIL("mutual exclusion: w%02lu shared the mutex", self);
    if (!fake) Check("_lx_MutexPut (stable)", _lx_MutexPut(&g_st.mutex), S(0));
  } else if (roll == 1) {
    const uint32_t status = give ? _lx_SemaphorePut(&g_st.semaphore) : _lx_SemaphoreGet(&g_st.semaphore, wait);
    Check("_lx_Semaphore{Put,Get} (stable)", status, S(0, 13));
    if (status == LX_SUCCESS) g_st.count += give ? 1 : -1;
  } else if (roll == 2) {
    const uint32_t got = _lx_BlockAllocate(&g_st.blocks, reinterpret_cast<void**>(&block), wait);
    Check("_lx_BlockAllocate (stable)", got, S(0, 16, 26));
    if (got != LX_SUCCESS) return;
    if (std::any_of(block, block + 24, [](char c) { return c != 0; })) FAIL("%s", "a block was handed out dirty");
    std::memset(block, 0x5A, 24);
    Check("_lx_BlockRelease (stable)", _lx_BlockRelease(block), S(0));
  } else {
    message[1] = give ? ~message[0] : 0;
    const uint32_t status = Transfer(r(), give, message, wait);
    Check("a send or receive (stable)", status, S(0, 4, 9, 10, 11, 26));  // 9: lock busy, offset put back
    if (status == LX_SUCCESS) ++(give ? g_st.sent : g_st.received);
    if (status == LX_SUCCESS && message[1] != ~message[0]) FAIL("message %lu came damaged", message[0]);
  }
}

// ---- Workers, the watchdog and the chaos thread ----
constexpr uint64_t kMaxWorkers = 44;
struct Worker {
  LX_THREAD handle = nullptr;
  std::atomic<const char*> doing{nullptr};
  std::atomic<time_t> since{0};  // when it began its row or ledger operation; 0 once it has left its loop
} g_w[kMaxWorkers];
bool Expendable(uint64_t i) { return i % 5 == 4; }  // the chaos thread may end it: it keeps no ledger
void* PlainRows(void* seed) {                       // a batch of rows on a plain POSIX thread
  Rng r(reinterpret_cast<uintptr_t>(seed));
  for (int i = 0; i < 16; ++i) RandomRow(r, true);
  return nullptr;
}
void TimerRows(uint32_t) {  // two rows on the timer thread, inside an expiration function, at every tick
  static Rng r(g_seed);
  for (int i = 0; i < 2 && !g_stop; ++i) RandomRow(r, false);
}
void* WorkerEntry(uint64_t input) {
  const uint64_t self = input & 0xFF;
  Worker& w = g_w[self];
  Rng r(g_seed * 1000003 + input);
  t_expendable = Expendable(self);
  t_doing = &w.doing;
  static LX_SEMAPHORE never = nullptr;  // a forever wait whose wake-up never comes
  if (self == 0 && Injecting("lost-wake-up") && _lx_SemaphoreCreate(&never, "never", 0) == LX_SUCCESS) {
    w.doing = "_lx_SemaphoreGet (forever)";
    _lx_SemaphoreGet(&never, LX_WAIT_FOREVER);
  }
  for (pthread_t plain; !g_stop; w.doing = nullptr) {
    const uint32_t roll = Below(r, 100);
    w.since = std::time(nullptr);
    w.doing = "a batch on a plain thread";
    if (self == 0 && roll == 0 && pthread_create(&plain, nullptr, PlainRows, reinterpret_cast<void*>(r())) == 0) {
      pthread_join(plain, nullptr);
    } else if (w.doing = "a ledger operation"; roll < 50 || Expendable(self)) {
      RandomRow(r, self == 0);
    } else {
      LedgerOp(r, self);
    }
  }
  w.since = 0;
  return nullptr;
}
void StartWorker(uint64_t i) {
  g_w[i].since = std::time(nullptr);
  const uint64_t input = g_calls << 8 | i;
  Check("a worker's create", _lx_ThreadCreate(&g_w[i].handle, "w", WorkerEntry, input, nullptr, 0, 32, 0, 0, 1), S(0));
}
void* Watchdog(void*) {  // a plain thread outside the kernel: a worker in one call too long, or no call returning
  for (uint64_t last = 0, still = 0;; last = g_calls, ::sleep(1)) {
    if ((still = g_calls == last ? still + 1 : 0) > g_stall) FAIL("hang: no call returned for %lu s", still), Exit(2);
    for (uint64_t i = 0; i < g_workers; ++i) {
      const char* doing = g_w[i].doing;
      const uint64_t took = std::time(nullptr) - g_w[i].since;
      if (doing && took > g_stall && doing == g_w[i].doing)
        FAIL("hang: w%02lu has been in %s for %lu s", i, doing, took), Exit(2);
    }
  }
}
long Descriptors() {  // the least of a few looks: a reply pipe may be in flight
  long least = 1 << 30;
  for (int look = 0; look < 5; ++look, _lx_ThreadSleep(1)) {
    least = std::min<long>(least, std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
  }
  return least;
}
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kTerminate = false;  // running workers are not terminated: see docs/testing.md
#else
constexpr bool kTerminate = true;
#endif
void* ChaosEntry(uint64_t) {
  Rng r(g_seed);
  LX_TIMER timer = nullptr;
  const uint32_t made = _lx_MutexCreate(&g_st.mutex, "stable", 0) | _lx_SemaphoreCreate(&g_st.semaphore, "stable", 2) |
                        _lx_QueueCreate(&g_st.queue, "stable", 4, g_st.framedBuffer, 64) |
                        QueueCreate(&g_st.framed, "fstable", 16, 8, g_st.framedBuffer, 0, 1) |
                        CmQueueCreate(&g_st.cmQueue, 4, 4, nullptr) |
                        _lx_BlockPoolCreate(&g_st.blocks, "stable", 24, g_st.framedBuffer, 72) |
                        _lx_TimerCreate(&timer, "rows", TimerRows, 0, 1, 1, 1);
  Check("the stable objects", made, S(0));
  if (std::freopen("/dev/null", "w", stdout) == nullptr) Exit(3);  // the "not implemented" lines
  const long before = Descriptors();
  for (uint64_t i = 0; i < g_workers; ++i) StartWorker(i);
  for (const time_t end = std::time(nullptr) + g_seconds; std::time(nullptr) < end && g_failures == 0;) {
    const uint32_t i = Below(r, g_workers), kind = Below(r, 4);
    LX_THREAD* worker = &g_w[i].handle;
    const bool terminate = kind == 2 && kTerminate && Expendable(i);
    if (kind == 0) Check("_lx_ThreadSuspend (worker)", _lx_ThreadSuspend(worker), S(0));
    if (kind == 1) Check("_lx_ThreadWaitAbort (worker)", _lx_ThreadWaitAbort(worker), S(0, 27));
    if (terminate) Check("_lx_ThreadTerminate (worker)", _lx_ThreadTerminate(worker), S(0));
    _lx_ThreadSleep(Below(r, 2));
    if (kind == 0) Check("_lx_ThreadResume (worker)", _lx_ThreadResume(worker), S(0));
    if (terminate) Check("_lx_ThreadDelete (worker)", _lx_ThreadDelete(worker), S(0)), StartWorker(i);
  }
  g_stop = true;
  for (uint64_t i = 0; i < g_workers; ++i) {  // each may be suspended or waiting forever; else the watchdog reports it
    for (LX_THREAD* worker = &g_w[i].handle; g_w[i].since != 0; _lx_ThreadSleep(1)) {
      _lx_ThreadResume(worker);
      _lx_ThreadWaitAbort(worker);
    }
    Check("_lx_ThreadTerminate (ended worker)", _lx_ThreadTerminate(&g_w[i].handle), S(0));
    Check("_lx_ThreadDelete (ended worker)", _lx_ThreadDelete(&g_w[i].handle), S(0));
  }
  // Every ledger must balance now, with the rows' threads gone. Their host queues stay open, as a queue delete is
  // not implemented. The faults to inject: a message lost, a put not counted, a block and a descriptor leaked.
  long open = 0, count = 0, free = 0;
  for (uint64_t i = 0; i < 3; ++i) {
    for (LX_QUEUE q : {Slot<LX_QUEUE>(i), Slot<FramedQueueCtrl>(i).psMsgQueue}) open += q && q->i32MqDes >= 0;
    for (int tries = 0; Slot<LX_THREAD>(i) != nullptr && tries < 100; ++tries, _lx_ThreadSleep(1)) {
      _lx_ThreadResume(&Slot<LX_THREAD>(i));  // it may be suspended, or never started
      _lx_ThreadTerminate(&Slot<LX_THREAD>(i));
      if (_lx_ThreadDelete(&Slot<LX_THREAD>(i)) == LX_SUCCESS) Slot<LX_THREAD>(i) = nullptr;
    }
    if (Slot<LX_THREAD>(i) != nullptr) FAIL("a row's thread in slot %lu would not end", i);
  }
  void* block = nullptr;
  if (Injecting("ledgers")) {
    ++g_st.sent;
    _lx_SemaphorePut(&g_st.semaphore);
    _lx_BlockAllocate(&g_st.blocks, &block, LX_NO_WAIT);
    std::fopen("/dev/null", "r");
  }
  for (uint64_t m[2];
       Transfer(0, false, m, 0) == 0 || Transfer(1, false, m, 0) == 0 || Transfer(2, false, m, 0) == 0;) {
    ++g_st.received;
  }
  while (_lx_SemaphoreGet(&g_st.semaphore, LX_NO_WAIT) == LX_SUCCESS) ++count;
  while (_lx_BlockAllocate(&g_st.blocks, &block, LX_NO_WAIT) == LX_SUCCESS) ++free;
  const long leaked = Descriptors() - before - open;
  if (g_st.sent != g_st.received || count != g_st.count || free != 3 || leaked != 0) {
    FAIL("ledgers: %ld messages lost, semaphore count off by %ld, %ld blocks and %ld descriptors leaked",
         g_st.sent - g_st.received, count - g_st.count, 3 - free, leaked);
  }
  if (g_failures == 0)
    std::fprintf(stderr, "stress: PASS seed %lu: %lu calls, %ld messages\n", g_seed, +g_calls, +g_st.sent);
  Exit(g_failures == 0 ? 0 : 1);
}

LX_THREAD g_chaos = nullptr;  // a handle word lives as long as its thread
void Define() {
  pthread_t watchdog;
  const bool chaos = _lx_ThreadCreate(&g_chaos, "chaos", ChaosEntry, 0, nullptr, 0, 10, 0, 0, 1) == LX_SUCCESS;
  if (!chaos || pthread_create(&watchdog, nullptr, Watchdog, nullptr) != 0) Exit(3);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (std::sscanf(a, "--seconds=%lu", &g_seconds) + std::sscanf(a, "--workers=%lu", &g_workers) +
            std::sscanf(a, "--seed=%lu", &g_seed) + std::sscanf(a, "--stall=%lu", &g_stall) +
            std::sscanf(a, "--inject=%31s", g_inject) !=
        1) {
      return std::fprintf(stderr, "stress: unknown option %s (see stress.cpp)\n", a), 2;
    }
  }
  g_workers = std::clamp<uint64_t>(g_workers, 1, kMaxWorkers);
  quorvin::test::EnterIsolation();
  if (!quorvin::test::Isolated()) return std::fprintf(stderr, "%s\n", quorvin::test::IsolationProblem().c_str()), 1;
  _lx_initialize_kernel_enter(nullptr, nullptr, Define);
}

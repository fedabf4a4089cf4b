// Fuzz and soak in one driver. Worker threads draw rows from a table of every
// service, called with random and hostile arguments (NULL and garbage
// handles, another class's handle, deleted objects, missing outputs, absurd
// sizes and options) from kernel threads, from the timer thread and from
// plain POSIX threads; each status must be one the service documents. Between
// rows the workers keep ledgers on stable objects: one owner per mutex, no
// count of a semaphore lost, no message lost, duplicated or damaged, no pool
// block leaked or handed out dirty. A chaos thread suspends, resumes,
// wait-aborts, terminates and re-creates workers; a watchdog reports a call
// that never returns. At the end every ledger must balance and no descriptor
// may be left open.
//
//   stress [--calls=N | --seconds=S] [--workers=W] [--seed=S] [--stall=S] [--inject=FAULT]
//
// --inject makes one fault on purpose (lost-wake-up, mutual-exclusion,
// semaphore-ledger, lose-message, duplicate-message, block-leak, descriptor):
// the run must then fail with the matching report. Every report is one line,
// written with one write call. The run enters private mount and IPC
// namespaces itself, so its queues and pid list never meet the machine's.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "quorvin/quorvin.h"
#include "support/isolation.h"

extern "C" void dlog_printf(int, int, const char*, ...);
extern "C" void dlog_printf(int, int, const char*, ...) {}  // the platform's log: dropped

namespace {

struct Options {
  uint64_t calls = 0, seed = 1;
  int seconds = 0, workers = 4, stall = 30;
  const char* inject = "";
} g_opt;
std::atomic<uint64_t> g_calls{0};
std::atomic<bool> g_stop{false};
std::atomic<int> g_failures{0};
int64_t NowMs() {
  static const auto start = std::chrono::steady_clock::now();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}
[[noreturn]] void Exit(int code) {
#ifdef QUORVIN_COVERAGE_BUILD
  std::exit(code);  // writes the coverage counters; _exit writes none
#endif
  ::_exit(code);
}
// One line, one write: lines of two threads never mix.
void Report(bool failure, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Report(bool failure, const char* format, ...) {
  char line[512];
  int n = std::snprintf(line, sizeof line, "stress: %s seed %llu: ", failure ? "FAIL" : "PASS", (unsigned long long)g_opt.seed);
  va_list args;
  va_start(args, format);
  n = std::min(n + std::vsnprintf(line + n, sizeof line - n - 1, format, args), (int)sizeof line - 2);
  va_end(args);
  line[n++] = '\n';
  if (::write(STDERR_FILENO, line, n) < 0) Exit(3);
  g_failures += failure;
}
bool Injecting(const char* fault) { return std::strcmp(g_opt.inject, fault) == 0; }
bool InjectOnce(const char* fault) {
  static std::atomic<bool> done{false};
  return Injecting(fault) && !done.exchange(true);
}

// ---- Random and hostile arguments ----
using Rng = std::mt19937_64;
thread_local bool t_timer = false;  // the calling thread is the timer thread
// A worker the chaos thread may terminate: a terminate may take over its request, answered LX_NOT_AVAILABLE.
thread_local bool t_expendable = false;
thread_local std::atomic<const char*>* t_doing = nullptr;  // a worker's, for the watchdog's report
thread_local uintptr_t t_garbage;
// Room for the largest message of any queue the driver makes (framed messages stay under 400 bytes); a
// smaller buffer was once overrun into the thread's own descriptor.
thread_local uint8_t t_message[4096];
uint32_t Below(Rng& r, uint32_t n) { return static_cast<uint32_t>(r() % n); }
bool Percent(Rng& r, uint32_t p) { return Below(r, 100) < p; }
uint32_t Size(Rng& r) {
  static constexpr uint32_t kEdges[] = {0, 1, 3, 4, 7, 8, 9, 16, 64, 99, 100, 101, 4096, 0x7FFFFFFF, 0x80000000u, ~0u};
  return Percent(r, 60) ? kEdges[Below(r, 16)] : static_cast<uint32_t>(r());
}
uint32_t Wait(Rng& r) { return t_timer || Percent(r, 60) ? LX_NO_WAIT : 1 + Below(r, 3); }
// For services that refuse any wait on the timer thread: there even an endless one.
uint32_t Refused(Rng& r) { return t_timer && Percent(r, 30) ? (Percent(r, 50) ? LX_WAIT_FOREVER : Size(r)) : Wait(r); }
void* Buf(Rng& r) { return Percent(r, 8) ? nullptr : t_message; }
template <typename T>
T* Out(Rng& r, T& out) { return Percent(r, 8) ? nullptr : &out; }
const char* Name(Rng& r) { return std::array{"fz", "a-name-much-longer-than-nineteen", "", (const char*)nullptr}[Below(r, 4)]; }

constexpr int kSlots = 3;
struct Scratch {  // objects the rows create, use and delete
  LX_MUTEX mutex[kSlots];
  LX_EVENT_FLAGS group[kSlots];
  LX_BLOCK_POOL blocks[kSlots];
  LX_BYTE_POOL bytes[kSlots];
  LX_SEMAPHORE semaphore[kSlots];
  LX_QUEUE queue[kSlots];
  LX_TIMER timer[kSlots];
  LX_THREAD thread[kSlots];
  CM_QUEUE cmQueue[kSlots];
  CmSemaphoreControlBlock* cmSemaphore[kSlots];
  FramedQueueCtrl framed[kSlots];
  QueueListCtrl* list[kSlots];
  alignas(8) uint8_t framedBuffer[kSlots][2048];
  alignas(8) uint32_t listStorage[kSlots][256];
  std::atomic<int> queueCreations{0};  // each may keep a descriptor open
} g_s;
template <typename T, size_t N>
T* Slot(Rng& r, T (&words)[N]) { return &words[Below(r, N)]; }
// A handle for a class with a registry: its own slot, NULL, another class's handle or a garbage word.
template <typename T, size_t N>
T* Hostile(Rng& r, T (&words)[N]) {
  const uint32_t roll = Below(r, 10);
  void* other = Percent(r, 50) ? (void*)Slot(r, g_s.semaphore) : (void*)Slot(r, g_s.blocks);
  return roll == 0 ? nullptr : roll == 1 ? (T*)other : roll == 2 ? (T*)&(t_garbage = Percent(r, 50) ? r() : 0) : Slot(r, words);
}
template <typename T, size_t N>
T* Plain(Rng& r, T (&words)[N]) { return Percent(r, 10) ? nullptr : Slot(r, words); }
template <typename T, size_t N>
T* Empty(Rng& r, T (&words)[N]) {  // a slot naming nothing, or NULL
  for (T& word : words) if (!Percent(r, 15) && std::atomic_ref(word).load() == nullptr) return &word;
  return nullptr;
}
thread_local std::vector<void*> t_held[2];  // blocks, bytes handed out to this thread
void* Releasable(Rng& r, int kind) {  // a block it holds, NULL or foreign memory
  auto& held = t_held[kind];
  if (held.empty() || Percent(r, 20)) return Percent(r, 50) ? nullptr : t_message + 16;
  std::swap(held[Below(r, held.size())], held.back());
  void* memory = held.back();
  held.pop_back();
  return memory;
}
LX_STATUS Keep(int kind, LX_STATUS status, void* memory) {
  if (status == LX_SUCCESS) t_held[kind].push_back(memory);
  return status;
}
void Expire(uint32_t) {}
void* Quick(uint64_t ticks) { _lx_ThreadSleep(static_cast<uint32_t>(ticks)); return nullptr; }
LX_THREAD* Thread(Rng& r) { return Below(r, 3) == 0 ? (Percent(r, 50) ? nullptr : _lx_ThreadIdentify()) : Slot(r, g_s.thread); }

// A dispatcher request of any class and operation, from the caller's own block (or a stranger's).
LX_STATUS Raw(Rng& r) {
  static constexpr uint16_t kClasses[] = {0x00, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x90, 0xF0};
  const uint16_t service = static_cast<uint16_t>(kClasses[Below(r, 11)] | Below(r, 16));
  LX_THREAD* self = _lx_ThreadIdentify();
  LX_THREAD* target = (service & 0xF0) == 0x80 ? Thread(r) : nullptr;
  // Deletes of registered objects go through their services; an expiry names another request; a thread is
  // slept, suspended or ended only where that cannot stall the run.
  if (service == 0x13 || service == 0x23 || service == 0x32 || service == 0x52 || service == 0x01 ||
      (service == CM_THREAD_SLEEP && (t_timer || target != self || self == nullptr)) ||
      ((service == CM_THREAD_SUSPEND || service == CM_THREAD_TERMINATE) && target == self && self != nullptr)) {
    return LX_NOT_AVAILABLE;
  }
  void* object = nullptr;
  switch (service & 0xF0) {
    case 0x10: object = Slot(r, g_s.blocks); break;
    case 0x20: object = Slot(r, g_s.bytes); break;
    case 0x30: object = Hostile(r, g_s.group); break;
    case 0x50: object = Slot(r, g_s.mutex); break;
    case 0x60: object = Slot(r, g_s.cmQueue); break;
    case 0x70:
      object = Slot(r, g_s.cmSemaphore);
      if (auto*& word = *static_cast<CmSemaphoreControlBlock**>(object); word == nullptr) {
        word = static_cast<CmSemaphoreControlBlock*>(std::calloc(1, sizeof(CmSemaphoreControlBlock)));
        word->u32Ceiling = 1 + Below(r, 3);
      }
  }
  CmServiceRequest stranger{};
  CmServiceRequest& q = self != nullptr ? (*self)->sRequest : stranger;
  std::atomic_ref(q.u16Service).store(service);
  q.psTarget = target;
  q.psThread = self;
  q.pvObject = Percent(r, 10) ? nullptr : object;
  q.pvData = Buf(r);
  q.u64Value = Percent(r, 50) ? Below(r, 4096) : r();
  q.u64Option = Percent(r, 80) ? Below(r, 4) : r();
  std::atomic_ref(q.u32WaitOption).store(self == nullptr ? 0 : Refused(r));
  CM_Request(&q);
  if (service == 0x72 && q.u16Status == LX_SUCCESS && q.pvObject != nullptr) *static_cast<void**>(object) = nullptr;
  return q.u16Status;
}

// ---- The table: every service, its documented statuses, a random call ----
constexpr uint32_t S(std::initializer_list<uint32_t> list) {
  uint32_t set = 0;
  for (uint32_t status : list) set |= 1u << status;
  return set;
}
struct Row {
  const char* name;
  uint32_t allowed;
  LX_STATUS (*call)(Rng& r);
  bool solo = false;  // state the application must not share between threads: one worker only
};
#define ROW(name, statuses, ...) {name, S statuses, []([[maybe_unused]] Rng& r) -> LX_STATUS { __VA_ARGS__; }, false}
#define SOLO(name, statuses, ...) {name, S statuses, []([[maybe_unused]] Rng& r) -> LX_STATUS { __VA_ARGS__; }, true}
const Row kRows[] = {
  ROW("_lx_MutexCreate", ({0, 28, 31}), return _lx_MutexCreate(Empty(r, g_s.mutex), Name(r), static_cast<uint16_t>(Percent(r, 70) ? Below(r, 2) : Size(r)))),
  ROW("_lx_MutexGet", ({0, 1, 19, 26, 28, 29}), return _lx_MutexGet(Hostile(r, g_s.mutex), Refused(r))),
  ROW("_lx_MutexPut", ({0, 19, 28}), return _lx_MutexPut(Hostile(r, g_s.mutex))),
  ROW("_lx_MutexDelete", ({0, 19, 28}), return Percent(r, 30) ? _lx_MutexDelete(Hostile(r, g_s.mutex)) : 0),
  ROW("_lx_MutexPrioritize", ({0, 28, 29}), return _lx_MutexPrioritize(Hostile(r, g_s.mutex))),
  ROW("_lx_MutexInfoGet", ({0, 3, 28}), char* n; uint32_t u; LX_THREAD* t; SuspendNode* f; LX_MUTEX* x; return _lx_MutexInfoGet(Hostile(r, g_s.mutex), Out(r, n), Out(r, u), Out(r, t), Out(r, f), Out(r, u), Out(r, x))),
  ROW("_lx_EventFlagsCreate", ({0, 6, 19}), return _lx_EventFlagsCreate(Empty(r, g_s.group), Name(r))),
  ROW("_lx_EventFlagsGet", ({0, 3, 4, 6, 7, 8, 19}), uint32_t a; return _lx_EventFlagsGet(Hostile(r, g_s.group), static_cast<uint32_t>(r()), static_cast<uint16_t>(Below(r, 6)), Out(r, a), Refused(r))),
  ROW("_lx_EventFlagsSet", ({0, 6, 8}), return _lx_EventFlagsSet(Hostile(r, g_s.group), static_cast<uint32_t>(r()) & 0x7FFFFFFF, static_cast<uint16_t>(Below(r, 5)))),
  ROW("_lx_EventFlagsInfoGet", ({0, 3, 6}), char* n; uint32_t u; LX_THREAD* t; LX_EVENT_FLAGS* x; return _lx_EventFlagsInfoGet(Hostile(r, g_s.group), Out(r, n), Out(r, u), Out(r, t), Out(r, u), Out(r, x))),
  ROW("_lx_EventFlagsDelete", ({0}), return _lx_EventFlagsDelete(Hostile(r, g_s.group))),
  ROW("_lx_BlockPoolCreate", ({0, 2, 3, 5, 19}), const uint32_t b = std::array{0u, 1u, 8u, 9u, 64u, 4096u}[Below(r, 6)]; return _lx_BlockPoolCreate(Empty(r, g_s.blocks), Name(r), b, Buf(r), Percent(r, 50) ? b * Below(r, 6) : Size(r))),
  ROW("_lx_BlockAllocate", ({0, 2, 3, 4, 16, 1, 26}), void* m = nullptr; return Keep(0, _lx_BlockAllocate(Hostile(r, g_s.blocks), Out(r, m), Refused(r)), m)),
  ROW("_lx_BlockRelease", ({0, 2, 3}), return _lx_BlockRelease(Releasable(r, 0))),
  ROW("_lx_BlockPoolDelete", ({0, 2, 19}), return Percent(r, 25) ? _lx_BlockPoolDelete(Hostile(r, g_s.blocks)) : 0),
  ROW("_lx_BlockPoolInfoGet", ({0, 2, 3}), char* n; uint32_t u; SuspendNode* f; LX_BLOCK_POOL* x; return _lx_BlockPoolInfoGet(Hostile(r, g_s.blocks), Out(r, n), Out(r, u), Out(r, u), Out(r, f), Out(r, u), Out(r, x))),
  ROW("_lx_BlockPoolPrioritize", ({0, 2, 29}), return _lx_BlockPoolPrioritize(Hostile(r, g_s.blocks))),
  ROW("_lx_BytePoolCreate", ({0, 2, 3, 5, 19}), return _lx_BytePoolCreate(Empty(r, g_s.bytes), Name(r), Buf(r), Percent(r, 60) ? 100 + Below(r, 1 << 16) : Size(r))),
  ROW("_lx_ByteAllocate", ({0, 1, 2, 3, 16, 19, 26}), void* m = nullptr; return Keep(1, _lx_ByteAllocate(Hostile(r, g_s.bytes), Out(r, m), Percent(r, 90) ? Below(r, 4096) : (1ull << 40), Refused(r)), m)),
  ROW("_lx_ByteRelease", ({0, 2, 3}), return _lx_ByteRelease(Releasable(r, 1))),
  ROW("_lx_BytePoolDelete", ({0, 2, 19}), return Percent(r, 25) ? _lx_BytePoolDelete(Hostile(r, g_s.bytes)) : 0),
  ROW("_lx_BytePoolInfoGet", ({0, 2, 3}), char* n; uint32_t u; SuspendNode* f; LX_BYTE_POOL* x; return _lx_BytePoolInfoGet(Hostile(r, g_s.bytes), Out(r, n), Out(r, u), Out(r, u), Out(r, f), Out(r, u), Out(r, x))),
  ROW("_lx_BytePoolPrioritize", ({0, 2, 29}), return _lx_BytePoolPrioritize(Hostile(r, g_s.bytes))),
  ROW("_lx_SemaphoreCreate", ({0, 12, 19}), return Percent(r, 20) ? _lx_SemaphoreCreate(Empty(r, g_s.semaphore), Name(r), Percent(r, 80) ? Below(r, 3) : Size(r)) : 0),
  ROW("_lx_SemaphoreGet", ({0, 4, 12, 13}), return _lx_SemaphoreGet(Plain(r, g_s.semaphore), Refused(r))),
  ROW("_lx_SemaphorePut", ({0, 12}), return _lx_SemaphorePut(Plain(r, g_s.semaphore))),
  ROW("_lx_Semaphore{Delete,InfoGet,Prioritize}", ({0}), LX_SEMAPHORE* s = Plain(r, g_s.semaphore); return _lx_SemaphoreDelete(s) | _lx_SemaphoreInfoGet(s, nullptr, nullptr, nullptr, nullptr, nullptr) | _lx_SemaphorePrioritize(s)),
  ROW("_lx_QueueCreate", ({0, 3, 5, 9}), if (g_s.queueCreations >= 48) return 0; const auto words = static_cast<uint16_t>(Percent(r, 70) ? 1u << Below(r, 5) : Size(r)); const LX_STATUS st = _lx_QueueCreate(Plain(r, g_s.queue), std::array{"h0", "h1", "bad/name"}[Below(r, 3)], words, Buf(r), Percent(r, 70) ? words * 4u * (1 + Below(r, 8)) : Size(r)); g_s.queueCreations += st == 0; return st),
  ROW("_lx_QueueSend", ({0, 3, 9, 11}), return _lx_QueueSend(Plain(r, g_s.queue), Buf(r), Wait(r))),
  ROW("_lx_QueueFrontSend", ({0, 3, 9, 11}), return _lx_QueueFrontSend(Plain(r, g_s.queue), Buf(r), Wait(r))),
  ROW("LP_QueueSend", ({0, 3, 9, 11}), return LP_QueueSend(Plain(r, g_s.queue), Buf(r), Wait(r), Below(r, 40000))),
  ROW("_lx_QueueReceive", ({0, 3, 9, 10}), return _lx_QueueReceive(Plain(r, g_s.queue), Buf(r), Wait(r))),
  ROW("_lx_QueueFlush", ({0, 9}), return _lx_QueueFlush(Plain(r, g_s.queue))),
  ROW("_lx_Queue{Delete,InfoGet,Prioritize}", ({0}), LX_QUEUE* q = Plain(r, g_s.queue); return _lx_QueueDelete(q) | _lx_QueueInfoGet(q, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) | _lx_QueuePrioritize(q)),
  SOLO("QueueCreate", ({0, 9}), const int i = static_cast<int>(Below(r, kSlots)); const auto size = static_cast<uint16_t>(Below(r, 400)); const auto slots = static_cast<uint8_t>(Below(r, 5)); if (g_s.queueCreations++ >= 48 || QueueCalcSize(size, slots) > 2048) return 0; return QueueCreate(Percent(r, 8) ? nullptr : &g_s.framed[i], std::array{"f0", "f1", "bad/name"}[Below(r, 3)], size, slots, Percent(r, 8) ? nullptr : g_s.framedBuffer[i], 0, static_cast<int32_t>(Below(r, 2)))),
  SOLO("QueueSend", ({0, 3, 4, 9, 11}), return QueueSend(Plain(r, g_s.framed), Buf(r), Percent(r, 90) ? 1 : 0, Percent(r, 70) ? 1 : Below(r, 9))),
  SOLO("QueueReceive", ({0, 3, 9, 10}), return QueueReceive(Plain(r, g_s.framed), Buf(r), Wait(r))),
  SOLO("QueueFlush", ({0, 9}), return QueueFlush(Plain(r, g_s.framed))),
  SOLO("QueueList*", ({0, 1, 4}), const int i = static_cast<int>(Below(r, kSlots)); QueueListCtrl*& list = g_s.list[i]; const uint32_t words = Percent(r, 70) ? 1u << Below(r, 5) : Size(r), capacity = Below(r, 17); switch (Below(r, 6)) { case 0: if (list == nullptr) list = QueueListCreate(capacity, words, capacity * uint64_t{words} <= 256 ? g_s.listStorage[i] : nullptr); return 0; case 1: return QueueListSend(list, Buf(r), static_cast<int32_t>(Below(r, 2)), 0); case 2: return QueueListReceive(list, Buf(r), static_cast<int32_t>(Below(r, 2)), 0); case 3: return QueueListFlush(list); case 4: { QueueMemNode stranger{}; QueueMemNode* node = Percent(r, 70) ? QueueMemAlloc(list) : &stranger; return node == nullptr || QueueMemFree(list, node) == (node == &stranger || list == nullptr) ? 0 : 30; } default: return Percent(r, 40) ? QueueListDelete(std::exchange(list, nullptr)) : 0; }),
  SOLO("CmQueueCreate", ({0, 5, 9}), return CmQueueCreate(Empty(r, g_s.cmQueue), Percent(r, 90) ? Below(r, 9) : 4096u, Percent(r, 70) ? 1u << Below(r, 5) : Below(r, 20), nullptr)),
  SOLO("CmQueue{Send,FrontSend,Receive}", ({0, 3, 4, 9, 10, 11, 1, 26}), return CmQueueIssue(Plain(r, g_s.cmQueue), std::array{CM_QUEUE_SEND, CM_QUEUE_FRONT_SEND, CM_QUEUE_RECEIVE}[Below(r, 3)], Buf(r), Refused(r))),
  SOLO("CmQueue{Flush,Prioritize,Delete}", ({0, 9, 29}), CM_QUEUE* q = Plain(r, g_s.cmQueue); return Percent(r, 20) ? CmQueueDelete(q) : Percent(r, 50) ? CmQueueFlush(q) : CmQueuePrioritize(q)),
  ROW("_lx_TimerCreate", ({0, 2, 19, 21, 22, 23}), return _lx_TimerCreate(Percent(r, 50) ? Empty(r, g_s.timer) : Plain(r, g_s.timer), Name(r), Percent(r, 8) ? nullptr : Expire, Below(r, 9), Percent(r, 80) ? Below(r, 5) : Size(r), Below(r, 4), static_cast<uint16_t>(Below(r, 3)))),
  ROW("_lx_TimerDelete", ({0, 19, 21}), return _lx_TimerDelete(Percent(r, 10) ? reinterpret_cast<LX_TIMER*>(&(t_garbage = r())) : Plain(r, g_s.timer))),
  ROW("_lx_Timer{Activate,Deactivate,Change}", ({0, 21, 22}), LX_TIMER* t = Plain(r, g_s.timer); return Percent(r, 30) ? _lx_TimerActivate(t) : Percent(r, 50) ? _lx_TimerDeactivate(t) : _lx_TimerChange(t, Percent(r, 80) ? Below(r, 5) : Size(r), Below(r, 4))),
  ROW("_lx_TimerInfoGet", ({0, 3, 21}), char* n; uint16_t a; uint32_t u; int x; return _lx_TimerInfoGet(Plain(r, g_s.timer), Out(r, n), Out(r, a), Out(r, u), Out(r, u), Out(r, x))),
  ROW("_lx_TimeGet", ({0}), _lx_TimeGet(); return 0),
  SOLO("_lx_ThreadCreate", ({0, 3, 14, 15, 16, 24}), return _lx_ThreadCreate(Percent(r, 30) ? Thread(r) : Empty(r, g_s.thread), Name(r), Percent(r, 8) ? nullptr : Quick, Below(r, 3), nullptr, Size(r), static_cast<uint16_t>(Percent(r, 80) ? Below(r, 33) : Size(r)), static_cast<uint16_t>(Below(r, 40)), Size(r), static_cast<uint16_t>(Percent(r, 80) ? Below(r, 2) : Size(r)))),
  SOLO("_lx_Thread{Sleep,Resume,WaitAbort}", ({0, 14, 27}), LX_THREAD* t = Thread(r); return Percent(r, 30) ? _lx_ThreadSleep(t_timer ? 0 : Below(r, 2)) : Percent(r, 50) ? _lx_ThreadResume(t) : _lx_ThreadWaitAbort(t)),
  SOLO("_lx_Thread{Suspend,Terminate,Delete}", ({0, 14, 17}), LX_THREAD* t = Slot(r, g_s.thread); if (Percent(r, 10)) t = nullptr; if (t_timer) return 0; /* a suspend or delete on the timer thread can stall every time-out (docs/testing.md) */ switch (Below(r, 3)) { case 0: return _lx_ThreadSuspend(t); case 1: return _lx_ThreadTerminate(t); default: { const LX_STATUS st = _lx_ThreadDelete(t); if (st == 0) *t = nullptr; return st; } }),
  SOLO("_lx_ThreadInfoGet", ({0, 3, 14}), char* n; uint16_t s; uint32_t u; LX_THREAD* x; return _lx_ThreadInfoGet(Thread(r), Out(r, n), Out(r, s), Out(r, u), Out(r, s), Out(r, s), Out(r, u), Out(r, x), Out(r, x))),
  SOLO("_lx_Thread{Priority,Preemption}Change", ({0, 3, 14, 15, 19, 24}), uint16_t old; LX_THREAD* t = Slot(r, g_s.thread); return Percent(r, 50) ? _lx_ThreadPriorityChange(t, static_cast<uint16_t>(Percent(r, 70) ? 32 : Size(r)), Out(r, old)) : _lx_ThreadPreemptionChange(t, static_cast<uint16_t>(Below(r, 40)), Out(r, old))),
  SOLO("CM_Request", ({0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 16, 26, 27, 28, 29}), return Raw(r)),
  SOLO("CM_WakeUpThread*/CM_WaitingSignal*", ({0}), CmServiceRequest q{}; q.ai32ReplyPipe[0] = q.ai32ReplyPipe[1] = -1; if (Percent(r, 50) && ::pipe(q.ai32ReplyPipe) == 0) { CM_WakeUpThreadEx(q.ai32ReplyPipe[1]); CM_WaitingSignalEx(q.ai32ReplyPipe[0]); } const int woken = CM_WakeUpThreadEx(1 << 20) | CM_WaitingSignalEx(-1) | CM_WakeUpThread(&q); return woken | CM_WaitingSignal(&q)),  // a round trip; the signal closes both ends
};

// ---- Ledgers on stable objects, which no row touches ----
struct Message {
  uint64_t id, check;
};
struct Stable {
  LX_MUTEX mutex = nullptr;
  std::atomic<int> holder{-1};
  LX_SEMAPHORE semaphore = nullptr;
  std::atomic<int64_t> puts{0}, gets{0};
  LX_QUEUE queue = nullptr;
  FramedQueueCtrl framed{};
  CM_QUEUE cmQueue = nullptr;
  alignas(8) uint8_t framedBuffer[512];
  LX_BLOCK_POOL blocks = nullptr;
  std::atomic<uint64_t> nextId{1};
  std::atomic<uint8_t> ledger[1 << 22];  // per message id: 0 unused, 1 in flight, 2 received, 3 send refused
} g_st;
enum { kUnused, kInFlight, kReceived, kRefused };
LX_STATUS Transfer(int q, bool send, Message& m, uint32_t wait) {  // over the queue of each class
  if (q == 0) return send ? _lx_QueueSend(&g_st.queue, &m, wait) : _lx_QueueReceive(&g_st.queue, &m, wait);
  if (q == 1) return send ? QueueSend(&g_st.framed, &m, 1, wait == 0 ? 1 : wait % 2) : QueueReceive(&g_st.framed, &m, wait);
  return send ? CmQueueSend(&g_st.cmQueue, &m, wait) : CmQueueReceive(&g_st.cmQueue, &m, wait);
}
void Received(const Message& m) {
  if (m.check != ~m.id || m.id >= std::size(g_st.ledger)) return Report(true, "damaged message: id %llu", (unsigned long long)m.id);
  if (InjectOnce("lose-message")) return;
  const uint8_t was = g_st.ledger[m.id].exchange(kReceived);
  if (was != kInFlight) Report(true, "message %llu received %s", (unsigned long long)m.id, was == kReceived ? "twice" : "but never sent");
  if (InjectOnce("duplicate-message")) Received(m);
}
void Check(const char* what, LX_STATUS status, uint32_t allowed) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  if ((status > 31 || (allowed & (1u << status)) == 0) && !(status == LX_NOT_AVAILABLE && (g_stop || t_expendable))) {
    Report(true, "%s returned %u, not a status it documents", what, status);
  }
}

// One ledger operation; workers the chaos thread may terminate never run these.
void LedgerOp(Rng& r, int self) {
  const uint32_t roll = Below(r, 5), wait = Percent(r, 20) ? 2 + (roll == 2) : Wait(r);
  if (roll == 0) {
    if (t_doing != nullptr) t_doing->store("_lx_MutexGet (stable)");
    const bool fake = self == 0 && Injecting("mutual-exclusion");  // "holds" without getting
    const LX_STATUS got = fake ? LX_SUCCESS : _lx_MutexGet(&g_st.mutex, Percent(r, 20) ? LX_WAIT_FOREVER : wait);
    Check("_lx_MutexGet (stable)", got, S({0, 26, 29}));
    if (got != LX_SUCCESS) return;
    if (const int other = g_st.holder.exchange(self); other != -1) Report(true, "mutual exclusion: w%02d got the mutex while w%02d holds it", self, other);
    if (fake || Percent(r, 20)) _lx_ThreadSleep(1);
    int expected = self;
    if (!g_st.holder.compare_exchange_strong(expected, -1)) Report(true, "mutual exclusion: the mutex changed hands while w%02d held it", self);
    if (!fake) Check("_lx_MutexPut (stable)", _lx_MutexPut(&g_st.mutex), S({0}));
  } else if (roll == 1 && Percent(r, 50)) {
    const LX_STATUS put = _lx_SemaphorePut(&g_st.semaphore);
    Check("_lx_SemaphorePut (stable)", put, S({0}));
    g_st.puts += put == LX_SUCCESS && !InjectOnce("semaphore-ledger");
  } else if (roll == 1) {
    const LX_STATUS got = _lx_SemaphoreGet(&g_st.semaphore, wait);
    Check("_lx_SemaphoreGet (stable)", got, S({0, 13}));
    g_st.gets += got == LX_SUCCESS;
  } else if (roll == 2) {
    void* block = nullptr;
    const LX_STATUS got = _lx_BlockAllocate(&g_st.blocks, &block, wait);
    Check("_lx_BlockAllocate (stable)", got, S({0, 16, 26}));
    if (got != LX_SUCCESS) return;
    if (std::any_of((char*)block, (char*)block + 24, [](char c) { return c != 0; })) Report(true, "a block was handed out not zero-filled");
    std::memset(block, 0x5A, 24);
    if (!InjectOnce("block-leak")) Check("_lx_BlockRelease (stable)", _lx_BlockRelease(block), S({0}));
  } else if (const int q = Below(r, 3); Percent(r, 50)) {
    Message m{g_st.nextId++, 0};
    if (m.id >= std::size(g_st.ledger)) return;
    m.check = ~m.id;
    g_st.ledger[m.id] = kInFlight;  // before the send: a receiver may take it at once
    const LX_STATUS sent = Transfer(q, true, m, wait);
    Check("send (stable)", sent, S({0, 4, 11, 26}));
    if (sent != LX_SUCCESS) g_st.ledger[m.id] = kRefused;
  } else {
    Message m{};
    const LX_STATUS got = Transfer(q, false, m, wait);
    Check("receive (stable)", got, q == 1 ? S({0, 9, 10}) : S({0, 10, 26}));  // 9: lock busy, offset put back
    if (got == LX_SUCCESS) Received(m);
  }
}

// ---- Workers, batches on the timer thread and on plain threads ----
constexpr int kMaxWorkers = 44;
struct Worker {
  LX_THREAD handle = nullptr;
  std::atomic<const char*> doing{nullptr};
  std::atomic<int64_t> since{0};
  std::atomic<bool> running{false};
  uint64_t generation = 0;
} g_w[kMaxWorkers];
bool Expendable(int i) { return i % 5 == 4; }  // the chaos thread may end it: it keeps no ledger

void RandomRow(Rng& r, bool solo) {
  const Row* row;
  do row = &kRows[Below(r, std::size(kRows))]; while (row->solo && !solo);
  if (t_doing != nullptr) t_doing->store(row->name);
  Check(row->name, row->call(r), row->allowed);
}
std::atomic<uint64_t> g_batchSeed{0};
std::atomic<bool> g_batchDone{false};
void* PlainBatch(void* seed) {
  Rng r(reinterpret_cast<uintptr_t>(seed));
  for (int i = 0; i < 16; ++i) RandomRow(r, true);
  return nullptr;
}
void TimerBatch(uint32_t) {
  t_timer = true;
  PlainBatch(reinterpret_cast<void*>(g_batchSeed.load()));
  t_timer = false;
  g_batchDone = true;
}
void Batch(Rng& r) {
  g_batchSeed = r();
  pthread_t plain;
  LX_TIMER timer = nullptr;
  if (Percent(r, 50)) {
    if (pthread_create(&plain, nullptr, PlainBatch, reinterpret_cast<void*>(r())) != 0 || pthread_join(plain, nullptr) != 0) Report(true, "plain thread failed");
    return;
  }
  g_batchDone = false;
  Check("_lx_TimerCreate (batch)", _lx_TimerCreate(&timer, "batch", TimerBatch, 0, 1, 0, 1), S({0}));
  while (!g_batchDone) _lx_ThreadSleep(1);
  Check("_lx_TimerDelete (batch)", _lx_TimerDelete(&timer), S({0}));
}

void* WorkerEntry(uint64_t input) {
  const int self = static_cast<int>(input & 0xFF);
  Worker& w = g_w[self];
  Rng r(g_opt.seed * 1000003 + input);
  t_expendable = Expendable(self);
  t_doing = &w.doing;
  static LX_SEMAPHORE never = nullptr;  // a forever wait whose wake-up never comes
  if (self == 0 && Injecting("lost-wake-up") && _lx_SemaphoreCreate(&never, "never", 0) == 0) {
    w.since = NowMs(), w.doing = "_lx_SemaphoreGet (forever)", _lx_SemaphoreGet(&never, LX_WAIT_FOREVER);
  }
  while (!g_stop) {
    const uint32_t roll = Below(r, 100);
    w.since = NowMs();
    w.doing = "a ledger operation";
    if (self == 0 && roll == 0) w.doing = "a batch on the timer thread or a plain thread", Batch(r);
    else if (roll < 50 || Expendable(self)) RandomRow(r, self == 0);
    else LedgerOp(r, self);
    w.doing = nullptr;
  }
  for (void* m : t_held[0]) _lx_BlockRelease(m);
  for (void* m : t_held[1]) _lx_ByteRelease(m);
  w.running = false;
  return nullptr;
}
void StartWorker(int i) {
  char name[8];
  std::snprintf(name, sizeof name, "w%02d", i);
  g_w[i].running = true;
  Check("_lx_ThreadCreate (worker)", _lx_ThreadCreate(&g_w[i].handle, name, WorkerEntry, (++g_w[i].generation << 8) | i, nullptr, 0, 32, 0, 0, 1), S({0}));
}

// The watchdog, a plain thread outside the kernel: a worker in one call too long, or no call returning at all.
void* Watchdog(void*) {
  for (uint64_t last = 0, still = 0, calls;; ::sleep(1), last = calls) {
    calls = g_calls;
    still = calls == last ? still + 1 : 0;
    for (int i = 0; i < g_opt.workers; ++i) {
      const char* doing = g_w[i].doing.load();
      const int64_t took = NowMs() - g_w[i].since.load();
      if (doing == nullptr || took <= g_opt.stall * 1000 || doing != g_w[i].doing.load()) continue;
      char* name = nullptr;
      uint32_t count = 0, waiting = 0;
      LX_THREAD* owner = nullptr;
      SuspendNode* first = nullptr;
      LX_MUTEX* next = nullptr;
      _lx_MutexInfoGet(&g_st.mutex, &name, &count, &owner, &first, &waiting, &next);
      Report(true, "hang: w%02d has been in %s for %lld s (the stable mutex: owner %s, %u waiting)", i, doing, (long long)took / 1000,
             owner != nullptr && *owner != nullptr ? (*owner)->acName : "none", waiting), Exit(2);
    }
    if (still > static_cast<uint64_t>(g_opt.stall)) Report(true, "hang: no call returned for %llu s", (unsigned long long)still), Exit(2);
  }
}

// Open descriptors, host queues apart (each creation may keep one open): the least of a few looks, as a
// reply pipe may be in flight.
std::pair<int, int> Descriptors() {
  std::pair<int, int> least{1 << 30, 1 << 30};
  for (int look = 0; look < 5; ++look, _lx_ThreadSleep(1)) {
    int counts[2] = {0, -1};  // the directory's own
    DIR* directory = ::opendir("/proc/self/fd");
    while (dirent* entry = directory != nullptr ? ::readdir(directory) : nullptr) {
      char target[64] = {};
      if (entry->d_name[0] != '.' && ::readlinkat(::dirfd(directory), entry->d_name, target, sizeof target - 1) >= 0) ++counts[std::strncmp(target, "/mq_", 4) != 0];
    }
    if (directory != nullptr) ::closedir(directory);
    least = {std::min(least.first, counts[0]), std::min(least.second, counts[1])};
  }
  return least;
}

// ---- The chaos thread runs the show ----
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t kChaosKinds = 2;  // running workers are not terminated: see docs/testing.md
#else
constexpr uint32_t kChaosKinds = 3;
#endif
void* ChaosEntry(uint64_t) {
  Rng r(g_opt.seed);
  Check("stable objects", _lx_MutexCreate(&g_st.mutex, "stable", 0) | _lx_SemaphoreCreate(&g_st.semaphore, "stable", 2) |
        _lx_QueueCreate(&g_st.queue, "stable", 4, g_st.framedBuffer, 64) | QueueCreate(&g_st.framed, "fstable", sizeof(Message), 8, g_st.framedBuffer, 0, 1) |
        CmQueueCreate(&g_st.cmQueue, 4, 4, nullptr) | _lx_BlockPoolCreate(&g_st.blocks, "stable", 24, g_st.framedBuffer, 72), S({0}));
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);  // the services' "not implement" lines
  ::dup2(null, STDOUT_FILENO);
  ::close(null);
  const auto before = Descriptors();
  for (int i = 0; i < g_opt.workers; ++i) StartWorker(i);
  const int64_t end = NowMs() + g_opt.seconds * 1000;
  while ((g_opt.calls != 0 ? g_calls < g_opt.calls : NowMs() < end) && g_failures == 0) {
    const int i = static_cast<int>(Below(r, static_cast<uint32_t>(g_opt.workers)));
    const uint32_t kind = Below(r, kChaosKinds + 2);
    if (kind == 0) {
      Check("_lx_ThreadSuspend (worker)", _lx_ThreadSuspend(&g_w[i].handle), S({0}));
      _lx_ThreadSleep(Below(r, 2));
      Check("_lx_ThreadResume (worker)", _lx_ThreadResume(&g_w[i].handle), S({0}));
    } else if (kind == 1) {
      Check("_lx_ThreadWaitAbort (worker)", _lx_ThreadWaitAbort(&g_w[i].handle), S({0, 27}));
    } else if (kind == 2 && Expendable(i)) {
      Check("_lx_ThreadTerminate (worker)", _lx_ThreadTerminate(&g_w[i].handle) | _lx_ThreadDelete(&g_w[i].handle), S({0}));
      StartWorker(i);
    } else {
      _lx_ThreadSleep(1);
    }
  }
  g_stop = true;
  for (int i = 0; i < g_opt.workers; ++i) {
    for (int round = 0; g_w[i].running; ++round, _lx_ThreadSleep(1)) {  // a worker may be suspended or waiting forever
      _lx_ThreadResume(&g_w[i].handle);
      _lx_ThreadWaitAbort(&g_w[i].handle);
      if (round == 3000) Report(true, "w%02d never stopped", i), Exit(1);
    }
    Check("_lx_ThreadTerminate (ended worker)", _lx_ThreadTerminate(&g_w[i].handle) | _lx_ThreadDelete(&g_w[i].handle), S({0}));
  }
  // Every ledger must balance now.
  for (int q = 0; q < 3; ++q) {
    for (Message m{}; Transfer(q, false, m, LX_NO_WAIT) == LX_SUCCESS;) Received(m);
  }
  const uint64_t lost = std::count(std::begin(g_st.ledger), std::begin(g_st.ledger) + std::min<uint64_t>(g_st.nextId, std::size(g_st.ledger)), kInFlight);
  if (lost != 0) Report(true, "lost messages: %llu sent and never received", (unsigned long long)lost);
  int64_t count = 0;
  while (_lx_SemaphoreGet(&g_st.semaphore, LX_NO_WAIT) == LX_SUCCESS) ++count;
  if (count != 2 + g_st.puts - g_st.gets) Report(true, "semaphore ends with count %lld, the ledger says %lld", (long long)count, (long long)(2 + g_st.puts - g_st.gets));
  char* name;
  uint32_t inUse = 0, total = 0, waiting = 0;
  SuspendNode* first;
  LX_BLOCK_POOL* next;
  Check("_lx_BlockPoolInfoGet", _lx_BlockPoolInfoGet(&g_st.blocks, &name, &inUse, &total, &first, &waiting, &next), S({0}));
  if (inUse != 0) Report(true, "block pool: %u of %u blocks in use at the end", inUse, total);
  if (InjectOnce("descriptor")) [[maybe_unused]] const int leaked = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const auto after = Descriptors();
  if (after.second != before.second || after.first > before.first + g_s.queueCreations) {
    Report(true, "descriptors: %d open before the workers started, %d at the end (host queues %d, %d)", before.second, after.second, before.first, after.first);
  }
  if (g_failures == 0) Report(false, "%llu calls, %llu messages, no status outside its service's set, every ledger balanced, no descriptor left open",
                              (unsigned long long)g_calls.load(), (unsigned long long)g_st.nextId - 1);
  Exit(g_failures == 0 ? 0 : 1);
}

LX_THREAD g_chaos = nullptr;  // a handle word lives as long as its thread
void Define() {
  if (_lx_ThreadCreate(&g_chaos, "chaos", ChaosEntry, 0, nullptr, 0, 10, 0, 0, 1) != LX_SUCCESS) Report(true, "no chaos thread"), Exit(1);
  pthread_t watchdog;
  pthread_create(&watchdog, nullptr, Watchdog, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    char key[16] = {};
    const char* value = std::strchr(argv[i], '=');
    if (value != nullptr) std::strncpy(key, argv[i], std::min<size_t>(value++ - argv[i], sizeof key - 1));
    const std::string k = key;
    if (k == "--calls" || k == "--seed") (k == "--calls" ? g_opt.calls : g_opt.seed) = std::strtoull(value, nullptr, 10);
    else if (k == "--seconds" || k == "--stall") (k == "--seconds" ? g_opt.seconds : g_opt.stall) = std::atoi(value);
    else if (k == "--workers") g_opt.workers = std::clamp(std::atoi(value), 1, kMaxWorkers);
    else if (k == "--inject") g_opt.inject = value;
    else return std::fprintf(stderr, "usage: stress [--calls=N | --seconds=S] [--workers=W] [--seed=S] [--stall=S] [--inject=FAULT]\n"), 2;
  }
  if (g_opt.calls == 0 && g_opt.seconds == 0) g_opt.calls = 20000;
  quorvin::test::EnterIsolation();
  if (!quorvin::test::Isolated()) return std::fprintf(stderr, "stress: %s\n", quorvin::test::IsolationProblem().c_str()), 1;
  _lx_initialize_kernel_enter(nullptr, nullptr, Define);
}

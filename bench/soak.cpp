// Soak: boots the system and keeps every service busy at once for a set time,
// failing loudly on a hang, a lost wake-up, a leak, lost or duplicated data,
// or two owners of one mutex.
//
//   soak [--seconds=N] [--seed=S] [--margin-ticks=T] [--hold-on-failure]
//        [--mqueue-dir=D] [--inject=FAULT]
//
// --hold-on-failure keeps the process as it is at the first hang or lost
// wake-up, for a debugger, instead of ending it. --inject makes one fault on
// purpose (hang, lost-wake-up, descriptor, block-leak, byte-leak,
// semaphore-ledger, lose-message, duplicate-message, mutual-exclusion): the
// run must then fail with the matching report. The test suite runs each.
//
// 46 worker threads draw random operations on shared objects of every class,
// with no-wait, finite and endless waits; one chaos thread suspends,
// resumes and wait-aborts workers, prioritizes wait lists, changes
// priorities, and deletes and re-creates objects and worker threads. That is
// every application thread the pool can take: it holds 49 blocks, and
// "Scheduler" and "TimerISR" are two of them. A
// watchdog (a plain POSIX thread outside the kernel) checks every 100 ms that
// no finite wait overstays its ticks by more than the margin and that no
// object has waiters while it could serve them. At the end the chaos thread
// stops everyone, checks descriptors and accounting, prints a summary and
// ends the process: status 0 when nothing failed.
//
// The process needs the pid-list folder and, for message queues, its own IPC
// namespace: bench/soak.sh runs it in private namespaces, with the
// namespace's message-queue file system mounted at D so that the soak can
// count the host queues at the start and at the end.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "quorvin/quorvin.h"
#include "soak.h"


namespace soak {

Options g_options;
std::atomic<bool> g_stop{false};
std::atomic<int> g_failures{0};
Worker g_workers[kWorkers];
std::vector<Family*>& Families() {
  static std::vector<Family*> families;
  return families;
}

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point g_start = Clock::now();
LX_THREAD g_chaos = nullptr;
int g_descriptors = -1;  // open once the objects exist, before any worker runs
int g_queues = -1;       // host message queues then (-1: not counted)
struct {
  int descriptors = -1, queues = -1;
} g_end;  // the same at the end
std::mutex g_printLock;

int OpenDescriptors() {
  int count = 0;
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return -1;
  while (dirent* entry = ::readdir(directory)) count += entry->d_name[0] != '.';
  ::closedir(directory);
  return count - 1;
}

// Entries of the message-queue mount, or -1 without one.
int PosixQueues() {
  if (g_options.mqueueDir == nullptr) return -1;
  DIR* directory = ::opendir(g_options.mqueueDir);
  if (directory == nullptr) return -1;
  int count = 0;
  while (dirent* entry = ::readdir(directory)) count += entry->d_name[0] != '.';
  ::closedir(directory);
  return count;
}

const char* StateName(uint16_t state) {
  switch (state) {
    case LX_STATE_READY: return "ready";
    case LX_STATE_TERMINATED: return "terminated";
    case LX_STATE_SUSPENDED: return "suspended";
    case LX_STATE_SLEEPING: return "sleeping";
    case LX_STATE_QUEUE_WAIT: return "queue wait";
    case LX_STATE_SEMAPHORE_WAIT: return "semaphore wait";
    case LX_STATE_EVENT_FLAGS_WAIT: return "event-flags wait";
    case LX_STATE_BLOCK_POOL_WAIT: return "block-pool wait";
    case LX_STATE_BYTE_POOL_WAIT: return "byte-pool wait";
    case LX_STATE_MUTEX_WAIT: return "mutex wait";
    default: return "?";
  }
}

uint16_t StateOf(LX_THREAD* handle) {
  char* name = nullptr;
  uint16_t state = 0xFFFF, priority = 0, threshold = 0;
  uint32_t runs = 0, slice = 0;
  LX_THREAD *next = nullptr, *suspended = nullptr;
  _lx_ThreadInfoGet(handle, &name, &state, &runs, &priority, &threshold, &slice, &next, &suspended);
  return state;
}

void DumpWorkers() {
  for (Worker& worker : g_workers) {
    const char* op = worker.op.load();
    std::fprintf(stderr, "  %-8s %-8s state %-16s op %-28s wait %10" PRIu32 " for %" PRId64 " ms\n", worker.name,
                 worker.finished.load() ? "ended" : "running", StateName(StateOf(&worker.handle)),
                 op != nullptr ? op : "-", worker.wait.load(), op != nullptr ? NowMs() - worker.since.load() : 0);
  }
}

// Hang: a finite wait (or a call that never waits, wait 0) that has
// overstayed its ticks by more than the margin; looked for until the process
// ends, so a worker that hangs while the workers are being stopped is named.
// Lost wake-up: an object that keeps waiters while it could serve them;
// looked for until the workers are stopped.
void* Watchdog(void*) {
  std::vector<int> strikes(Families().size(), 0);
  const int64_t margin = int64_t{g_options.marginTicks} * 10;
  for (;;) {
    ::usleep(100 * 1000);
    for (Worker& worker : g_workers) {
      const char* op = worker.op.load();
      const uint32_t wait = worker.wait.load();
      if (op == nullptr || wait == LX_WAIT_FOREVER) continue;
      const int64_t late = NowMs() - worker.since.load() - int64_t{wait} * 10;
      if (late > margin && op == worker.op.load()) {
        Fail("hang: %s has been in %s (wait %" PRIu32 " ticks) %" PRId64 " ms past its time-out", worker.name, op,
             wait, late);
        DumpWorkers();
        Finish(false);
      }
    }
    for (size_t i = 0; i < Families().size() && !g_stop.load(); ++i) {
      const char* stuck = Families()[i]->lostWakeUp != nullptr ? Families()[i]->lostWakeUp() : nullptr;
      strikes[i] = stuck != nullptr ? strikes[i] + 1 : 0;
      if (strikes[i] * 100 > margin) {
        Fail("lost wake-up: %s", stuck);
        DumpWorkers();
        Finish(false);
      }
    }
  }
}

void* WorkerEntry(uint64_t input) {
  Worker& self = g_workers[input];
  if (self.index == 0 && InjectOnce("hang")) {  // a finite wait that never ends
    Counts none;
    Timed(self, "injected wait", 2, none, LX_SUCCESS, [] {
      for (;;) ::pause();
      return LX_SUCCESS;
    });
  }
  while (!g_stop.load()) {
    std::vector<Family*>& families = Families();
    Family& family = *families[self.rng() % families.size()];
    family.work(self);
    ++family.counts.ops;
  }
  self.finished = true;
  return nullptr;
}

LX_STATUS StartWorker(int index) {
  Worker& worker = g_workers[index];
  worker.finished = false;
  return _lx_ThreadCreate(&worker.handle, worker.name, WorkerEntry, static_cast<uint64_t>(index), nullptr, 0,
                          static_cast<uint16_t>(20 + index % 12), 0, 0, 1);
}

struct ChaosCounts {
  uint64_t suspends = 0, aborts = 0, priorities = 0, restarts = 0, restartRefusals = 0;
} g_chaosCounts;

// Terminates an expendable worker, deletes it once it has ended and starts a
// new thread on its handle word.
void RestartWorker(Worker& worker) {
  Expect(_lx_ThreadTerminate(&worker.handle), {LX_SUCCESS}, "terminate a worker");
  for (int attempt = 0;; ++attempt) {
    const LX_STATUS status = _lx_ThreadDelete(&worker.handle);
    if (status == LX_SUCCESS) break;
    Expect(status, {LX_DELETE_ERROR}, "delete a terminated worker");
    if (attempt == 5) {
      Fail("%s was terminated but never ended", worker.name);
      DumpWorkers();
      Finish(false);
    }
  }
  for (Family* family : Families()) {
    if (family->forget != nullptr) family->forget(worker);
  }
  Expect(StartWorker(worker.index), {LX_SUCCESS}, "re-create a worker");
  ++g_chaosCounts.restarts;
}

void Chaos(std::mt19937_64& rng) {
  Worker& victim = g_workers[rng() % kWorkers];
  switch (rng() % 8) {
    case 0:
    case 1:
      Expect(_lx_ThreadSuspend(&victim.handle), {LX_SUCCESS}, "suspend a worker");
      _lx_ThreadSleep(static_cast<uint32_t>(rng() % 2));
      Expect(_lx_ThreadResume(&victim.handle), {LX_SUCCESS}, "resume a worker");
      ++g_chaosCounts.suspends;
      break;
    case 2:
    case 3:
      // 27: a resumed worker that has not run yet still reads as suspended.
      Expect(_lx_ThreadWaitAbort(&victim.handle), {LX_SUCCESS, LX_WAIT_ABORT_ERROR}, "wait-abort a worker");
      ++g_chaosCounts.aborts;
      break;
    case 4: {
      uint16_t old = 0;
      // Under the normal scheduling policy only priority 32 can be applied.
      Expect(_lx_ThreadPriorityChange(&victim.handle, static_cast<uint16_t>(5 + rng() % 30), &old),
             {LX_SUCCESS, LX_CALLER_ERROR, LX_PRIORITY_ERROR}, "change a worker's priority");
      ++g_chaosCounts.priorities;
      break;
    }
    case 5:
      if (victim.expendable && rng() % 8 == 0) RestartWorker(victim);
      break;
    default: {
      Family& family = *Families()[rng() % Families().size()];
      if (family.chaos != nullptr) family.chaos(rng);
      break;
    }
  }
}

// Stops the workers: every wait is aborted until each worker has left its
// loop, so endless waits end too.
bool StopWorkers() {
  g_stop = true;
  for (int round = 0; round < 500; ++round) {
    bool all = true;
    for (Worker& worker : g_workers) {
      if (worker.finished.load()) continue;
      all = false;
      _lx_ThreadWaitAbort(&worker.handle);
    }
    for (Family* family : Families()) {
      if (family->drain != nullptr) family->drain();
    }
    if (all) return true;
    _lx_ThreadSleep(1);
  }
  Fail("workers did not stop");
  DumpWorkers();
  return false;
}

void* ChaosEntry(uint64_t) {
  std::mt19937_64 rng(g_options.seed ^ 0x9e3779b97f4a7c15ull);
  const int64_t end = NowMs() + int64_t{g_options.seconds} * 1000;
  while (NowMs() < end && g_failures.load() == 0) {
    Chaos(rng);
    _lx_ThreadSleep(static_cast<uint32_t>(rng() % 3));
  }
  if (InjectOnce("descriptor")) ::open("/dev/null", O_RDONLY | O_CLOEXEC);  // never closed
  const bool stopped = StopWorkers();
  for (Family* family : Families()) {
    if (family->finalCheck != nullptr) family->finalCheck();
  }
  // A time-out in flight holds a reply pipe for a moment: look a few times.
  int after = OpenDescriptors();
  for (int i = 0; i < 100 && after > g_descriptors; ++i) {
    _lx_ThreadSleep(1);
    after = OpenDescriptors();
  }
  if (stopped && after > g_descriptors) {
    Fail("descriptors: %d open before the workers started, %d at the end", g_descriptors, after);
  }
  const int queues = PosixQueues();
  if (queues != g_queues) Fail("message queues: %d before the workers started, %d at the end", g_queues, queues);
  g_end = {after, queues};
  Finish(true);
  return nullptr;
}

void Define() {
  std::mt19937_64 seeds(g_options.seed);
  for (int i = 0; i < kWorkers; ++i) {
    Worker& worker = g_workers[i];
    worker.index = i;
    std::snprintf(worker.name, sizeof worker.name, "w%02d", i);
    worker.rng.seed(seeds());
    worker.expendable = i % 6 == 5;
  }
  for (Family* family : Families()) family->create();
  g_queues = PosixQueues();
  if (g_options.mqueueDir != nullptr && g_queues < 0) Fail("cannot read %s", g_options.mqueueDir);
  // A descriptor in flight (a reply pipe of the timer thread) may be open at
  // any one look: the baseline is the least of a few.
  g_descriptors = OpenDescriptors();
  for (int i = 0; i < 5; ++i) {
    _lx_ThreadSleep(1);
    g_descriptors = std::min(g_descriptors, OpenDescriptors());
  }
  for (int i = 0; i < kWorkers; ++i) {
    if (StartWorker(i) != LX_SUCCESS) Fail("creating worker %d failed", i);
  }
  if (_lx_ThreadCreate(&g_chaos, "chaos", ChaosEntry, 0, nullptr, 0, 10, 0, 0, 1) != LX_SUCCESS) {
    Fail("creating the chaos thread failed");
  }
  pthread_t watchdog;
  pthread_create(&watchdog, nullptr, Watchdog, nullptr);
  std::printf("soak: %d workers, chaos, watchdog; %d s, seed %" PRIu64 ", margin %d ticks\n", kWorkers,
              g_options.seconds, g_options.seed, g_options.marginTicks);
  std::fflush(stdout);
}

}  // namespace

// The report is one line written with one call: written in pieces, another
// thread's output could land between its prefix and its message.
void Fail(const char* format, ...) {
  char line[1024];
  int length = std::snprintf(line, sizeof line, "SOAK FAILURE [%.2f s]: ", static_cast<double>(NowMs()) / 1000);
  va_list arguments;
  va_start(arguments, format);
  length += std::vsnprintf(line + length, sizeof line - length, format, arguments);
  va_end(arguments);
  length = std::min<int>(length, sizeof line - 2);
  line[length++] = '\n';
  std::lock_guard lock(g_printLock);
  [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, line, length);
  ++g_failures;
}

void Expect(LX_STATUS status, std::initializer_list<LX_STATUS> allowed, const char* what) {
  for (LX_STATUS ok : allowed) {
    if (status == ok) return;
  }
  Fail("%s returned %u", what, status);
}

void Finish(bool summary) {
  static std::atomic<bool> once{false};
  if (once.exchange(true) || (g_failures.load() != 0 && g_options.holdOnFailure)) {
    if (g_options.holdOnFailure) std::fprintf(stderr, "soak: holding pid %d for a debugger\n", ::getpid());
    for (;;) ::pause();  // the first caller ends the process
  }
  if (summary) {
    std::lock_guard lock(g_printLock);
    std::printf("\nsoak summary after %.1f s (seed %" PRIu64 ")\n", static_cast<double>(NowMs()) / 1000,
                g_options.seed);
    std::printf("  %-12s %12s %10s %10s %10s %14s\n", "class", "operations", "time-outs", "aborts", "deleted",
                "max overshoot");
    for (Family* family : Families()) {
      const Counts& c = family->counts;
      std::printf("  %-12s %12" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRId64 " ticks\n",
                  family->name, c.ops.load(), c.timeouts.load(), c.aborts.load(), c.deleted.load(),
                  c.maxOvershoot.load());
      if (family->report != nullptr) family->report();
    }
    if (g_end.descriptors >= 0) {
      std::printf("  descriptors: %d at the start, %d at the end; host message queues: ", g_descriptors,
                  g_end.descriptors);
      if (g_queues < 0) {
        std::printf("not counted (no --mqueue-dir)\n");
      } else {
        std::printf("%d at the start, %d at the end\n", g_queues, g_end.queues);
      }
    }
    std::printf("  chaos: %" PRIu64 " suspensions, %" PRIu64 " wait aborts, %" PRIu64 " priority changes, %" PRIu64
                " thread restarts\n",
                g_chaosCounts.suspends, g_chaosCounts.aborts, g_chaosCounts.priorities, g_chaosCounts.restarts);
    std::printf("soak result: %s (%d failures)\n", g_failures.load() == 0 ? "PASS" : "FAIL", g_failures.load());
  }
  std::fflush(stdout);
  std::fflush(stderr);
  ::_exit(g_failures.load() == 0 ? 0 : 1);
}

// Runs one timed call and keeps the largest overshoot of a time-out: the
// ticks it took beyond its wait option.
LX_STATUS Timed(Worker& self, const char* op, uint32_t wait, Counts& counts, LX_STATUS timeoutStatus,
                const std::function<LX_STATUS()>& call) {
  self.wait = wait;
  self.since = NowMs();
  self.op = op;
  const uint32_t before = _lx_TimeGet();
  const LX_STATUS status = call();
  const uint32_t took = _lx_TimeGet() - before;
  self.op = nullptr;
  if (status == timeoutStatus && wait != LX_NO_WAIT && wait != LX_WAIT_FOREVER) {
    ++counts.timeouts;
    const int64_t over = int64_t{took} - int64_t{wait};
    for (int64_t seen = counts.maxOvershoot.load(); over > seen && !counts.maxOvershoot.compare_exchange_weak(seen, over);) {
    }
  } else if (status == LX_WAIT_ABORTED) {
    ++counts.aborts;
  } else if (status == LX_DELETED) {
    ++counts.deleted;
  }
  return status;
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - g_start).count();
}

bool Injecting(const char* fault) { return g_options.inject != nullptr && std::strcmp(g_options.inject, fault) == 0; }

bool InjectOnce(const char* fault) {
  static std::atomic<bool> done{false};
  return Injecting(fault) && !done.exchange(true);
}

bool Gate::Close(int ticks, const std::function<void()>& nudge) {
  closed_ = true;
  for (int i = 0; i < ticks && inside_.load() != 0; ++i) {
    if (nudge) nudge();
    _lx_ThreadSleep(1);
  }
  return inside_.load() == 0;
}

bool Due(int64_t& last, int64_t periodMs) {
  const int64_t now = NowMs();
  if (now - last < periodMs) return false;
  last = now;
  return true;
}

uint32_t RandomWait(Worker& self) {
  switch (self.rng() % 10) {
    case 0:
    case 1:
    case 2: return LX_NO_WAIT;
    case 3: return LX_WAIT_FOREVER;
    default: return static_cast<uint32_t>(1 + self.rng() % 20);
  }
}

}  // namespace soak

int main(int argc, char** argv) {
  using soak::g_options;
  g_options.seed = std::random_device{}();
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strncmp(arg, "--seconds=", 10) == 0) {
      g_options.seconds = std::atoi(arg + 10);
    } else if (std::strncmp(arg, "--seed=", 7) == 0) {
      g_options.seed = std::strtoull(arg + 7, nullptr, 0);
    } else if (std::strncmp(arg, "--margin-ticks=", 15) == 0) {
      g_options.marginTicks = std::atoi(arg + 15);
    } else if (std::strcmp(arg, "--hold-on-failure") == 0) {
      g_options.holdOnFailure = true;
    } else if (std::strncmp(arg, "--mqueue-dir=", 13) == 0) {
      g_options.mqueueDir = arg + 13;
    } else if (std::strncmp(arg, "--inject=", 9) == 0) {
      g_options.inject = arg + 9;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--seconds=N] [--seed=S] [--margin-ticks=T] [--hold-on-failure] [--mqueue-dir=D]"
                   " [--inject=FAULT]\n",
                   argv[0]);
      return 2;
    }
  }
  _lx_initialize_kernel_enter(nullptr, nullptr, soak::Define);
}

// Resident memory per kernel thread against a bare POSIX thread.
//
// Each side runs in a fresh child process: it reads its memory totals from
// /proc/self/smaps_rollup, starts N threads that each block for good (a
// kernel thread in an endless semaphore get, a bare pthread in sem_wait),
// waits until all of them are blocked, reads the totals again and reports the
// growth divided by N. Kernel threads are POSIX threads created with default
// attributes, so the baseline uses default attributes too (same stack size);
// what a kernel thread costs beyond it is its control block, its start-up
// (name, pid-list line, signal set-up) and whatever the C library allocates
// for a thread that calls malloc.
//
//   thread_memory_bench [threads]      (default 40, at most 48)
#include <pthread.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quorvin/quorvin.h"
#include "result.h"

namespace {

struct Memory {
  double rssKiB = 0, pssKiB = 0, privateKiB = 0;
};

Memory ReadMemory() {
  Memory m;
  FILE* f = std::fopen("/proc/self/smaps_rollup", "r");
  if (f == nullptr) return m;
  char line[256];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    double kib = 0;
    if (std::sscanf(line, "Rss: %lf kB", &kib) == 1) m.rssKiB = kib;
    if (std::sscanf(line, "Pss: %lf kB", &kib) == 1) m.pssKiB = kib;
    if (std::sscanf(line, "Private_Clean: %lf kB", &kib) == 1) m.privateKiB += kib;
    if (std::sscanf(line, "Private_Dirty: %lf kB", &kib) == 1) m.privateKiB += kib;
  }
  std::fclose(f);
  return m;
}

std::atomic<int> g_blocked{0};
sem_t g_never;                // nobody posts it
LX_SEMAPHORE g_kernelNever;   // nor this one
LX_THREAD g_threads[48];

void* BareThread(void*) {
  g_blocked.fetch_add(1);
  sem_wait(&g_never);
  return nullptr;
}

void* KernelThread(uint64_t) {
  g_blocked.fetch_add(1);
  _lx_SemaphoreGet(&g_kernelNever, LX_WAIT_FOREVER);
  return nullptr;
}

// Growth per thread once n threads are blocked.
Memory PerThread(int n, bool kernel) {
  if (kernel) {
    RTOS_LogInit();
    _lx_ThreadInitialize();  // this thread becomes "Scheduler"; the dispatcher starts
    _lx_SemaphoreCreate(&g_kernelNever, "never", 0);
  } else {
    // One thread ahead of the count, as the kernel side has its dispatcher:
    // the C library's first-thread set-up is then outside both figures.
    sem_init(&g_never, 0, 0);
    pthread_t first;
    pthread_create(&first, nullptr, BareThread, nullptr);
    while (g_blocked.load() < 1) usleep(1000);
    g_blocked = 0;
  }
  usleep(100000);
  const Memory before = ReadMemory();
  for (int i = 0; i < n; ++i) {
    if (kernel) {
      char name[16];
      std::snprintf(name, sizeof name, "idle%d", i);
      _lx_ThreadCreate(&g_threads[i], name, KernelThread, 0, nullptr, 0, 32, 0, 0, 1);
    } else {
      pthread_t t;
      pthread_create(&t, nullptr, BareThread, nullptr);
    }
  }
  while (g_blocked.load() < n) usleep(1000);
  usleep(100000);  // let the last ones reach their wait
  const Memory after = ReadMemory();
  return {(after.rssKiB - before.rssKiB) / n, (after.pssKiB - before.pssKiB) / n,
          (after.privateKiB - before.privateKiB) / n};
}

// Runs one side in a child process, so neither sees the other's threads or heap.
bool Measure(int n, bool kernel, Memory* out) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const Memory m = PerThread(n, kernel);
    const bool sent = write(fds[1], &m, sizeof m) == static_cast<ssize_t>(sizeof m);
    _exit(sent ? 0 : 1);
  }
  close(fds[1]);
  const bool got = pid > 0 && read(fds[0], out, sizeof *out) == static_cast<ssize_t>(sizeof *out);
  close(fds[0]);
  int status = 0;
  if (pid > 0) waitpid(pid, &status, 0);
  return got && out->rssKiB > 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int n = std::clamp(argc > 1 ? std::atoi(argv[1]) : 40, 1, 48);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Memory bare, kernel;
  if (!Measure(n, false, &bare) || !Measure(n, true, &kernel)) {
    std::fprintf(stderr, "thread_memory_bench: a measurement failed (is /proc/self/smaps_rollup readable?)\n");
    return 1;
  }
  std::printf("memory per thread, %d threads each (growth of /proc/self/smaps_rollup / threads)\n", n);
  std::printf("  %-14s RSS %7.1f KiB  PSS %7.1f KiB  private %7.1f KiB\n", "kernel thread", kernel.rssKiB,
              kernel.pssKiB, kernel.privateKiB);
  std::printf("  %-14s RSS %7.1f KiB  PSS %7.1f KiB  private %7.1f KiB\n", "bare pthread", bare.rssKiB, bare.pssKiB,
              bare.privateKiB);
  // PSS is the figure: RSS also counts library pages that the first call of
  // a service maps in, shared with every other process using them.
  const double ratio = kernel.pssKiB / bare.pssKiB;
  std::printf("  ratio (PSS)    %.2f (target <= 2.00)\n", ratio);
  PrintResult("memory per thread (PSS)", kernel.pssKiB, "KiB", "bare pthread, same stack", bare.pssKiB, "<= 2.00",
              Verdict(ratio, 2.0));
  return 0;
}

// Mutex hand-over between two threads: both loop on get (waiting for ever),
// count, put. With a waiter present every put hands the mutex straight to
// it, so the two threads alternate and each get is one hand-over. Reports
// the time per hand-over and how many gets were hand-overs, against two raw
// threads that pass a turn back and forth through two POSIX semaphores (the
// least a strict alternation costs); not pinned.
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "quorvin/quorvin.h"
#include "result.h"

namespace {

LX_MUTEX g_mutex;
LX_THREAD g_players[2];
std::atomic<bool> g_run{true};
std::atomic<long> g_gets[2];
std::atomic<int> g_last{-1};
std::atomic<long> g_alternations{0};

double NowS() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void* Player(uint64_t id) {
  while (g_run.load(std::memory_order_relaxed)) {
    if (_lx_MutexGet(&g_mutex, LX_WAIT_FOREVER) != LX_SUCCESS) break;
    g_gets[id].fetch_add(1, std::memory_order_relaxed);
    if (g_last.exchange(static_cast<int>(id)) != static_cast<int>(id)) g_alternations.fetch_add(1);
    _lx_MutexPut(&g_mutex);
  }
  return nullptr;
}

// Raw baseline: thread id waits on its own semaphore and posts the other's.
sem_t g_turn[2];
std::atomic<long> g_rawHandOffs{0};

void* RawPlayer(void* id) {
  const long self = reinterpret_cast<long>(id);
  while (g_run.load(std::memory_order_relaxed)) {
    sem_wait(&g_turn[self]);
    g_rawHandOffs.fetch_add(1, std::memory_order_relaxed);
    sem_post(&g_turn[1 - self]);
  }
  sem_post(&g_turn[1 - self]);  // let the partner see the end
  return nullptr;
}

// Nanoseconds per hand-off of the raw baseline over the given time.
double RawHandOffNs(double seconds) {
  sem_init(&g_turn[0], 0, 1);
  sem_init(&g_turn[1], 0, 0);
  g_run = true;
  pthread_t players[2];
  for (long id = 0; id < 2; ++id) pthread_create(&players[id], nullptr, RawPlayer, reinterpret_cast<void*>(id));
  usleep(200000);
  const long before = g_rawHandOffs;
  const double start = NowS();
  usleep(static_cast<useconds_t>(seconds * 1e6));
  const double elapsed = NowS() - start;
  const long handOffs = g_rawHandOffs - before;
  g_run = false;
  for (pthread_t& p : players) pthread_join(p, nullptr);
  return handOffs > 0 ? elapsed * 1e9 / static_cast<double>(handOffs) : 0.0;
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
  const double rawNs = RawHandOffNs(seconds);
  g_run = true;
  RTOS_LogInit();
  _lx_ThreadInitialize();
  if (_lx_MutexCreate(&g_mutex, "ping-pong", LX_NO_INHERIT) != LX_SUCCESS) return 1;
  _lx_ThreadCreate(&g_players[0], "ping", Player, 0, nullptr, 0, 32, 0, 0, 1);
  _lx_ThreadCreate(&g_players[1], "pong", Player, 1, nullptr, 0, 32, 0, 0, 1);
  usleep(200000);  // warm-up
  const long before = g_gets[0] + g_gets[1];
  const long alternationsBefore = g_alternations;
  const double start = NowS();
  usleep(static_cast<useconds_t>(seconds * 1e6));
  const double elapsed = NowS() - start;
  const long gets = g_gets[0] + g_gets[1] - before;
  const long alternations = g_alternations - alternationsBefore;
  g_run = false;
  std::printf("mutex hand-over ping-pong (2 threads, unpinned, %.1f s)\n", elapsed);
  std::printf("  gets                 %ld\n", gets);
  std::printf("  hand-overs           %ld (%.1f%% of gets alternate between the threads)\n", alternations,
              gets > 0 ? 100.0 * static_cast<double>(alternations) / static_cast<double>(gets) : 0.0);
  const double handOverNs = alternations > 0 ? elapsed * 1e9 / static_cast<double>(alternations) : 0.0;
  std::printf("  time per hand-over   %.0f ns\n", handOverNs);
  std::printf("  raw semaphore turn   %.0f ns per hand-off (baseline)\n", rawNs);
  PrintResult("mutex hand-over between 2 threads", handOverNs, "ns", "raw semaphore turn", rawNs, "-", "info");
  std::fflush(stdout);
  _exit(0);
}

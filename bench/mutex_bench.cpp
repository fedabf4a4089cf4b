// Mutex hand-over between two threads: both loop on get (waiting for ever),
// count, put. With a waiter present every put hands the mutex straight to
// it, so the two threads alternate and each get is one hand-over. Reports
// the time per hand-over and how many gets were hand-overs; not pinned.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "quorvin/quorvin.h"

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

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
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
  std::printf("  time per hand-over   %.0f ns\n", alternations > 0 ? elapsed * 1e9 / static_cast<double>(alternations) : 0.0);
  std::fflush(stdout);
  _exit(0);
}

// Mutex and pool services that finish in the calling thread, against raw
// POSIX and C-library baselines and against the same service codes sent
// through CM_Request, all measured in the same run.
//
//   fast_path_bench latency      uncontended pairs, one thread (run it pinned:
//                                taskset -c 0): mutex get+put against
//                                pthread_mutex_lock+unlock, block and 64-byte
//                                allocate+release against malloc+free
//   fast_path_bench throughput   8 threads, each with its own mutex, loop on
//                                get+put for 2 s: the services against the
//                                same codes through CM_Request (unpinned)
//   fast_path_bench handover     two threads hand one mutex back and forth,
//                                each waiting for ever: time per hand-over,
//                                the services against CM_Request; a holder
//                                puts only once its partner waits, so every
//                                get is a hand-over (pinned)
//
// Each figure is the median of several interleaved runs; pairs are timed in
// batches, so the clock's own cost does not count.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "quorvin/quorvin.h"
#include "result.h"

namespace {

uint64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// Keeps the compiler from dropping an allocation it can see is unused.
inline void Keep(void* p) { asm volatile("" : : "r"(p) : "memory"); }

// The calling kernel thread's own request, sent through the full dispatcher path.
uint16_t ViaCmRequest(uint16_t service, void* object, uint32_t wait) {
  LX_THREAD* self = _lx_ThreadIdentify();
  CmServiceRequest& r = (*self)->sRequest;
  r.u16Service = service;
  r.psThread = self;
  r.pvObject = object;
  r.u32WaitOption = wait;
  CM_Request(&r);
  return r.u16Status;
}

// ------------------------------------------------------------- latency

template <typename Pair>
double NsPerPair(Pair pair, int batch) {
  const uint64_t t0 = NowNs();
  for (int i = 0; i < batch; ++i) pair();
  return static_cast<double>(NowNs() - t0) / batch;
}

void Latency(int rounds) {
  constexpr int kBatch = 1000;  // short batches: on a busy machine most see no preemption
  constexpr uint32_t kBlock = 64;
  static LX_MUTEX mutex;
  static LX_BLOCK_POOL blocks;
  static LX_BYTE_POOL bytes;
  static uint8_t area[4096];
  pthread_mutex_t raw = PTHREAD_MUTEX_INITIALIZER;
  if (_lx_MutexCreate(&mutex, "bench", LX_NO_INHERIT) != LX_SUCCESS ||
      _lx_BlockPoolCreate(&blocks, "bench", kBlock, area, sizeof area) != LX_SUCCESS ||
      _lx_BytePoolCreate(&bytes, "bench", area, sizeof area) != LX_SUCCESS) {
    std::fprintf(stderr, "fast_path_bench: cannot create the objects\n");
    std::exit(1);
  }
  void* memory = nullptr;
  auto mutexPair = [] {
    _lx_MutexGet(&mutex, LX_NO_WAIT);
    _lx_MutexPut(&mutex);
  };
  auto rawMutexPair = [&raw] {
    pthread_mutex_lock(&raw);
    pthread_mutex_unlock(&raw);
  };
  auto blockPair = [&memory] {
    _lx_BlockAllocate(&blocks, &memory, LX_NO_WAIT);
    _lx_BlockRelease(memory);
  };
  auto bytePair = [&memory] {
    _lx_ByteAllocate(&bytes, &memory, 64, LX_NO_WAIT);
    _lx_ByteRelease(memory);
  };
  auto mallocPair = [](std::size_t n) {
    return [n] {
      void* p = std::malloc(n);
      Keep(p);
      std::free(p);
    };
  };
  std::vector<double> m, rm, b, rb, y, ry;
  for (int round = -1; round < rounds; ++round) {  // round -1 warms up
    const double values[] = {NsPerPair(mutexPair, kBatch), NsPerPair(rawMutexPair, kBatch),
                             NsPerPair(blockPair, kBatch), NsPerPair(mallocPair(kBlock), kBatch),
                             NsPerPair(bytePair, kBatch),  NsPerPair(mallocPair(64), kBatch)};
    if (round < 0) continue;
    for (auto [list, value] : {std::pair{&m, values[0]}, {&rm, values[1]}, {&b, values[2]}, {&rb, values[3]},
                               {&y, values[4]}, {&ry, values[5]}}) {
      list->push_back(value);
    }
  }
  std::printf("latency, one thread, %d rounds of %d pairs, medians (ns per pair)\n", rounds, kBatch);
  PrintResult("mutex get(no wait)+put pair", Median(m), "ns", "pthread_mutex_lock+unlock", Median(rm), "<= 10",
              Verdict(Median(m) / Median(rm), 10));
  PrintResult("block allocate(no wait)+release pair", Median(b), "ns", "malloc+free 64 B", Median(rb), "<= 10",
              Verdict(Median(b) / Median(rb), 10));
  PrintResult("byte allocate 64 B+release pair", Median(y), "ns", "malloc+free 64 B", Median(ry), "<= 15",
              Verdict(Median(y) / Median(ry), 15));
}

// ---------------------------------------------------------- throughput

// Kernel threads made once; each run starts them by raising g_round and
// ends them by g_stop, and they count what they did into g_done.
std::atomic<int> g_round{0};
std::atomic<bool> g_stop{false}, g_viaRequest{false};
std::atomic<int> g_finished{0};
std::atomic<uint64_t> g_done{0}, g_gets{0};

// Waits until the next run starts.
void AwaitRun(int& seen) {
  while (g_round.load(std::memory_order_acquire) == seen) usleep(100);
  seen = g_round.load();
}

// Runs one timed run of the running threads; returns the seconds it lasted.
double TimedRun(bool viaRequest, double seconds, int threads) {
  g_viaRequest = viaRequest;
  g_stop = false;
  g_finished = 0;
  g_done = 0;
  g_gets = 0;
  const uint64_t t0 = NowNs();
  g_round.fetch_add(1, std::memory_order_release);
  usleep(static_cast<useconds_t>(seconds * 1e6));
  g_stop = true;
  const double elapsed = static_cast<double>(NowNs() - t0) / 1e9;
  while (g_finished.load() < threads) usleep(1000);
  return elapsed;
}

constexpr int kWorkers = 8;
LX_MUTEX g_own[kWorkers];
LX_THREAD g_workers[kWorkers];

void* Worker(uint64_t index) {
  LX_MUTEX* mutex = &g_own[index];
  for (int seen = 0;;) {
    AwaitRun(seen);
    const bool viaRequest = g_viaRequest.load();
    uint64_t pairs = 0;
    while (!g_stop.load(std::memory_order_relaxed)) {
      if (viaRequest) {
        ViaCmRequest(CM_MUTEX_GET, mutex, LX_NO_WAIT);
        ViaCmRequest(CM_MUTEX_PUT, mutex, LX_NO_WAIT);
      } else {
        _lx_MutexGet(mutex, LX_NO_WAIT);
        _lx_MutexPut(mutex);
      }
      ++pairs;
    }
    g_done.fetch_add(pairs);
    g_finished.fetch_add(1);
  }
  return nullptr;
}

void Throughput(int rounds, double seconds) {
  for (uint64_t i = 0; i < kWorkers; ++i) {
    _lx_MutexCreate(&g_own[i], "own", LX_NO_INHERIT);
    _lx_ThreadCreate(&g_workers[i], "worker", Worker, i, nullptr, 0, 32, 0, 0, 1);
  }
  std::vector<double> here, queued;
  for (int round = 0; round < rounds; ++round) {
    for (const bool viaRequest : {round % 2 == 1, round % 2 == 0}) {  // alternate which goes first
      const double elapsed = TimedRun(viaRequest, seconds, kWorkers);
      (viaRequest ? queued : here).push_back(static_cast<double>(g_done.load()) / elapsed);
    }
  }
  std::printf("throughput, %d threads each with its own mutex, %d runs of %.1f s each way, medians\n", kWorkers,
              rounds, seconds);
  PrintResult("8 threads, own mutex: get+put pairs", Median(here), "pairs/s", "same codes via CM_Request",
              Median(queued), ">= 50", Verdict(Median(here) / Median(queued), 50, true));
}

// ------------------------------------------------------------ hand-over

LX_MUTEX g_shared;
LX_THREAD g_players[2];
std::atomic<int> g_last{-1};

int32_t PartnersWaiting() {
  return std::atomic_ref<int32_t>(g_shared->sSuspendCtrl.i32SuspendCount).load(std::memory_order_relaxed);
}

// Gets (waiting for ever), counts a hand-over when the other player had it
// last, puts. On stop the holder puts and leaves, so its partner gets the
// mutex, puts and leaves too.
void* Player(uint64_t id) {
  for (int seen = 0;;) {
    AwaitRun(seen);
    const bool viaRequest = g_viaRequest.load();
    uint64_t handOvers = 0, gets = 0;
    while (!g_stop.load(std::memory_order_relaxed)) {
      const uint16_t status = viaRequest ? ViaCmRequest(CM_MUTEX_GET, &g_shared, LX_WAIT_FOREVER)
                                         : _lx_MutexGet(&g_shared, LX_WAIT_FOREVER);
      if (status != LX_SUCCESS) break;
      ++gets;
      if (g_last.exchange(static_cast<int>(id)) != static_cast<int>(id)) ++handOvers;
      // Hold the mutex until the partner waits for it, so that every put is
      // a hand-over: otherwise a thread that puts and gets again before its
      // partner runs keeps the mutex, and hand-overs follow time slices.
      while (!g_stop.load(std::memory_order_relaxed) && PartnersWaiting() == 0) sched_yield();
      if (viaRequest) {
        ViaCmRequest(CM_MUTEX_PUT, &g_shared, LX_NO_WAIT);
      } else {
        _lx_MutexPut(&g_shared);
      }
    }
    g_done.fetch_add(handOvers);
    g_gets.fetch_add(gets);
    g_finished.fetch_add(1);
  }
  return nullptr;
}

void HandOver(int rounds, double seconds) {
  _lx_MutexCreate(&g_shared, "shared", LX_NO_INHERIT);
  for (uint64_t i = 0; i < 2; ++i) {
    _lx_ThreadCreate(&g_players[i], i == 0 ? "ping" : "pong", Player, i, nullptr, 0, 32, 0, 0, 1);
  }
  TimedRun(false, 0.1, 2);  // warm-up
  std::vector<double> here, queued;
  for (int round = 0; round < rounds; ++round) {
    for (const bool viaRequest : {round % 2 == 1, round % 2 == 0}) {
      const double elapsed = TimedRun(viaRequest, seconds, 2);
      const double handOvers = static_cast<double>(g_done.load());
      (viaRequest ? queued : here).push_back(handOvers > 0 ? elapsed * 1e9 / handOvers : 0);
      std::printf("  %-12s %8.0f ns per hand-over, %5.1f%% of %llu gets were hand-overs\n",
                  viaRequest ? "CM_Request" : "services", handOvers > 0 ? elapsed * 1e9 / handOvers : 0,
                  100.0 * handOvers / static_cast<double>(std::max<uint64_t>(1, g_gets.load())),
                  static_cast<unsigned long long>(g_gets.load()));
    }
  }
  std::printf("hand-over, 2 threads, one mutex, waits for ever, %d runs of %.1f s each way, medians\n", rounds,
              seconds);
  PrintResult("mutex hand-over, services", Median(here), "ns", "same codes via CM_Request", Median(queued),
              "<= 1.05", Verdict(Median(here) / Median(queued), 1.05));
}

}  // namespace

int main(int argc, char** argv) {
  const char* phase = argc > 1 ? argv[1] : "";
  const bool quick = argc > 2 && std::strcmp(argv[2], "--quick") == 0;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  RTOS_LogInit();
  _lx_ThreadInitialize();  // this thread becomes "Scheduler"; threads made later inherit its CPU set
  if (std::strcmp(phase, "latency") == 0) {
    Latency(quick ? 11 : 301);
  } else if (std::strcmp(phase, "throughput") == 0) {
    Throughput(quick ? 1 : 3, quick ? 0.3 : 2.0);
  } else if (std::strcmp(phase, "handover") == 0) {
    HandOver(quick ? 1 : 5, quick ? 0.3 : 1.0);
  } else {
    std::fprintf(stderr, "usage: fast_path_bench latency|throughput|handover [--quick]\n");
    return 2;
  }
  std::fflush(stdout);
  _exit(0);  // the dispatcher never ends
}

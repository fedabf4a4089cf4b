// Message queues against same-run baselines on the same host queues:
//   1. _lx_QueueSend + _lx_QueueReceive of one message, uncontended, against
//      raw mq_send + mq_receive on the same descriptor (target <= 1.3);
//   2. a framed 1 KiB round with the lock against the raw round plus one
//      1 KiB memcpy (target <= 1.5);
//   3. producer and consumer threads through a 10-message queue, throughput
//      against the same over a raw queue (target >= 0.8);
//   4. dispatcher-queue send + receive against two dispatcher round trips of
//      an operation it answers at once (target <= 1.1).
// Each figure is the best of several interleaved runs. Queue names are
// unlinked at once, so nothing is left on the machine. bench/all.sh runs the
// single-thread figures (1, 2, 4) pinned to one CPU and figure 3 unpinned.
//
//   queue_bench [rounds] [all|latency|throughput]
#include <mqueue.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "quorvin/quorvin.h"
#include "result.h"

namespace {

using Clock = std::chrono::steady_clock;

// Nanoseconds per call of body, best of seven runs of n calls.
double NsPerCall(long n, const std::function<void()>& body) {
  double best = 1e30;
  for (int run = 0; run < 7; ++run) {
    const auto start = Clock::now();
    for (long i = 0; i < n; ++i) body();
    best = std::min(best, std::chrono::duration<double, std::nano>(Clock::now() - start).count() / n);
  }
  return best;
}

void Report(const char* what, double subject, const char* baselineName, double baseline, const char* unit,
            double limit, bool atLeast = false) {
  char target[16];
  std::snprintf(target, sizeof target, "%s %.1f", atLeast ? ">=" : "<=", limit);
  std::printf("%-46s %10.0f %s vs %10.0f %s  ratio %.2f (target %s)\n", what, subject, unit, baseline, unit,
              subject / baseline, target);
  PrintResult(what, subject, unit, baselineName, baseline, target, Verdict(subject / baseline, limit, atLeast));
}

// Messages per second through a queue of ten, one producer and one consumer.
double Throughput(long n, const std::function<void()>& send, const std::function<void()>& receive) {
  double best = 0;
  for (int run = 0; run < 5; ++run) {
    const auto start = Clock::now();
    std::thread consumer([&] {
      for (long i = 0; i < n; ++i) receive();
    });
    for (long i = 0; i < n; ++i) send();
    consumer.join();
    best = std::max(best, n / std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  const long rounds = argc > 1 ? std::max(1L, std::atol(argv[1])) : 200000;
  const char* mode = argc > 2 ? argv[2] : "all";
  const bool latency = std::strcmp(mode, "throughput") != 0;
  const bool throughput = std::strcmp(mode, "latency") != 0;
  RTOS_LogInit();
  _lx_ThreadInitialize();

  static uint32_t storage[40];
  LX_QUEUE q = nullptr, raw = nullptr;
  if (_lx_QueueCreate(&q, "bench_words", 4, storage, 160) != LX_SUCCESS ||
      _lx_QueueCreate(&raw, "bench_raw", 4, storage, 160) != LX_SUCCESS) {
    std::fprintf(stderr, "queue creation refused (see README: host limits)\n");
    return 1;
  }
  mq_unlink("/mq_bench_words");
  mq_unlink("/mq_bench_raw");
  uint32_t message[4] = {1, 2, 3, 4}, in[4];
  if (latency) {
    const mqd_t des = q->i32MqDes;
    const double rawRound = NsPerCall(rounds, [&] {
      mq_send(des, reinterpret_cast<char*>(message), sizeof message, 10);
      mq_receive(des, reinterpret_cast<char*>(in), sizeof in, nullptr);
    });
    const double queueRound = NsPerCall(rounds, [&] {
      _lx_QueueSend(&q, message, LX_NO_WAIT);
      _lx_QueueReceive(&q, in, LX_NO_WAIT);
    });
    Report("queue send + receive, one message", queueRound, "raw mq_send + mq_receive", rawRound, "ns", 1.3);

    static uint8_t framedBuffer[9000];
    static FramedQueueCtrl framed;
    if (QueueCreate(&framed, "bench_framed", 1024, 8, framedBuffer, 0, 1) != LX_SUCCESS) return 1;
    mq_unlink("/mq_bench_framed");
    static char body[1024], copy[1024];
    const mqd_t framedDes = framed.psMsgQueue->i32MqDes;
    const double rawCopyRound = NsPerCall(rounds, [&] {
      uint32_t offset = 0;
      mq_send(framedDes, reinterpret_cast<char*>(&offset), sizeof offset, 10);
      mq_receive(framedDes, reinterpret_cast<char*>(&offset), sizeof offset, nullptr);
      std::memcpy(copy, body, sizeof body);
      asm volatile("" ::: "memory");
    });
    const double framedRound = NsPerCall(rounds, [&] {
      QueueSend(&framed, body, 1, 1);
      QueueReceive(&framed, copy, LX_NO_WAIT);
    });
    Report("framed 1 KiB round, locked", framedRound, "raw round + 1 KiB memcpy", rawCopyRound, "ns", 1.5);

    CM_QUEUE cmQueue = nullptr;
    if (CmQueueCreate(&cmQueue, 4, 4, nullptr) != LX_SUCCESS) return 1;
    const long dispatcherRounds = std::max(1L, rounds / 10);
    const double twoTrips = NsPerCall(dispatcherRounds, [&] {
      CmQueueIssue(&cmQueue, 0x61, nullptr, LX_NO_WAIT);  // answered at once with LX_NOT_AVAILABLE
      CmQueueIssue(&cmQueue, 0x61, nullptr, LX_NO_WAIT);
    });
    const double cmRound = NsPerCall(dispatcherRounds, [&] {
      CmQueueSend(&cmQueue, message, LX_NO_WAIT);
      CmQueueReceive(&cmQueue, in, LX_NO_WAIT);
    });
    Report("dispatcher queue send + receive", cmRound, "two unknown-operation requests", twoTrips, "ns", 1.1);
  }
  if (throughput) {
    const mqd_t rawDes = raw->i32MqDes;
    const double rawRate = Throughput(rounds, [&] { mq_send(rawDes, reinterpret_cast<char*>(message), 16, 10); },
                                      [&] { mq_receive(rawDes, reinterpret_cast<char*>(in), 16, nullptr); });
    const double queueRate = Throughput(rounds, [&] { _lx_QueueSend(&q, message, LX_WAIT_FOREVER); },
                                        [&] { _lx_QueueReceive(&q, in, LX_WAIT_FOREVER); });
    Report("queue producer/consumer, 10 messages", queueRate, "the same on a raw queue", rawRate, "msg/s", 0.8,
           true);
  }
  std::fflush(stdout);
  _exit(0);
}

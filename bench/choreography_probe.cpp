// Investigation aid for request_bench's throughput phase: the request
// engine's choreography written with raw primitives, with switches that
// change one step at a time, run at 1 and at N requester threads in
// alternating short runs. It reports requests/s and, per request, process
// CPU time and context switches (voluntary + involuntary, from getrusage).
// The library itself is measured too (service 0x90), as the reference.
//
//   choreography_probe [--threads=N] [--seconds=S] [--rounds=N] [--only=name,...] [--many-only]
//   choreography_probe --latency[=CPU] [--rounds=N] [--only=name,...]
// The second form pins the process to one CPU and reports the median and p90
// round trip of one requester per choreography, in interleaved blocks.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "quorvin/quorvin.h"

namespace {

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "choreography_probe: %s: %s\n", what, std::strerror(errno));
  ::_exit(2);
}

uint64_t NowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void WriteByte(int fd) {
  const char b = 'A';
  if (::write(fd, &b, 1) != 1) Die("write");
}
void ReadByte(int fd) {
  char b;
  if (::read(fd, &b, 1) != 1) Die("read");
}

struct Choreography {
  const char* name;
  bool freshPipe;         // pipe2 + two closes per request (else one pipe per requester)
  bool wakeUnderLock;     // wake byte written before the requester unlocks
  bool replyUnderLock;    // server writes reply bytes while holding the lock
  bool finalLockPass;     // requester takes and releases the lock after its reply
};

// The choreographies probed. "floor" is the library's, step for step.
const Choreography kChoreographies[] = {
    {"floor", true, true, true, true},
    {"floor-no-final-lock", true, true, true, false},
    {"floor-reply-after-unlock", true, true, false, true},
    {"floor-wake-after-unlock", true, false, true, true},
    {"reply-and-wake-outside", true, false, false, false},
    {"floor-kept-pipe", false, true, true, true},
    {"all-four-changes", false, false, false, false},
};

class Server {
 public:
  struct Request {
    Request* next = nullptr;
    int reply[2] = {-1, -1};
    uint16_t status = 0;
    bool stop = false;
  };

  explicit Server(const Choreography& c) : c_(c) {
    if (::pipe2(wake_, O_CLOEXEC) != 0) Die("pipe2");
    if (pthread_create(&thread_, nullptr, &Server::Main, this) != 0) Die("pthread_create");
  }
  ~Server() {
    Request last;
    last.stop = true;
    Prepare(last);
    RoundTrip(last);
    Finish(last);
    pthread_join(thread_, nullptr);
    ::close(wake_[0]);
    ::close(wake_[1]);
  }

  void Prepare(Request& r) const {
    if (!c_.freshPipe && ::pipe2(r.reply, O_CLOEXEC) != 0) Die("pipe2");
  }
  void Finish(Request& r) const {
    if (!c_.freshPipe) {
      ::close(r.reply[0]);
      ::close(r.reply[1]);
    }
  }

  void RoundTrip(Request& r) {
    pthread_mutex_lock(&lock_);
    if (c_.freshPipe && ::pipe2(r.reply, O_CLOEXEC) != 0) Die("pipe2");
    r.next = nullptr;
    if (tail_ != nullptr) {
      tail_->next = &r;
    } else {
      head_ = &r;
    }
    tail_ = &r;
    const bool wake = idle_ == 1;
    if (wake) {
      idle_ = 0;
      if (c_.wakeUnderLock) WriteByte(wake_[1]);
    }
    pthread_mutex_unlock(&lock_);
    if (wake && !c_.wakeUnderLock) WriteByte(wake_[1]);
    ReadByte(r.reply[0]);
    if (c_.freshPipe) {
      ::close(r.reply[0]);
      ::close(r.reply[1]);
    }
    if (c_.finalLockPass) {
      pthread_mutex_lock(&lock_);
      pthread_mutex_unlock(&lock_);
    }
    if (r.status != LX_NOT_AVAILABLE) Die("status");
  }

 private:
  static void* Main(void* self) {
    static_cast<Server*>(self)->Serve();
    return nullptr;
  }
  // Replies to a chain; reads the link before the reply byte (after it the
  // requester may reuse its block).
  static bool ReplyAll(Request* r) {
    bool stop = false;
    while (r != nullptr) {
      Request* next = r->next;
      stop = stop || r->stop;
      r->status = LX_NOT_AVAILABLE;
      WriteByte(r->reply[1]);
      r = next;
    }
    return stop;
  }
  void Serve() {
    for (;;) {
      ReadByte(wake_[0]);
      pthread_mutex_lock(&lock_);
      idle_ = 1;
      Request* list = head_;
      head_ = tail_ = nullptr;
      bool stop = false;
      if (c_.replyUnderLock) {
        stop = ReplyAll(list);
        pthread_mutex_unlock(&lock_);
      } else {
        pthread_mutex_unlock(&lock_);
        stop = ReplyAll(list);
      }
      if (stop) return;
    }
  }

  const Choreography& c_;
  pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
  Request* head_ = nullptr;
  Request* tail_ = nullptr;
  int8_t idle_ = 1;
  int wake_[2] = {-1, -1};
  pthread_t thread_{};
};

struct Sample {
  uint64_t requests = 0;   // completed in the run
  double rate = 0;         // requests/s
  double cpuUs = 0;        // process CPU µs per request
  double switches = 0;     // context switches per request
  double selfCpus = 0;     // CPUs' worth of time used by this process
  double otherCpus = 0;    // CPUs' worth used by everything else
  double idleCpus = 0;     // CPUs' worth left idle
};

// System-wide busy and idle time in seconds (/proc/stat, first line).
struct SystemTimes {
  double busy = 0, idle = 0;
};
SystemTimes ReadSystemTimes() {
  SystemTimes t;
  FILE* f = std::fopen("/proc/stat", "re");
  if (f == nullptr) return t;
  unsigned long long v[10] = {};
  if (std::fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3], &v[4],
                  &v[5], &v[6], &v[7], &v[8], &v[9]) >= 8) {
    const double hz = static_cast<double>(::sysconf(_SC_CLK_TCK));
    t.idle = static_cast<double>(v[3] + v[4]) / hz;                          // idle + iowait
    t.busy = static_cast<double>(v[0] + v[1] + v[2] + v[5] + v[6] + v[7]) / hz;  // incl. steal
  }
  std::fclose(f);
  return t;
}

double CpuSeconds(const rusage& u) {
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

template <typename PerThread>
Sample Measure(int threads, double seconds, PerThread perThread) {
  std::atomic<bool> stop{false};
  std::vector<uint64_t> counts(static_cast<std::size_t>(threads) * 8, 0);
  pthread_barrier_t start;
  pthread_barrier_init(&start, nullptr, static_cast<unsigned>(threads) + 1);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      counts[static_cast<std::size_t>(t) * 8] = perThread(start, stop);
    });
  }
  pthread_barrier_wait(&start);
  rusage u0, u1;
  getrusage(RUSAGE_SELF, &u0);
  const SystemTimes s0 = ReadSystemTimes();
  const uint64_t t0 = NowNs();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop.store(true);
  for (auto& w : workers) w.join();
  const uint64_t t1 = NowNs();
  const SystemTimes s1 = ReadSystemTimes();
  getrusage(RUSAGE_SELF, &u1);
  pthread_barrier_destroy(&start);
  uint64_t total = 0;
  for (int t = 0; t < threads; ++t) total += counts[static_cast<std::size_t>(t) * 8];
  Sample s;
  s.requests = total;
  s.rate = static_cast<double>(total) * 1e9 / static_cast<double>(t1 - t0);
  s.cpuUs = (CpuSeconds(u1) - CpuSeconds(u0)) * 1e6 / static_cast<double>(total);
  s.switches = static_cast<double>((u1.ru_nvcsw - u0.ru_nvcsw) + (u1.ru_nivcsw - u0.ru_nivcsw)) /
               static_cast<double>(total);
  const double wall = static_cast<double>(t1 - t0) / 1e9;
  s.selfCpus = (CpuSeconds(u1) - CpuSeconds(u0)) / wall;
  s.otherCpus = std::max(0.0, (s1.busy - s0.busy) / wall - s.selfCpus);
  s.idleCpus = (s1.idle - s0.idle) / wall;
  return s;
}

Sample MeasureLibrary(int threads, double seconds) {
  return Measure(threads, seconds, [](pthread_barrier_t& start, std::atomic<bool>& stop) {
    CmServiceRequest r{};
    pthread_barrier_wait(&start);
    uint64_t n = 0;
    while (!stop.load(std::memory_order_relaxed)) {
      r.u16Service = 0x90;
      CM_Request(&r);
      if (r.u16Status != LX_NOT_AVAILABLE) Die("status");
      ++n;
    }
    return n;
  });
}

Sample MeasureServer(Server& server, int threads, double seconds) {
  return Measure(threads, seconds, [&server](pthread_barrier_t& start, std::atomic<bool>& stop) {
    Server::Request r;
    server.Prepare(r);
    pthread_barrier_wait(&start);
    uint64_t n = 0;
    while (!stop.load(std::memory_order_relaxed)) {
      server.RoundTrip(r);
      ++n;
    }
    server.Finish(r);
    return n;
  });
}

uint64_t LibraryOnce(CmServiceRequest& r) {
  const uint64_t t0 = NowNs();
  r.u16Service = 0x90;
  CM_Request(&r);
  const uint64_t t1 = NowNs();
  if (r.u16Status != LX_NOT_AVAILABLE) Die("status");
  return t1 - t0;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  int threads = 8, rounds = 5;
  double seconds = 0.5;
  std::string only;
  int latencyCpu = -1;
  bool manyOnly = false;  // skip the 1-requester runs (for counting with perf)
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--many-only") == 0) { manyOnly = true; continue; }
    if (std::strcmp(argv[i], "--latency") == 0) { latencyCpu = 0; continue; }
    if (std::strncmp(argv[i], "--latency=", 10) == 0) { latencyCpu = std::atoi(argv[i] + 10); continue; }
    if (std::strncmp(argv[i], "--threads=", 10) == 0) threads = std::max(1, std::atoi(argv[i] + 10));
    else if (std::strncmp(argv[i], "--seconds=", 10) == 0) seconds = std::atof(argv[i] + 10);
    else if (std::strncmp(argv[i], "--rounds=", 9) == 0) rounds = std::max(1, std::atoi(argv[i] + 9));
    else if (std::strncmp(argv[i], "--only=", 7) == 0) only = std::string(",") + (argv[i] + 7) + ",";
    else {
      std::fprintf(stderr, "usage: choreography_probe [--latency[=CPU]] [--threads=N] [--seconds=S] [--rounds=N]\n"
                           "                          [--only=a,b] [--many-only]\n");
      return 2;
    }
  }
  if (latencyCpu >= 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(latencyCpu, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) Die("sched_setaffinity");
  }
  RTOS_LogInit();
  _lx_ThreadInitialize();

  if (latencyCpu >= 0) {
    std::vector<std::string> names;
    if (only.empty() || only.find(",library,") != std::string::npos) names.push_back("library");
    for (const Choreography& c : kChoreographies) {
      if (only.empty() || only.find(std::string(",") + c.name + ",") != std::string::npos) {
        names.push_back(c.name);
      }
    }
    std::vector<Server*> byName(names.size(), nullptr);
    std::vector<Server::Request> requests(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
      for (const Choreography& c : kChoreographies) {
        if (names[i] == c.name) {
          byName[i] = new Server(c);
          byName[i]->Prepare(requests[i]);
        }
      }
    }
    CmServiceRequest libraryRequest{};
    std::vector<std::vector<double>> samples(names.size());
    const int block = 2000;
    for (int round = -1; round < rounds; ++round) {  // round -1: warm-up
      for (std::size_t k = 0; k < names.size(); ++k) {
        const std::size_t i = (k + static_cast<std::size_t>(round + 1)) % names.size();
        for (int n = 0; n < block; ++n) {
          uint64_t ns;
          if (byName[i] == nullptr) {
            ns = LibraryOnce(libraryRequest);
          } else {
            const uint64_t t0 = NowNs();
            byName[i]->RoundTrip(requests[i]);
            ns = NowNs() - t0;
          }
          if (round >= 0) samples[i].push_back(static_cast<double>(ns));
        }
      }
    }
    std::printf("pinned to CPU %d, %d rounds x %d round trips each, interleaved\n", latencyCpu, rounds, block);
    std::printf("%-26s %10s %10s\n", "choreography", "median ns", "p90 ns");
    for (std::size_t i = 0; i < names.size(); ++i) {
      std::vector<double>& v = samples[i];
      std::sort(v.begin(), v.end());
      std::printf("%-26s %10.0f %10.0f\n", names[i].c_str(), v[v.size() / 2], v[v.size() * 9 / 10]);
    }
    std::fflush(stdout);
    ::_exit(0);
  }

  struct Row {
    std::string name;
    std::vector<Sample> one, many;
  };
  std::vector<Row> rows;
  auto wanted = [&](const std::string& name) { return only.empty() || only.find("," + name + ",") != std::string::npos; };
  if (wanted("library")) rows.push_back({"library (CM_Request)", {}, {}});
  for (const Choreography& c : kChoreographies) {
    if (wanted(c.name)) rows.push_back({c.name, {}, {}});
  }

  // Rounds outermost, so that load from elsewhere falls on every row alike.
  for (int round = 0; round < rounds; ++round) {
    for (Row& row : rows) {
      auto run = [&](int n) {
        if (row.name == "library (CM_Request)") return MeasureLibrary(n, seconds);
        for (const Choreography& c : kChoreographies) {
          if (row.name == c.name) {
            Server server(c);
            return MeasureServer(server, n, seconds);
          }
        }
        return Sample{};
      };
      if (manyOnly) {
        row.many.push_back(run(threads));
        row.one.push_back(row.many.back());
      } else if (round % 2 == 0) {
        row.one.push_back(run(1));
        row.many.push_back(run(threads));
      } else {
        row.many.push_back(run(threads));
        row.one.push_back(run(1));
      }
    }
  }

  std::printf("%d rounds x %.2f s per cell; medians over rounds; cpu = process CPU time per request\n", rounds,
              seconds);
  std::printf("%-26s %11s %7s %6s  %11s %7s %6s  %6s\n", "choreography", "1 thr req/s", "cpu us", "csw",
              "N thr req/s", "cpu us", "csw", "ratio");
  std::printf("%-26s %s\n", "", "then, per column: CPUs used by this process / by others / idle");
  for (const Row& row : rows) {
    auto pick = [](const std::vector<Sample>& v, double Sample::*field) {
      std::vector<double> x;
      for (const Sample& s : v) x.push_back(s.*field);
      return Median(x);
    };
    std::vector<double> ratios;
    for (std::size_t i = 0; i < row.one.size(); ++i) ratios.push_back(row.many[i].rate / row.one[i].rate);
    const double one = pick(row.one, &Sample::rate), many = pick(row.many, &Sample::rate);
    std::printf("%-26s %11.0f %7.2f %6.2f  %11.0f %7.2f %6.2f  %6.2f (per-round median %.2f)\n", row.name.c_str(),
                one, pick(row.one, &Sample::cpuUs), pick(row.one, &Sample::switches), many,
                pick(row.many, &Sample::cpuUs), pick(row.many, &Sample::switches), many / one, Median(ratios));
    uint64_t done = 0;
    if (!manyOnly) {
      for (const Sample& x : row.one) done += x.requests;
    }
    for (const Sample& x : row.many) done += x.requests;
    std::printf("%-26s   requests completed in all runs of this row: %llu\n", "",
                static_cast<unsigned long long>(done));
    std::printf("%-26s   self %.2f other %.2f idle %.2f          self %.2f other %.2f idle %.2f\n", "",
                pick(row.one, &Sample::selfCpus), pick(row.one, &Sample::otherCpus), pick(row.one, &Sample::idleCpus),
                pick(row.many, &Sample::selfCpus), pick(row.many, &Sample::otherCpus),
                pick(row.many, &Sample::idleCpus));
  }
  std::fflush(stdout);
  ::_exit(0);
}

// The soak program's shared pieces: options, workers, and the interface each
// object class's part of the soak implements (soak_<class>.cpp).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <random>
#include <vector>

#include "quorvin/quorvin.h"

namespace soak {

struct Options {
  int seconds = 60;
  uint64_t seed = 0;
  int marginTicks = 300;  // how far a wait may overstay before it is a hang
  bool holdOnFailure = false;
  const char* mqueueDir = nullptr;  // a mount of the IPC namespace's message queues, to count them
  const char* inject = nullptr;     // a fault the soak makes itself, to show that a check catches it
};
extern Options g_options;
extern std::atomic<bool> g_stop;

inline constexpr int kWorkers = 46;

struct Worker {
  LX_THREAD handle = nullptr;
  int index = 0;
  char name[8] = {};
  bool expendable = false;  // the chaos thread may terminate and re-create it
  std::mt19937_64 rng;
  std::atomic<bool> finished{false};
  // What the worker is blocked in, for the watchdog: the operation (nullptr
  // between operations), its wait option and when it began (ms).
  std::atomic<const char*> op{nullptr};
  std::atomic<uint32_t> wait{0};
  std::atomic<int64_t> since{0};
};
extern Worker g_workers[kWorkers];

struct Counts {
  std::atomic<uint64_t> ops{0}, timeouts{0}, aborts{0}, deleted{0};
  std::atomic<int64_t> maxOvershoot{0};
};

// One object class's part of the soak. Every function but work runs on the
// chaos thread (create: before the workers start; lostWakeUp: watchdog).
// Any function but create and work may be nullptr.
struct Family {
  const char* name;
  Counts& counts;
  void (*create)();
  void (*work)(Worker& self);                   // one random operation
  void (*chaos)(std::mt19937_64& rng);          // one disturbance
  const char* (*lostWakeUp)();                  // what is stuck, or nullptr
  void (*forget)(Worker& worker);               // a terminated worker's holdings
  void (*drain)();                              // at the end: release what waits
  void (*finalCheck)();                         // accounting at the end
  void (*report)();                             // extra summary lines
};
std::vector<Family*>& Families();
struct Register {
  explicit Register(Family& family) { Families().push_back(&family); }
};

// Reports a failure (the run will end with status 1).
void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A status outside the allowed set is a failure.
void Expect(LX_STATUS status, std::initializer_list<LX_STATUS> allowed, const char* what);
// Prints the summary (if asked) and ends the process.
[[noreturn]] void Finish(bool summary);
// Runs a call that may wait, visible to the watchdog, and counts its outcome.
LX_STATUS Timed(Worker& self, const char* op, uint32_t wait, Counts& counts, LX_STATUS timeoutStatus,
                const std::function<LX_STATUS()>& call);
// LX_NO_WAIT, a few ticks, or LX_WAIT_FOREVER.
uint32_t RandomWait(Worker& self);
// Self-test: whether the run was asked to make this fault (--inject=NAME);
// InjectOnce answers true at most once in the run.
bool Injecting(const char* fault);
bool InjectOnce(const char* fault);
// Milliseconds since the program started.
int64_t NowMs();

// Lets the chaos thread see one object with no operation in progress, for
// checks that only hold at rest. Workers enter around each operation on the
// object and leave the object alone while the gate is closed; the chaos
// thread closes it and waits for those inside to leave.
class Gate {
 public:
  bool Enter() {
    if (closed_.load()) return false;
    ++inside_;
    ++entries_;
    if (!closed_.load()) return true;  // seq_cst: Close sees this worker or it sees Close
    --inside_;
    return false;
  }
  void Leave() { --inside_; }
  int Inside() const { return inside_.load(); }
  uint64_t Entries() const { return entries_.load(); }
  // Closes the gate and waits, one tick at a time for at most `ticks`, until
  // nobody is inside; nudge runs each tick to release endless waits. The gate
  // stays closed either way: true when it emptied.
  bool Close(int ticks, const std::function<void()>& nudge = nullptr);
  void Open() { closed_ = false; }

 private:
  std::atomic<bool> closed_{false};
  std::atomic<int> inside_{0};
  std::atomic<uint64_t> entries_{0};  // every entry ever, for bounds taken while open
};

// Throttle for checks that stop part of the load: true at most once per
// `periodMs`.
bool Due(int64_t& last, int64_t periodMs);

}  // namespace soak

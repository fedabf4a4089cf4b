// Helpers for tests that run the kernel core inside their own process.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "cm/cm_internal.h"
#include "quorvin/quorvin.h"
#include "support/isolation.h"

namespace quorvin::test {

using namespace std::chrono_literals;

// Polls a condition until it holds or the time runs out.
inline bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  for (const auto deadline = std::chrono::steady_clock::now() + limit; !condition(); std::this_thread::sleep_for(1ms))
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
}

// Creates a kernel thread that runs body; the handle word must outlive it. The body belongs to the
// thread's entry, so a thread cancelled inside it frees it as it unwinds.
inline LX_STATUS Spawn(LX_THREAD* handle, const char* name, std::function<void()> body, uint16_t priority = 32) {
  const LX_THREAD_ENTRY run = [](uint64_t input) -> void* {
    return std::unique_ptr<std::function<void()>>(reinterpret_cast<std::function<void()>*>(input))->operator()(),
           nullptr;
  };
  auto* owned = new std::function<void()>(std::move(body));
  const LX_STATUS status =
      _lx_ThreadCreate(handle, name, run, reinterpret_cast<uint64_t>(owned), nullptr, 0, priority, 0, 0, 1);
  if (status != LX_SUCCESS) delete owned;
  return status;
}

// Waits for a created thread's POSIX thread to have ended (joins it).
inline bool Join(LX_THREAD thread, std::chrono::milliseconds limit = 10s) {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline), deadline.tv_sec += static_cast<time_t>(limit.count() / 1000);
  return pthread_timedjoin_np(thread->hThread, nullptr, &deadline) == 0;
}

// Reads a word that kernel threads change without a lock, atomically.
inline constexpr auto Peek = [](const auto& word) { return quorvin::detail::LoadRelaxed(word); };
inline uint16_t StateOf(LX_THREAD thread) { return Peek(thread->u16State); }

// The calling thread's own request block (the thread must be in the pool).
inline CmServiceRequest& OwnRequest() {
  LX_THREAD* self = _lx_ThreadIdentify();
  return self != nullptr && *self != nullptr ? (*self)->sRequest : (std::abort(), (*self)->sRequest);
}

// Issues a request from the calling thread's own block and returns its status.
inline uint16_t Issue(uint16_t service, void* object = nullptr, uint32_t waitOption = LX_NO_WAIT, uint64_t value = 0,
                      uint64_t option = 0, void* data = nullptr) {
  CmServiceRequest& r = OwnRequest();
  r.u16Service = service, r.psThread = _lx_ThreadIdentify(), r.pvObject = object, r.u32WaitOption = waitOption;
  r.u64Value = value, r.u64Option = option, r.pvData = data;
  return CM_Request(&r), r.u16Status;
}

// Under the component-manager lock: the waiters on a suspend list (negative for receivers of a queue),
// the handle word of the first, and the finite waits registered with the sleep agent.
inline int32_t Waiting(const SuspendCtrl& list) {
  std::lock_guard lock(quorvin::detail::CmLock());
  return list.i32SuspendCount;
}
inline LX_THREAD* FirstWaiter(const SuspendCtrl& list) {
  std::lock_guard lock(quorvin::detail::CmLock());
  return list.psFirstSuspend != nullptr ? list.psFirstSuspend->psOwner : nullptr;
}
// The waiters on a suspend list in release order; empty if the backward links do not mirror the forward ones.
inline std::vector<LX_THREAD*> Listed(const SuspendCtrl& list) {
  std::lock_guard lock(quorvin::detail::CmLock());
  std::vector<LX_THREAD*> forward, backward;
  for (auto* n = list.psFirstSuspend; n != nullptr && forward.size() < 64; n = n->psNext) forward.push_back(n->psOwner);
  for (auto* n = list.psLastSuspend; n != nullptr && backward.size() < 64; n = n->psPrev)
    backward.insert(backward.begin(), n->psOwner);
  return forward == backward ? forward : std::vector<LX_THREAD*>{};
}
inline size_t SleepAgentEntries() {
  std::lock_guard lock(quorvin::detail::CmLock());
  size_t n = 0;
  for (auto* r = quorvin::detail::S_psSleepTop; r != nullptr; r = r->psSleepNext) ++n;
  return n;
}

// The pid list's lines, and the number of open descriptors of the process.
inline std::vector<std::string> PidListLines() {
  std::vector<std::string> lines;
  for (std::ifstream file(LX_PID_LIST_PATH); lines.emplace_back(), std::getline(file, lines.back());) {
  }
  return lines.pop_back(), lines;
}
inline int OpenDescriptorCount() {
  const std::filesystem::directory_iterator listing("/proc/self/fd");
  return static_cast<int>(std::distance(begin(listing), end(listing))) - 1;  // less the listing's own
}

// The stand-in timer thread, made on first use and kept for the process's life: a thread on the timer thread's
// handle word that runs sleep-agent passes (or any work) on command and returns when they are done, so that
// time-outs advance tick by tick.
struct StandInTimer {
  void RunPasses(int n = 1) {
    while (n-- > 0) Run(SleepAgentEx);
  }
  void Run(const std::function<void()>& work) { work_ = &work, go_.release(), done_.acquire(); }
  std::binary_semaphore go_{0}, done_{0};
  const std::function<void()>* work_ = nullptr;
};
inline StandInTimer& Timer() {
  static StandInTimer* const timer = new StandInTimer;
  static const LX_STATUS started = Spawn(G_psTimer, "TimerISR", [] {
    for (;; timer->done_.release()) timer->go_.acquire(), (*timer->work_)();
  });
  EXPECT_EQ(started, LX_SUCCESS) << "no stand-in timer thread";
  return *timer;
}

// Runs calls on the timer thread and returns the statuses they gave, in order.
using Statuses = std::vector<LX_STATUS>;
inline Statuses OnTimerThread(const std::function<Statuses()>& calls) {
  Statuses statuses;
  return Timer().Run([&] { statuses = calls(); }), statuses;
}

// Kernel threads that each run one blocking call and keep its status; joined at the end.
class Waiters {
 public:
  static constexpr uint32_t kPending = 0xFFFFFFFFu;
  struct Waiter {
    LX_THREAD handle = nullptr;
    std::atomic<uint32_t> status{kPending};
    bool Done() const { return status.load() != kPending; }
  };
  ~Waiters() {  // joins them
    for (Waiter& w : waiters_) EXPECT_TRUE(w.handle == nullptr || Join(w.handle)) << "a waiter never ended";
  }

  // Starts a thread that runs call; given parked, returns only once parked() holds (it began to wait).
  Waiter& Start(std::function<uint32_t()> call, std::function<bool()> parked = {}, uint16_t priority = 32,
                const char* name = "waiter") {
    Waiter& w = waiters_.emplace_back();
    const auto run = [&w, call = std::move(call)] { w.status = call(); };
    EXPECT_EQ(Spawn(&w.handle, name, run, priority), LX_SUCCESS);
    EXPECT_TRUE(!parked || WaitUntil(parked)) << name << " never began to wait";
    return w;
  }
  // Starts a thread that runs call; returns once it has joined the waiters on list.
  Waiter& StartOn(const SuspendCtrl& list, std::function<uint32_t()> call, uint16_t priority = 32) {
    return Start(
        std::move(call), [&list, before = Waiting(list)] { return Waiting(list) != before; }, priority);
  }
  // The waiter's status once its call has returned (kPending if not within the limit).
  static uint32_t StatusOf(const Waiter& w, std::chrono::milliseconds limit = 10s) {
    return WaitUntil([&] { return w.Done(); }, limit), w.status.load();
  }

 private:
  std::deque<Waiter> waiters_;
};
using Waiter = Waiters::Waiter;

// Fixture: isolation required; the pid list emptied and the core started (the "Scheduler" entry and the
// dispatcher), once per process.
struct KernelTest : ::testing::Test {
  void SetUp() override {
    if (!Isolated()) GTEST_SKIP() << "needs private mount/IPC namespaces: " << IsolationProblem();
    [[maybe_unused]] static const bool booted = (RTOS_LogInit(), _lx_ThreadInitialize(), true);
  }
};

}  // namespace quorvin::test

// Helpers for tests that run the kernel core inside their own process.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm/cm_internal.h"
#include "quorvin/quorvin.h"
#include "support/isolation.h"

namespace quorvin::test {

using namespace std::chrono_literals;

// Empties the pid list and starts the core (the "Scheduler" entry and the
// dispatcher) from the calling thread. Once per process.
void BootCore();

// Polls a condition until it holds or the time runs out.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

// Creates a kernel thread that runs body; the handle word must outlive it.
LX_STATUS Spawn(LX_THREAD* handle, const char* name, std::function<void()> body,
                uint16_t priority = 32, uint16_t threshold = 0, uint16_t autoStart = 1);

// Waits for a created thread's entry to have returned and its POSIX thread to
// have ended (joins it).
bool Join(LX_THREAD thread, std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

// Reads a word that kernel threads change without a lock (a thread's state, a
// request's wait option or sleep flag), atomically.
template <typename T>
T Peek(const T& word) {
  return quorvin::detail::LoadRelaxed(word);
}
inline uint16_t StateOf(LX_THREAD thread) { return Peek(thread->u16State); }

// The calling thread's own request block (the thread must be in the pool).
CmServiceRequest& OwnRequest();

// Issues a request from the calling thread's own block and returns its status.
uint16_t Issue(uint16_t service, void* object = nullptr, uint32_t waitOption = LX_NO_WAIT,
               uint64_t value = 0, uint64_t option = 0, void* data = nullptr);

// Waiters on a suspend list (negative for receivers of a queue) and the handle
// word of the first, read under the component-manager lock.
int32_t Waiting(const SuspendCtrl& list);
LX_THREAD* FirstWaiter(const SuspendCtrl& list);

// The pid list's lines.
std::vector<std::string> PidListLines();

// Number of open descriptors of the process.
int OpenDescriptorCount();

// The stand-in timer thread: a thread on the timer thread's handle word that
// runs sleep-agent passes on command, so that time-outs advance tick by tick.
class StandInTimer {
 public:
  StandInTimer();
  // Runs n passes on the timer thread and returns when they are done.
  void RunPasses(int n = 1);
  // Runs a function on the timer thread and returns when it is done.
  void Run(const std::function<void()>& work);

 private:
  // Sends one command ('P': a pass, 'W': the work) and waits until it is done.
  void Command(char command);
  int commands_[2];
  int done_[2];
  std::function<void()> work_;
};

// The process's stand-in timer thread, made on first use and never destroyed
// (its thread lives on with the process).
StandInTimer& Timer();

// Runs calls on the timer thread and returns the statuses they gave, in order.
using Statuses = std::vector<LX_STATUS>;
Statuses OnTimerThread(const std::function<Statuses()>& calls);

// Finite waits registered with the sleep agent now.
size_t SleepAgentEntries();

// Kernel threads that each run one blocking call and keep its status; every
// object class's tests start their waiters through it.
class Waiters {
 public:
  struct Waiter {
    LX_THREAD handle = nullptr;
    std::atomic<uint32_t> status{kPending};
    bool Done() const { return status.load() != kPending; }
  };
  static constexpr uint32_t kPending = 0xFFFFFFFFu;

  Waiters() = default;
  Waiters(const Waiters&) = delete;
  Waiters& operator=(const Waiters&) = delete;
  ~Waiters() { JoinAll(); }

  // Starts a thread that runs call and keeps its result. When parked is
  // given, returns only once parked() holds (the thread has begun to wait).
  Waiter& Start(std::function<uint32_t()> call, std::function<bool()> parked = {}, uint16_t priority = 32,
                const char* name = "waiter");
  // Starts a thread that runs call and returns once it has joined the waiters on list.
  Waiter& StartOn(const SuspendCtrl& list, std::function<uint32_t()> call, uint16_t priority = 32);
  // The waiter's status once its call has returned (kPending if it never does
  // within the limit).
  static uint32_t StatusOf(const Waiter& waiter,
                           std::chrono::milliseconds limit = std::chrono::milliseconds(10000));
  // Joins every thread started; a thread that does not end is a failure.
  void JoinAll();

 private:
  std::deque<Waiter> waiters_;
};

using Waiter = Waiters::Waiter;

// A test-only object class on the otherwise unused class 0x40, built from the
// suspend-list operations the way every object class is.
struct TestObject {
  SuspendCtrl sSuspendCtrl{};
  uint32_t u32Available = 0;
};

inline constexpr uint16_t kTestClass = 0x40;
inline constexpr uint16_t kTestTake = 0x41;       // take one unit or wait (flags 1, or
                                                  // u64Option = kTestFlagsGiven | flags)
inline constexpr uint64_t kTestFlagsGiven = 0x100;
inline constexpr uint16_t kTestGive = 0x42;       // give one unit to the first waiter or the object
inline constexpr uint16_t kTestReleaseAll = 0x43; // release every waiter with status u64Value
inline constexpr uint16_t kTestRemove = 0x44;     // remove node pvData, mode u64Option, status u64Value
inline constexpr uint16_t kTestMoveToFront = 0x45; // unlink node pvData (mode 0), add again with flags 3
inline constexpr uint16_t kTestRecord = 0x46;     // append u64Value to RecordedValues(), complete
inline constexpr uint16_t kTestTimeoutStatus = LX_NO_INSTANCE;

// Values recorded by kTestRecord requests, and the handles of waiters ended by
// the class's wake-up (time-out or abort), in the order the dispatcher served them.
std::vector<uint64_t>& RecordedValues();

// Installs the test class in the dispatcher.
void InstallTestClass();

// Fixture: isolation required, core booted, test class installed.
class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override;
};

}  // namespace quorvin::test

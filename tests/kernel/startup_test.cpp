// Start-up through the kernel entry, which never returns, and the fatal-signal
// handler, which ends the process: each case runs in a forked child that ends
// itself once it has seen what it needs. CLOCK_REALTIME and pipe are faked on
// demand (the library is linked in statically).
#include <dlfcn.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include <gmock/gmock.h>

#include "child_process.h"
#include "support/kernel_fixture.h"

namespace {

std::atomic<int64_t> g_fakeRealtimeNs{-1};  // >= 0: what CLOCK_REALTIME reads
std::atomic<bool> g_failPipe{false};        // the next pipe call fails

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int64_t fake = g_fakeRealtimeNs;
  if (clock != CLOCK_REALTIME || fake < 0) return real(clock, time);
  *time = {fake / 1000000000, fake % 1000000000};
  return 0;
}

extern "C" int pipe(int ends[2]) noexcept {
  static const auto real = reinterpret_cast<int (*)(int*)>(dlsym(RTLD_NEXT, "pipe"));
  if (!g_failPipe.exchange(false)) return real(ends);
  errno = EMFILE;
  return -1;
}

namespace quorvin::test {
namespace {

using testing::Contains;
using testing::StartsWith;

struct Observed {
  std::atomic<uint32_t> stateInside, stateAfter;
  std::atomic<int> policyInside, servicesInside, timerFires, waitStatus, pipeWriteErrno, ticksCounted;
  std::atomic<int> pidLinesMatching;  // pid-list lines whose pid is a thread of that name
  std::atomic<bool> madeRealTime, ready;
  std::atomic<int64_t> cpuNs, toldAtNs;
  std::atomic<int> exitId;
};
Observed* g_seen = nullptr;
int g_signal = 0;

int64_t Ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

bool TickThreadStarted() { return testing::Value(PidListLines(), Contains(StartsWith("Name: SoftTimer,"))); }

void End() {
  std::fflush(nullptr);
  ::_exit(0);
}

// Child side. The initial thread is made real-time first, so that the
// low-level initialisation shows by setting it back.
void EnterKernel(void (*define)()) {
  const sched_param realtime{1};
  g_seen->madeRealTime = pthread_setschedparam(pthread_self(), SCHED_RR, &realtime) == 0;
  _lx_initialize_kernel_enter(reinterpret_cast<void*>(0x1), &g_seen, define);
}

void RecordInsideDefinition() {
  g_seen->stateInside = _lx_thread_system_state;
  int policy = -1;
  sched_param parameters{};
  pthread_getschedparam(pthread_self(), &policy, &parameters);
  g_seen->policyInside = policy;
  g_seen->servicesInside = (quorvin::detail::S_sCmThread != 0) + (*G_psTimer != nullptr && G_i32TimerPIPE[0] >= 0);
}

void EndOnceTheTickThreadRuns() {
  WaitUntil(TickThreadStarted);
  g_seen->stateAfter = __atomic_load_n(&_lx_thread_system_state, __ATOMIC_ACQUIRE);
  End();
}

void CountFire(uint32_t) { ++g_seen->timerFires; }

void CheckAfterStartUp() {
  WaitUntil([] { return g_seen->timerFires >= 3; });  // ticks reach the timers ...
  TestObject object;
  TestObject* handle = &object;
  g_seen->waitStatus = Issue(kTestTake, &handle, 5);  // ... and the time-outs
  int ends[2];
  ::pipe2(ends, 0);
  ::close(ends[0]);
  g_seen->pipeWriteErrno = ::write(ends[1], "x", 1) < 0 ? errno : 0;
  WaitUntil(TickThreadStarted);
  for (const std::string& line : PidListLines()) {
    char name[32] = "";
    int tid = 0;
    std::string comm;
    std::sscanf(line.c_str(), "Name: %31[^,], pid:%d", name, &tid);
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(tid) + "/comm"), comm);
    g_seen->pidLinesMatching += comm == name;
  }
  EndOnceTheTickThreadRuns();
}

void DefineApplication() {
  RecordInsideDefinition();
  g_fakeRealtimeNs += 2500000000;  // start-up takes two and a half seconds
  InstallTestClass();
  static LX_TIMER beat;
  static LX_THREAD idle, checker;
  _lx_TimerCreate(&beat, "beat", CountFire, 0, 2, 2, 1);
  Spawn(&idle, "idle", [] {
    for (;;) ::pause();
  });
  Spawn(&checker, "checker", CheckAfterStartUp);
}

class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QUORVIN_REQUIRE_ISOLATION();
    g_seen = &SharedWithChild<Observed>();
  }
};

TEST_F(StartupTest, EntryStartsEverythingDefinesTheApplicationAndBecomesTheTickThread) {
  SaveLogFile(LX_PID_LIST_PATH, "Name: Stale, pid:1\n");
  Child child([] {
    g_fakeRealtimeNs = 1000750000000;
    EnterKernel(DefineApplication);
  });
  ASSERT_TRUE(child.Wait()) << child.Out() << child.Err();
  EXPECT_TRUE(child.ExitedWith(0)) << child.Err();
  EXPECT_EQ(child.Out(), "IPMI initial costs 2 seconds, 500000000 nanoseconds\n");
  EXPECT_EQ(child.Err(), "");
  const Observed& seen = *g_seen;
  EXPECT_EQ(seen.stateInside, 0xF0F0F0F0u);
  EXPECT_EQ(seen.stateAfter, 0u);
  EXPECT_EQ(seen.policyInside, seen.madeRealTime ? SCHED_OTHER : seen.policyInside.load());
  EXPECT_EQ(seen.servicesInside, 2);
  EXPECT_GE(seen.timerFires, 3);
  EXPECT_EQ(seen.waitStatus, kTestTimeoutStatus);
  EXPECT_EQ(seen.pipeWriteErrno, EPIPE);  // SIGPIPE ignored
  // One line per thread with that thread's kernel id; nothing stale.
  EXPECT_THAT(PidListLines(), testing::UnorderedElementsAre(
                                  StartsWith("Name: CMRH, pid:"), StartsWith("Name: TimerISR, pid:"),
                                  StartsWith("Name: idle, pid:"), StartsWith("Name: checker, pid:"),
                                  "Name: SoftTimer, pid:" + std::to_string(child.Pid())));
  EXPECT_EQ(seen.pidLinesMatching, 5);
}

TEST_F(StartupTest, SkipStateLeavesOutLowAndHighLevelInitialisation) {
  Child child([] {
    _lx_thread_system_state = 0xF0F0F0F1u;
    EnterKernel([] {
      RecordInsideDefinition();
      std::thread(EndOnceTheTickThreadRuns).detach();
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Out() << child.Err();
  EXPECT_TRUE(child.ExitedWith(0)) << child.Err();
  EXPECT_THAT(child.Out(), testing::MatchesRegex("IPMI initial costs 0 seconds, [0-9]+ nanoseconds\n"));
  EXPECT_EQ(child.Err(), "");
  EXPECT_EQ(g_seen->stateInside, 0xF0F0F0F0u);
  EXPECT_EQ(g_seen->stateAfter, 0u);
  EXPECT_EQ(g_seen->policyInside, g_seen->madeRealTime ? SCHED_RR : g_seen->policyInside.load());
  EXPECT_EQ(g_seen->servicesInside, 0);
  EXPECT_EQ(PidListLines(), std::vector<std::string>{"Name: SoftTimer, pid:" + std::to_string(child.Pid())});
}

TEST_F(StartupTest, WithoutATimerPipeStartUpCompletesAndNoThreadSpins) {
  Child child([] {
    g_failPipe = true;
    EnterKernel([] {
      static LX_TIMER beat;
      _lx_TimerCreate(&beat, "beat", CountFire, 0, 1, 1, 1);
      std::thread([] {
        WaitUntil(TickThreadStarted);
        const int64_t before = Ns(CLOCK_PROCESS_CPUTIME_ID);
        std::this_thread::sleep_for(300ms);  // thirty ticks' time
        g_seen->cpuNs = Ns(CLOCK_PROCESS_CPUTIME_ID) - before;
        g_seen->ticksCounted = __atomic_load_n(&G_i32Ticks, __ATOMIC_RELAXED);
        End();
      }).detach();
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Out() << child.Err();
  EXPECT_TRUE(child.ExitedWith(0)) << child.Err();
  EXPECT_EQ(child.Err(), "No pipe in _lx_TimerInitialize\n");
  EXPECT_EQ(g_seen->timerFires, 0);
  EXPECT_EQ(g_seen->ticksCounted, 0);
  EXPECT_LT(g_seen->cpuNs, 100000000);
}

TEST_F(StartupTest, QuitThroughTheKernelEntryWithNoThreadToTellExitsAtOnceWithStatusZero) {
  SKIP_UNDER_THREAD_SANITIZER();
  Child child([] {
    _lx_initialize_kernel_enter(nullptr, nullptr, [] {
      std::thread([] {
        WaitUntil([] { return PidListLines().size() == 3; });  // CMRH, TimerISR, SoftTimer
        std::printf("still buffered");                          // a normal exit flushes it
        g_seen->ready = true;
      }).detach();
    });
  });
  ASSERT_TRUE(WaitUntil([] { return g_seen->ready.load(); }));
  const int64_t sentAt = Ns(CLOCK_MONOTONIC);
  ::kill(child.Pid(), SIGQUIT);
  ASSERT_TRUE(child.Wait());
  EXPECT_LT(Ns(CLOCK_MONOTONIC) - sentAt, 900000000);
  EXPECT_TRUE(child.ExitedWith(0));
  EXPECT_THAT(child.Out(), testing::EndsWith(" nanoseconds\nstill buffered"));
  EXPECT_EQ(child.Err(), "");
}

TEST_F(StartupTest, QuitTellsTheRegisteredThreadAndExitsASecondLater) {
  SKIP_UNDER_THREAD_SANITIZER();
  Observed& seen = *g_seen;
  Child child([&] {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGQUIT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // the told thread keeps both blocked
    struct sigaction action {};
    action.sa_handler = _lx_sighandler;
    ::sigaction(SIGQUIT, &action, nullptr);
    std::thread told([&] {
      sigset_t terminate;
      sigemptyset(&terminate);
      sigaddset(&terminate, SIGTERM);
      int signal = 0;
      sigwait(&terminate, &signal);
      seen.exitId = __atomic_load_n(&g_zloop_exit_id, __ATOMIC_ACQUIRE);
      seen.toldAtNs = Ns(CLOCK_MONOTONIC);
    });
    g_zloop_thread_id = told.native_handle();
    sigdelset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // SIGQUIT comes to this thread
    seen.ready = true;
    for (;;) ::pause();
  });
  ASSERT_TRUE(WaitUntil([&] { return seen.ready.load(); }));
  const int64_t sentAt = Ns(CLOCK_MONOTONIC);
  ::kill(child.Pid(), SIGQUIT);
  ASSERT_TRUE(child.Wait());
  const int64_t endedAt = Ns(CLOCK_MONOTONIC);
  EXPECT_TRUE(child.ExitedWith(0));
  EXPECT_EQ(seen.exitId, 1);
  EXPECT_GE(endedAt - seen.toldAtNs, 800000000);
  EXPECT_LT(endedAt - sentAt, 10000000000);
  EXPECT_EQ(child.Err(), "");
}

// Caught fault signals write a backtrace ("...[0x...]" frame lines) and end the
// process by the signal; SIGSEGV and SIGBUS are left to their default.
TEST_F(StartupTest, FaultSignalsWriteABacktraceAndEndTheProcessByTheSignal) {
  for (const int signal : {SIGFPE, SIGILL, SIGABRT, SIGSEGV, SIGBUS}) {
    Child child([signal] {
      const rlimit noCore{0, 0};
      ::setrlimit(RLIMIT_CORE, &noCore);
      for (const int fault : {SIGSEGV, SIGBUS}) ::signal(fault, SIG_DFL);  // a sanitizer takes these
      g_signal = signal;
      _lx_initialize_kernel_enter(nullptr, nullptr, [] { std::thread([] { ::raise(g_signal); }).join(); });
    });
    ASSERT_TRUE(child.Wait());
    EXPECT_EQ(child.Signal(), signal) << strsignal(signal);
    const std::string err = child.Err();
    int frames = 0;
    for (size_t at = 0; (at = err.find("[0x", at)) != std::string::npos; ++at) ++frames;
    EXPECT_EQ(frames >= 3, signal != SIGSEGV && signal != SIGBUS) << strsignal(signal) << ":\n" << err;
  }
}

}  // namespace
}  // namespace quorvin::test

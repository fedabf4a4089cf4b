// The kernel layer. The platform layer when the platform brings no logging
// library; the log streams and the pid-list file; timed waits when the realtime
// clock cannot be read; start-up through the kernel entry, which never returns,
// and the fatal-signal handler, which ends the process: each of those cases runs
// in a forked child that ends itself once it has seen what it needs.
// CLOCK_REALTIME and pipe are faked or made to fail on demand (the library is
// linked in statically).
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "child_process.h"
#include "kernel/deadline.h"
#include "kernel/platform.h"
#include "support/kernel_fixture.h"

namespace {

std::atomic<int64_t> g_fakeRealtimeNs{-1};  // >= 0: what CLOCK_REALTIME reads
std::atomic<bool> g_clockFails{false};      // CLOCK_REALTIME cannot be read
std::atomic<bool> g_failPipe{false};        // the next pipe call fails

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int64_t fake = g_fakeRealtimeNs;
  if (clock != CLOCK_REALTIME || (fake < 0 && !g_clockFails)) return real(clock, time);
  if (g_clockFails) {
    errno = EINVAL;
    return -1;
  }
  *time = {fake / 1000000000, fake % 1000000000};
  return 0;
}

extern "C" int pipe(int ends[2]) noexcept {
  static const auto real = reinterpret_cast<int (*)(int*)>(dlsym(RTLD_NEXT, "pipe"));
  if (!g_failPipe.exchange(false)) return real(ends);
  errno = EMFILE;
  return -1;
}

namespace quorvin::detail {
namespace {

TEST(PlatformTest, BoundedCopyKeepsAtMostSizeMinusOneCharacters) {
  char name[20] = "untouched";
  EXPECT_EQ(BoundedCopy(name, "ignored", 0), 7u);
  EXPECT_STREQ(name, "untouched");
  EXPECT_EQ(BoundedCopy(name, "abcdefghijklmnopqrstuvwxy", sizeof name), 25u);
  EXPECT_STREQ(name, "abcdefghijklmnopqrs");
  EXPECT_EQ(BoundedCopy(name, nullptr, sizeof name), 0u);
  EXPECT_STREQ(name, "");
}

// A line too long for the fallback's buffer is cut but still ends the line.
TEST(PlatformTest, WithoutThePlatformLogEachDiagnosticIsOneLineOnStandardError) {
  ::testing::internal::CaptureStderr();
  DiagLog(3, 1, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 269);
  DiagLog(3, 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n"
            "Error in QueueReceive Line :269\n" + std::string(1022, 'x') + "\n");
}

// The wake and reply bytes: a full non-blocking pipe is waited on, not spun
// on or given up; end of file and a dead descriptor report failure at once.
TEST(PlatformTest, OneByteMovesWaitOnAFullPipeAndFailOnAClosedOrDeadOne) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
  int queued = 0;
  while (::write(ends[1], "f", 1) == 1) ++queued;
  std::thread drainer([&] {
    ::usleep(20000);
    char page[4096];  // a full pipe takes writes again once a page is free
    ASSERT_EQ(::read(ends[0], page, sizeof page), static_cast<ssize_t>(sizeof page));
  });
  EXPECT_TRUE(MoveOneByte(ends[1], true));  // waits until the drainer makes room
  drainer.join();
  for (int i = 4096; i < queued + 1; ++i) ASSERT_TRUE(MoveOneByte(ends[0], false));
  std::thread filler([&] {
    ::usleep(20000);
    ASSERT_EQ(::write(ends[1], "g", 1), 1);
  });
  EXPECT_TRUE(MoveOneByte(ends[0], false));  // empty: waits for the byte
  filler.join();

  ::close(ends[1]);
  EXPECT_FALSE(MoveOneByte(ends[0], false));  // end of file
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[0], false));  // EBADF
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[1], true));  // EPIPE: nobody reads
  WriteAll(ends[1], "lost", 4);               // returns rather than retries
  ::close(ends[1]);
}

TEST(PlatformTest, KeptBlocksAreListedBeyondTheFirstAllocation) {
  static int blocks[300];
  for (int& block : blocks) KeepBlock(&block);
  for (const int& block : blocks) ASSERT_TRUE(BlockKept(&block));
  for (int i = 299; i >= 0; i -= 2) DropBlock(&blocks[i]);
  DropBlock(&blocks[1]);  // already dropped: nothing happens
  for (int i = 0; i < 300; ++i) EXPECT_EQ(BlockKept(&blocks[i]), i % 2 == 0) << i;
  for (int i = 0; i < 300; i += 2) DropBlock(&blocks[i]);
  for (const int& block : blocks) EXPECT_FALSE(BlockKept(&block));
}

TEST(PlatformTest, TickDeadlinesCarryOnceIntoTheSeconds) {
  auto at = [](time_t s, long ns) { return timespec{s, ns}; };
  auto same = [](timespec a, timespec b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; };
  EXPECT_TRUE(same(DeadlineAfter(at(100, 600'000'000), 50), at(101, 100'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 0), 250), at(102, 500'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 999'999'999), 99), at(101, 989'999'999)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 100), at(101, 5)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 0xFFFFFFFEu), at(100 + 42949672, 940'000'005)));
}

}  // namespace
}  // namespace quorvin::detail

namespace quorvin::test {
namespace {

std::string Contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { QUORVIN_REQUIRE_ISOLATION(); }
};

TEST_F(LogTest, InitEmptiesTheFileAndSaveAppendsLinesCutAt1023Characters) {
  const int descriptors = OpenDescriptorCount();
  SaveLogFile(LX_PID_LIST_PATH, "left over from an earlier run\n");
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 0);
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "");
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "worker", 42L);
  SaveLogFile(LX_PID_LIST_PATH, "%s", std::string(1500, 'x').c_str());
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "Name: worker, pid:42\n" + std::string(1023, 'x'));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  hCM_Error = hCM_Warning = hCM_LogFile = stderr;
  RTOS_LogInit();  // points every stream at standard output
  EXPECT_EQ(std::tuple(hCM_Error, hCM_Warning, hCM_LogFile), std::tuple(stdout, stdout, stdout));
}

TEST_F(LogTest, MissingFolderReportsEachFailedOpenAndCarriesOn) {
  ASSERT_EQ(::rmdir("/var/run/velmora"), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 1);
  SaveLogFile(LX_PID_LIST_PATH, "Name: x, pid:1\n");
  const std::string line = std::string(LX_PID_LIST_PATH) + ": No such file or directory\n";
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), line + line);
}

TEST_F(LogTest, DispatcherWritesItsLineWithItsKernelThreadId) {
  BootCore();
  const std::string prefix = "Name: CMRH, pid:";
  std::string tid;
  ASSERT_TRUE(WaitUntil([&] {
    for (const auto& line : PidListLines())
      if (line.starts_with(prefix)) tid = line.substr(prefix.size());
    return !tid.empty();
  }));
  EXPECT_NE(tid, std::to_string(::getpid()));
  // A thread of ours that names itself CMRH (right after writing its line).
  EXPECT_TRUE(WaitUntil([&] { return Contents("/proc/self/task/" + tid + "/comm") == "CMRH\n"; }));
}

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

class ClockFaultTest : public KernelTest {
 protected:
  void TearDown() override { g_clockFails = false; }
};

TEST_F(ClockFaultTest, TimedWaitsFailWithTheirFamilysErrorAndLeaveNothingArmed) {
  LX_SEMAPHORE semaphore = nullptr;
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, "s", 0), LX_SUCCESS);
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "g"), LX_SUCCESS);
  uint32_t actual = 0;
  g_clockFails = true;
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 5), LX_SEMAPHORE_ERROR);
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, 5), LX_GROUP_ERROR);
  g_clockFails = false;
  char* name = nullptr;
  uint32_t flags = 0, waiting = 9;
  LX_THREAD* first = nullptr;
  LX_EVENT_FLAGS* next = nullptr;
  ASSERT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
  EXPECT_EQ(waiting, 0u);                    // withdrawn
  EXPECT_EQ(first, _lx_ThreadIdentify());    // its record stays for the next wait
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);
  EXPECT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
  EXPECT_EQ(flags, 0x1u);  // nobody took it
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x2, LX_OR, &actual, 1), LX_NO_EVENTS);  // no stale post either
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 1), LX_NO_INSTANCE);
}

}  // namespace
}  // namespace quorvin::test

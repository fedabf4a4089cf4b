// The kernel layer: the platform layer (diagnostics without the platform's
// log library, one-byte pipe moves, tick deadlines, timed waits when the
// realtime clock cannot be read); the log streams and the pid-list file;
// start-up through the kernel entry, which never returns, and the fatal-signal
// handler, which ends the process: each of those runs in a forked child.
// CLOCK_REALTIME and pipe are faked or made to fail on demand (the library is
// linked in statically).
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>

#include <gmock/gmock.h>

#include "kernel/deadline.h"
#include "kernel/platform.h"
#include "quorvin/lx_mutex.h"
#include "support/kernel_fixture.h"

namespace {

std::atomic<int64_t> g_fakeRealtimeNs{-1};  // >= 0: what CLOCK_REALTIME reads
std::atomic<bool> g_clockFails{false};      // CLOCK_REALTIME cannot be read
std::atomic<bool> g_failPipe{false};        // the next pipe call fails

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  if (clock != CLOCK_REALTIME || (g_fakeRealtimeNs < 0 && !g_clockFails)) return real(clock, time);
  if (g_clockFails) return errno = EINVAL, -1;
  *time = {g_fakeRealtimeNs / 1000000000, g_fakeRealtimeNs % 1000000000};
  return 0;
}

extern "C" int pipe(int ends[2]) noexcept {
  static const auto real = reinterpret_cast<int (*)(int*)>(dlsym(RTLD_NEXT, "pipe"));
  if (!g_failPipe.exchange(false)) return real(ends);
  return errno = EMFILE, -1;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using testing::StartsWith;

// A line too long for the fallback's buffer is cut but still ends the line.
TEST(PlatformTest, DiagnosticsWithoutThePlatformLogAreLinesOnStandardErrorAndDeadlinesCarryOnce) {
  ::testing::internal::CaptureStderr();
  DiagLog(3, 1, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 269);
  DiagLog(3, 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n"
                                                      "Error in QueueReceive Line :269\n" + std::string(1022, 'x') + "\n");
  for (auto [s, ns, ticks, wantS, wantNs] :
       {std::tuple{100, 600'000'000L, 50u, 101, 100'000'000L}, {100, 0L, 250u, 102, 500'000'000L},
        {100, 999'999'999L, 99u, 101, 989'999'999L}, {100, 5L, 100u, 101, 5L}, {100, 5L, 0xFFFFFFFEu, 42949772, 940'000'005L}}) {
    const timespec deadline = DeadlineAfter(timespec{s, ns}, ticks);
    EXPECT_EQ(std::tuple(deadline.tv_sec, deadline.tv_nsec), std::tuple(wantS, wantNs)) << ticks;
  }
}

// The wake and reply bytes: a full pipe is waited on, not spun on or given up;
// end of file, a dead descriptor and a pipe nobody reads report failure at once.
TEST(PlatformTest, OneByteMovesWaitOnAFullPipeAndFailOnAClosedOrDeadOne) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
  int queued = 0;
  while (::write(ends[1], "f", 1) == 1) ++queued;
  std::thread drainer([&] {
    std::this_thread::sleep_for(20ms);
    char page[4096];  // a full pipe takes writes again once a page is free
    EXPECT_EQ(::read(ends[0], page, sizeof page), static_cast<ssize_t>(sizeof page));
  });
  EXPECT_TRUE(MoveOneByte(ends[1], true));
  drainer.join();
  for (int i = 4096; i < queued + 1; ++i) ASSERT_TRUE(MoveOneByte(ends[0], false));
  std::thread filler([&] {
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(::write(ends[1], "g", 1), 1);
  });
  EXPECT_TRUE(MoveOneByte(ends[0], false));  // empty: waits for the byte
  filler.join();
  ::close(ends[1]);
  EXPECT_FALSE(MoveOneByte(ends[0], false));  // end of file
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[0], false) || MoveOneByte(-1, true));  // dead descriptors
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[1], true));  // EPIPE: nobody reads
}

TEST(LogTest, InitEmptiesTheFileSaveAppendsLinesCutAt1023AndAMissingFolderIsReportedPerOpen) {
  QUORVIN_REQUIRE_ISOLATION();
  const int descriptors = OpenDescriptorCount();
  SaveLogFile(LX_PID_LIST_PATH, "left over from an earlier run\n");
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 0);
  EXPECT_TRUE(PidListLines().empty());
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "worker", 42L);
  SaveLogFile(LX_PID_LIST_PATH, "%s", std::string(1500, 'x').c_str());
  EXPECT_EQ(PidListLines(), (std::vector<std::string>{"Name: worker, pid:42", std::string(1023, 'x')}));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  hCM_Error = hCM_Warning = hCM_LogFile = stderr;
  RTOS_LogInit();
  EXPECT_EQ(std::tuple(hCM_Error, hCM_Warning, hCM_LogFile), std::tuple(stdout, stdout, stdout));
  ASSERT_EQ(::unlink(LX_PID_LIST_PATH) | ::rmdir("/var/run/velmora"), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 1);
  SaveLogFile(LX_PID_LIST_PATH, "Name: x, pid:1\n");
  const std::string line = std::string(LX_PID_LIST_PATH) + ": No such file or directory\n";
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), line + line);
}

// Runs body in a forked child (while this process has one thread) with its
// output captured; it reports through Shared() memory.
struct Child {
  explicit Child(const std::function<void()>& body) {
    std::fflush(nullptr);
    if ((pid = ::fork()) != 0) return;
    ::dup2(out, 1), ::dup2(err, 2);
    body();
    std::fflush(nullptr), ::_exit(97);
  }
  bool Wait() {  // false if the child has not ended within 20 s (it is killed then)
    if (WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 20s)) return true;
    return ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0), false;
  }
  std::string Text(int fd) const {
    std::string text(1 << 16, '\0');
    return text.substr(0, std::max<ssize_t>(0, ::pread(fd, text.data(), text.size(), 0)));
  }
  bool ExitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  int out = ::memfd_create("out", 0), err = ::memfd_create("err", 0), status = 0;
  pid_t pid = 0;
};

struct Observed {
  std::atomic<uint32_t> stateInside, stateAfter;
  std::atomic<int> policyInside, servicesInside, timerFires, waitStatus, pipeWriteErrno, ticksCounted, exitId;
  std::atomic<int> pidLinesMatching;  // pid-list lines whose pid is a thread of that name
  std::atomic<bool> madeRealTime, ready;
  std::atomic<int64_t> cpuNs;
};
Observed& Shared() {
  static Observed* const seen = new (::mmap(nullptr, sizeof(Observed), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Observed{};
  return *seen;
}
int64_t Ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}
bool TickThreadStarted() { return testing::Value(PidListLines(), testing::Contains(StartsWith("Name: SoftTimer,"))); }
void CountFire(uint32_t) { ++Shared().timerFires; }

// The initial thread is made real-time first, so that the low-level initialisation shows by setting it back.
void EnterKernel(void (*define)()) {
  const sched_param realtime{1};
  Shared().madeRealTime = pthread_setschedparam(pthread_self(), SCHED_RR, &realtime) == 0;
  _lx_initialize_kernel_enter(reinterpret_cast<void*>(0x1), &g_fakeRealtimeNs, define);
}
void RecordInsideDefinition() {
  Shared().stateInside = _lx_thread_system_state;
  int policy = -1;
  sched_param parameters{};
  pthread_getschedparam(pthread_self(), &policy, &parameters);
  Shared().policyInside = policy;
  Shared().servicesInside = (S_sCmThread != 0) + (*G_psTimer != nullptr && G_i32TimerPIPE[0] >= 0);
}
void EndOnceTheTickThreadRuns() {
  WaitUntil(TickThreadStarted);
  Shared().stateAfter = __atomic_load_n(&_lx_thread_system_state, __ATOMIC_ACQUIRE);
  std::fflush(nullptr), ::_exit(0);
}

class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QUORVIN_REQUIRE_ISOLATION();
    Shared();  // mapped before the children are forked
  }
};

TEST_F(StartupTest, EntryStartsEverythingDefinesTheApplicationAndBecomesTheTickThread) {
  SaveLogFile(LX_PID_LIST_PATH, "Name: Stale, pid:1\n");
  Child child([] {
    g_fakeRealtimeNs = 1000750000000;
    EnterKernel([] {
      RecordInsideDefinition();
      g_fakeRealtimeNs += 2500000000;  // start-up takes two and a half seconds
      static LX_TIMER beat;
      static LX_THREAD idle, checker;
      static LX_MUTEX mutex = nullptr;
      _lx_TimerCreate(&beat, "beat", CountFire, 0, 2, 2, 1);
      _lx_MutexCreate(&mutex, "m", 0);
      Spawn(&idle, "idle", [] { for (_lx_MutexGet(&mutex, LX_NO_WAIT);;) ::pause(); });
      Spawn(&checker, "checker", [] {
        WaitUntil([] { return Shared().timerFires >= 3 && Peek(mutex->psOwner) == &idle; });  // ticks reach the timers ...
        Shared().waitStatus = _lx_MutexGet(&mutex, 5);  // ... and the time-outs
        int ends[2];
        ::pipe2(ends, 0), ::close(ends[0]);
        Shared().pipeWriteErrno = ::write(ends[1], "x", 1) < 0 ? errno : 0;  // SIGPIPE ignored
        WaitUntil(TickThreadStarted);
        for (const std::string& line : PidListLines()) {
          char name[32] = "";
          int tid = 0;
          std::string comm;
          std::sscanf(line.c_str(), "Name: %31[^,], pid:%d", name, &tid);
          std::getline(std::ifstream("/proc/self/task/" + std::to_string(tid) + "/comm"), comm);
          Shared().pidLinesMatching += comm == name;
        }
        EndOnceTheTickThreadRuns();
      });
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Text(child.out) << child.Text(child.err);
  EXPECT_TRUE(child.ExitedWith(0)) << child.Text(child.err);
  EXPECT_EQ(child.Text(child.out), "IPMI initial costs 2 seconds, 500000000 nanoseconds\n");
  EXPECT_EQ(child.Text(child.err), "");
  const Observed& seen = Shared();
  EXPECT_EQ(std::tuple(seen.stateInside.load(), seen.stateAfter.load(), seen.servicesInside.load()), std::tuple(0xF0F0F0F0u, 0u, 2));
  EXPECT_EQ(seen.policyInside, seen.madeRealTime ? SCHED_OTHER : seen.policyInside.load());
  EXPECT_EQ(std::tuple(seen.waitStatus.load(), seen.pipeWriteErrno.load(), seen.pidLinesMatching.load()),
            std::tuple(LX_NOT_AVAILABLE, EPIPE, 5));
  // One line per thread with that thread's kernel id; nothing stale.
  EXPECT_THAT(PidListLines(), testing::UnorderedElementsAre(
                                  StartsWith("Name: CMRH, pid:"), StartsWith("Name: TimerISR, pid:"),
                                  StartsWith("Name: idle, pid:"), StartsWith("Name: checker, pid:"),
                                  "Name: SoftTimer, pid:" + std::to_string(child.pid)));
}

TEST_F(StartupTest, SkipStateLeavesOutLowAndHighLevelInitialisation) {
  Child child([] {
    _lx_thread_system_state = 0xF0F0F0F1u;
    EnterKernel([] { RecordInsideDefinition(), std::thread(EndOnceTheTickThreadRuns).detach(); });
  });
  ASSERT_TRUE(child.Wait()) << child.Text(child.out) << child.Text(child.err);
  EXPECT_TRUE(child.ExitedWith(0)) << child.Text(child.err);
  EXPECT_THAT(child.Text(child.out), testing::MatchesRegex("IPMI initial costs 0 seconds, [0-9]+ nanoseconds\n"));
  const Observed& seen = Shared();
  EXPECT_EQ(std::tuple(seen.stateInside.load(), seen.stateAfter.load(), seen.servicesInside.load()), std::tuple(0xF0F0F0F0u, 0u, 0));
  EXPECT_EQ(seen.policyInside, seen.madeRealTime ? SCHED_RR : seen.policyInside.load());
  EXPECT_EQ(PidListLines(), std::vector<std::string>{"Name: SoftTimer, pid:" + std::to_string(child.pid)});
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
        Shared().cpuNs = Ns(CLOCK_PROCESS_CPUTIME_ID) - before;
        Shared().ticksCounted = __atomic_load_n(&G_i32Ticks, __ATOMIC_RELAXED);
        std::fflush(nullptr), ::_exit(0);
      }).detach();
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Text(child.out) << child.Text(child.err);
  EXPECT_TRUE(child.ExitedWith(0));
  EXPECT_EQ(child.Text(child.err), "No pipe in _lx_TimerInitialize\n");
  EXPECT_EQ(std::tuple(Shared().timerFires.load(), Shared().ticksCounted.load()), std::tuple(0, 0));
  EXPECT_LT(Shared().cpuNs, 100000000);
}

// SIGQUIT exits with status 0, flushing what is buffered: at once with no thread to tell, else a second
// after the registered thread got SIGTERM with the exit flag set. ThreadSanitizer reports the exit()
// inside the signal handler as a signal-unsafe call: these cannot pass there.
TEST_F(StartupTest, QuitExitsWithStatusZeroAtOnceOrASecondAfterTellingTheRegisteredThread) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "exit() inside a signal handler";
#endif
  for (const bool tell : {false, true}) {
    Shared().ready = false;
    Child child([tell] {
      _lx_initialize_kernel_enter(nullptr, nullptr, tell ? [] {
        sigset_t terminate;
        sigemptyset(&terminate), sigaddset(&terminate, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &terminate, nullptr);  // the told thread takes it with sigwait
        std::thread told([terminate] {
          int signal = 0;
          Shared().ready = true;
          sigwait(&terminate, &signal);
          Shared().exitId = __atomic_load_n(&g_zloop_exit_id, __ATOMIC_ACQUIRE);
        });
        g_zloop_thread_id = told.native_handle();
        told.detach();
      } : [] {
        std::thread([] {
          WaitUntil([] { return PidListLines().size() == 3; });  // CMRH, TimerISR, SoftTimer
          std::printf("still buffered");  // a normal exit flushes it
          Shared().ready = true;
        }).detach();
      });
    });
    ASSERT_TRUE(WaitUntil([] { return Shared().ready.load(); }));
    std::this_thread::sleep_for(50ms);
    const int64_t sentAt = Ns(CLOCK_MONOTONIC);
    ::kill(child.pid, SIGQUIT);
    ASSERT_TRUE(child.Wait());
    const int64_t took = Ns(CLOCK_MONOTONIC) - sentAt;
    EXPECT_TRUE(child.ExitedWith(0)) << tell;
    EXPECT_EQ(child.Text(child.err), "");
    EXPECT_TRUE(tell ? Shared().exitId == 1 && took >= 950000000 && took < 10000000000
                     : took < 900000000 && child.Text(child.out).ends_with(" nanoseconds\nstill buffered"));
  }
}

// Caught fault signals write a backtrace ("...[0x...]" frame lines) and end the
// process by the signal; SIGSEGV and SIGBUS are left to their default.
TEST_F(StartupTest, FaultSignalsWriteABacktraceAndEndTheProcessByTheSignal) {
  for (const int signal : {SIGFPE, SIGILL, SIGABRT, SIGSEGV, SIGBUS}) {
    static int raised;
    raised = signal;
    Child child([] {
      const rlimit noCore{0, 0};
      ::setrlimit(RLIMIT_CORE, &noCore);
      for (const int fault : {SIGSEGV, SIGBUS}) ::signal(fault, SIG_DFL);  // a sanitizer takes these
      _lx_initialize_kernel_enter(nullptr, nullptr, [] { std::thread([] { ::raise(raised); }).join(); });
    });
    ASSERT_TRUE(child.Wait());
    EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == signal) << strsignal(signal);
    const std::string err = child.Text(child.err);
    int frames = 0;
    for (size_t at = 0; (at = err.find("[0x", at)) != std::string::npos; ++at) ++frames;
    EXPECT_EQ(frames >= 3, signal != SIGSEGV && signal != SIGBUS) << strsignal(signal) << ":\n" << err;
  }
}

// Without a readable clock a timed wait fails with its family's error and leaves nothing armed.
TEST_F(KernelTest, TimedWaitsWithoutAClockFailWithTheirFamilysErrorAndLeaveNothingArmed) {
  LX_SEMAPHORE semaphore = nullptr;
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, "s", 0), LX_SUCCESS);
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "g"), LX_SUCCESS);
  uint32_t actual = 0, flags = 0, waiting = 9;
  g_clockFails = true;
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 5), LX_SEMAPHORE_ERROR);
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, 5), LX_GROUP_ERROR);
  g_clockFails = false;
  char* name = nullptr;
  LX_THREAD* first = nullptr;
  LX_EVENT_FLAGS* next = nullptr;
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);
  ASSERT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
  EXPECT_EQ(std::tuple(flags, waiting), std::tuple(0x1u, 0u));  // withdrawn: nobody took the flag
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x2, LX_OR, &actual, 1), LX_NO_EVENTS);  // no stale post either
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 1), LX_NO_INSTANCE);
}

}  // namespace
}  // namespace quorvin::test

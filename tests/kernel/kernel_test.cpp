// The kernel layer: the pid-list file and tick deadlines; start-up through the kernel entry, which never
// returns, SIGQUIT and the fault signals, each in a forked child. CLOCK_REALTIME is faked on demand
// (the library is linked in statically).
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "kernel/platform.h"
#include "quorvin/lx_mutex.h"
#include "quorvin/lx_semaphore.h"
#include "support/kernel_fixture.h"

static std::atomic<int64_t> g_fakeRealtimeNs{-1};  // >= 0: what CLOCK_REALTIME reads

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  if (clock != CLOCK_REALTIME || g_fakeRealtimeNs < 0) return real(clock, time);
  return *time = {g_fakeRealtimeNs / 1000000000, g_fakeRealtimeNs % 1000000000}, 0;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using testing::MatchesRegex, testing::StartsWith;

TEST(KernelTest, PidListLinesAreCutAt1023AndWithoutThePlatformLogDiagnosticsGoToStandardError) {
  if (!Isolated()) GTEST_SKIP() << "needs private mount/IPC namespaces: " << IsolationProblem();
  const int descriptors = OpenDescriptorCount();
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "worker", 42L);
  SaveLogFile(LX_PID_LIST_PATH, "%s", std::string(1500, 'x').c_str());
  EXPECT_EQ(PidListLines(), (std::vector<std::string>{"Name: worker, pid:42", std::string(1023, 'x')}));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  LX_SEMAPHORE none = nullptr;  // without the platform's log library a diagnostic is a line on standard error
  testing::internal::CaptureStderr();
  EXPECT_EQ((std::tuple{_lx_SemaphoreGet(&none, LX_NO_WAIT), _lx_SemaphorePut(&none)}), std::tuple(0u, 0u));
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n_lx_SemaphorePut: Invalid sempaphore to return!\n");
}

// Runs body in a forked child (while this process has one thread) with its output captured.
struct Child {
  explicit Child(const std::function<void()>& body) {
    if (std::fflush(nullptr), (pid = ::fork()) == 0)
      ::dup2(out, 1), ::dup2(err, 2), body(), std::fflush(nullptr), ::_exit(97);
  }
  bool Wait() {  // false if the child has not ended within 20 s (it is killed then)
    if (WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 20s)) return true;
    return ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0), false;
  }
  std::string Text(int fd) const {
    std::string text(1 << 16, '\0');
    return text.substr(0, std::max<ssize_t>(0, ::pread(fd, text.data(), text.size(), 0)));
  }
  bool ExitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code && Text(err).empty(); }
  int out = ::memfd_create("out", 0), err = ::memfd_create("err", 0), status = 0;
  pid_t pid = 0;
};
struct Observed {
  std::atomic<uint32_t> timerFires, waitStatus, told, state, ready;
}& g_seen =  // shared with the children, which are forked after it is mapped
    *new (::mmap(nullptr, sizeof(Observed), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Observed{};
void Beat(uint32_t) { ++g_seen.timerFires; }
bool TickThreadStarted() { return testing::Value(PidListLines(), testing::Contains(StartsWith("Name: SoftTimer,"))); }

TEST(StartupTest, EntryTimesStartUpListsEveryThreadOnceAndTicksReachTimersAndTimeOuts) {
  if (!Isolated()) GTEST_SKIP() << "needs private mount/IPC namespaces: " << IsolationProblem();
  SaveLogFile(LX_PID_LIST_PATH, "Name: Stale, pid:1\n");
  Child child([] {
    g_fakeRealtimeNs = 1000750000000;
    _lx_initialize_kernel_enter(reinterpret_cast<void*>(0x1), &g_fakeRealtimeNs, [] {
      g_fakeRealtimeNs += 2500000000;  // start-up takes two and a half seconds
      static LX_TIMER beat;
      static LX_THREAD idle, checker;
      static LX_MUTEX mutex = nullptr;
      _lx_TimerCreate(&beat, "beat", Beat, 0, 2, 2, 1);
      _lx_MutexCreate(&mutex, "m", 0);
      Spawn(&idle, "idle", [] { _lx_MutexGet(&mutex, LX_NO_WAIT), _lx_ThreadSleep(LX_WAIT_FOREVER); });
      Spawn(&checker, "checker", [] {
        WaitUntil([] { return g_seen.timerFires >= 3 && Peek(mutex->psOwner) == &idle; });
        g_seen.waitStatus = _lx_MutexGet(&mutex, 5);
        g_seen.state = Peek(_lx_thread_system_state);  // start-up has ended
        WaitUntil(TickThreadStarted), std::fflush(nullptr), ::_exit(0);
      });
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Text(child.out) << child.Text(child.err);
  EXPECT_TRUE(child.ExitedWith(0)) << child.Text(child.err);
  EXPECT_EQ(child.Text(child.out), "IPMI initial costs 2 seconds, 500000000 nanoseconds\n");
  EXPECT_EQ(std::tuple(g_seen.waitStatus.load(), g_seen.state.load()), std::tuple(LX_NOT_AVAILABLE, 0u));
  // One line per thread with its kernel id; nothing stale.
  EXPECT_THAT(PidListLines(), testing::UnorderedElementsAre(
                                  MatchesRegex("Name: CMRH, pid:[0-9]+"), MatchesRegex("Name: TimerISR, pid:[0-9]+"),
                                  MatchesRegex("Name: idle, pid:[0-9]+"), MatchesRegex("Name: checker, pid:[0-9]+"),
                                  "Name: SoftTimer, pid:" + std::to_string(child.pid)));
}

// SIGQUIT tells the registered thread (exit id 1, then SIGTERM) and exits with status 0, flushing what is
// buffered; fault signals write a backtrace ("...[0x...]" frame lines) and end the process by the signal,
// SIGSEGV and SIGBUS left to their default.
// ThreadSanitizer reports the exit() inside the signal handler as a signal-unsafe call.
TEST(StartupTest, QuitExitsWithStatusZeroAndFaultSignalsEndTheProcessByTheSignal) {
  if (!Isolated()) GTEST_SKIP() << "needs private mount/IPC namespaces: " << IsolationProblem();
  static int raised;
  for (const int signal : {SIGQUIT, SIGFPE, SIGILL, SIGABRT, SIGSEGV, SIGBUS}) {
#if defined(__SANITIZE_THREAD__)
    if (signal == SIGQUIT) continue;
#endif
    g_seen.ready = false, raised = signal;
    Child child([] {
      const rlimit noCore{0, 0};
      ::setrlimit(RLIMIT_CORE, &noCore);
      for (const int fault : {SIGSEGV, SIGBUS}) ::signal(fault, SIG_DFL);  // a sanitizer takes these
      _lx_initialize_kernel_enter(nullptr, nullptr, [] {
        std::thread([] {
          g_zloop_thread_id = ::pthread_self();
          ::signal(SIGTERM, [](int) { g_seen.told = Peek(g_zloop_exit_id); });
          WaitUntil(TickThreadStarted), std::printf("still buffered"), g_seen.ready = true;
          ::raise(raised == SIGQUIT ? 0 : raised), _lx_ThreadSleep(LX_WAIT_FOREVER);  // SIGQUIT: stays to be told
        }).detach();
      });
    });
    ASSERT_TRUE(WaitUntil([] { return g_seen.ready.load(); }));
    if (signal == SIGQUIT) std::this_thread::sleep_for(50ms), ::kill(child.pid, signal);  // it waits to be told
    ASSERT_TRUE(child.Wait());
    const std::string err = child.Text(child.err);
    const bool traced = testing::Value(err, testing::ContainsRegex(R"(\[0x.*\[0x.*\[0x)"));  // three frames or more
    if (signal == SIGQUIT) {
      EXPECT_TRUE(child.ExitedWith(0) && child.Text(child.out).ends_with(" nanoseconds\nstill buffered")) << err;
      EXPECT_EQ(g_seen.told, 1);
    } else
      EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == signal &&
                  traced == (signal != SIGSEGV && signal != SIGBUS))
          << strsignal(signal) << ":\n"
          << err;
  }
}

}  // namespace
}  // namespace quorvin::test

// The fatal-signal handler. Every case ends a process, so each runs in a forked
// child; the handler is installed by the kernel entry or as it does.
#include <sys/resource.h>

#include <atomic>
#include <cstring>

#include <gmock/gmock.h>

#include "child_process.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

struct Seen {
  std::atomic<bool> ready;
  std::atomic<int> exitId{-1};
  std::atomic<int64_t> toldAtNs;
};
Seen* g_seen = nullptr;
int g_signal = 0;

TEST(SignalHandlerTest, QuitThroughTheKernelEntryWithNoThreadToTellExitsAtOnceWithStatusZero) {
  SKIP_UNDER_THREAD_SANITIZER();
  QUORVIN_REQUIRE_ISOLATION();
  g_seen = &SharedWithChild<Seen>();
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
  const int64_t sentAt = MonotonicNs();
  ::kill(child.Pid(), SIGQUIT);
  ASSERT_TRUE(child.Wait());
  EXPECT_LT(MonotonicNs() - sentAt, 900000000);
  EXPECT_TRUE(child.ExitedWith(0));
  EXPECT_THAT(child.Out(), testing::EndsWith(" nanoseconds\nstill buffered"));
  EXPECT_EQ(child.Err(), "");
}

TEST(SignalHandlerTest, QuitTellsTheRegisteredThreadAndExitsASecondLater) {
  SKIP_UNDER_THREAD_SANITIZER();
  Seen& seen = SharedWithChild<Seen>();
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
      seen.toldAtNs = MonotonicNs();
    });
    g_zloop_thread_id = told.native_handle();
    sigdelset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // SIGQUIT comes to this thread
    seen.ready = true;
    for (;;) ::pause();
  });
  ASSERT_TRUE(WaitUntil([&] { return seen.ready.load(); }));
  const int64_t sentAt = MonotonicNs();
  ::kill(child.Pid(), SIGQUIT);
  ASSERT_TRUE(child.Wait());
  const int64_t endedAt = MonotonicNs();
  EXPECT_TRUE(child.ExitedWith(0));
  EXPECT_EQ(seen.exitId, 1);
  EXPECT_GE(endedAt - seen.toldAtNs, 800000000);
  EXPECT_LT(endedAt - sentAt, 10000000000);
  EXPECT_EQ(child.Err(), "");
}

// Caught fault signals write a backtrace ("...[0x...]" frame lines) and end the
// process by the signal; SIGSEGV and SIGBUS are left to their default.
TEST(SignalHandlerTest, FaultSignalsWriteABacktraceAndEndTheProcessByTheSignal) {
  QUORVIN_REQUIRE_ISOLATION();
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

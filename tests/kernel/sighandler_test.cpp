// The fatal-signal handler. Every case ends a process, so each runs in a
// forked child; the handler is installed by the kernel entry or as it does.
#include <atomic>
#include <cstring>

#include <gmock/gmock.h>

#include "child_process.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

void InstallHandler() {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = _lx_sighandler;
  for (int signal : {SIGQUIT, SIGILL, SIGABRT, SIGFPE}) ::sigaction(signal, &action, nullptr);
}

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// Frames written by backtrace_symbols_fd: "...[0x...]" lines.
int FrameLines(const std::string& text) {
  int frames = 0;
  for (size_t at = 0; (at = text.find("[0x", at)) != std::string::npos; ++at) ++frames;
  return frames;
}

struct Seen {
  std::atomic<bool> ready;
  std::atomic<int> exitId{-1};
  std::atomic<int64_t> toldAtNs;
};

Seen* g_seen = nullptr;

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
    InstallHandler();
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

TEST(SignalHandlerTest, FaultSignalsWriteABacktraceAndEndTheProcessByTheSignal) {
  for (const int signal : {SIGFPE, SIGABRT, SIGILL}) {
    Child child([signal] {
      NoCoreDump();
      InstallHandler();
      std::thread([signal] { ::raise(signal); }).join();
    });
    ASSERT_TRUE(child.Wait());
    EXPECT_EQ(child.Signal(), signal) << strsignal(signal);
    EXPECT_GE(FrameLines(child.Err()), 3) << strsignal(signal) << ":\n" << child.Err();
  }
}

int g_signal = 0;

TEST(SignalHandlerTest, TheKernelEntryInstallsItForTheFaultSignalsOnly) {
  QUORVIN_REQUIRE_ISOLATION();
  for (const int signal : {SIGFPE, SIGILL, SIGABRT, SIGSEGV, SIGBUS}) {
    Child child([signal] {
      NoCoreDump();
      // The dispositions a process starts with (a sanitizer runtime takes these two).
      for (const int fault : {SIGSEGV, SIGBUS}) ::signal(fault, SIG_DFL);
      g_signal = signal;
      _lx_initialize_kernel_enter(nullptr, nullptr, [] { ::raise(g_signal); });
    });
    ASSERT_TRUE(child.Wait());
    EXPECT_EQ(child.Signal(), signal) << strsignal(signal);
    const bool caught = signal != SIGSEGV && signal != SIGBUS;
    EXPECT_EQ(FrameLines(child.Err()) > 0, caught) << strsignal(signal) << ":\n" << child.Err();
  }
}

}  // namespace
}  // namespace quorvin::test

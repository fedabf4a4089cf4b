// Start-up through the kernel entry. The entry never returns, so each case runs
// it in a forked child, which ends itself once it has seen what it needs.
// clock_gettime (CLOCK_REALTIME) and pipe are replaced for this executable on
// demand: the library is linked in statically, so its calls come here.
#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "child_process.h"
#include "support/kernel_fixture.h"

namespace {

std::atomic<int64_t> g_fakeRealtimeNs{-1};  // >= 0: what CLOCK_REALTIME reads
std::atomic<bool> g_failPipe{false};  // the next pipe call fails

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

struct Observed {
  std::atomic<uint32_t> stateInside, stateAfter;
  std::atomic<int> policyInside, timerFires, waitStatus, pipeWriteErrno, ticksCounted;
  std::atomic<bool> madeRealTime, dispatcherInside, timerThreadInside;
  std::atomic<int64_t> timerCpuNs, tickCpuNs;
  char tasks[4096];  // "tid name" of every thread
};
Observed* g_seen = nullptr;
pthread_t g_initialThread;

bool TickThreadStarted() {
  for (const std::string& line : PidListLines()) {
    if (line.rfind("Name: SoftTimer,", 0) == 0) return true;
  }
  return false;
}

// Child side. The initial thread is made real-time first, so that the
// low-level initialisation shows by setting it back.
void EnterKernel(void (*define)(), void* unused = nullptr) {
  g_initialThread = pthread_self();
  const sched_param realtime{1};
  g_seen->madeRealTime = pthread_setschedparam(pthread_self(), SCHED_RR, &realtime) == 0;
  _lx_initialize_kernel_enter(unused, &g_seen, define);
}

void RecordInsideDefinition() {
  g_seen->stateInside = _lx_thread_system_state;
  int policy = -1;
  sched_param parameters{};
  pthread_getschedparam(pthread_self(), &policy, &parameters);
  g_seen->policyInside = policy;
  g_seen->dispatcherInside = quorvin::detail::S_sCmThread != 0;
  g_seen->timerThreadInside = *G_psTimer != nullptr && G_i32TimerPIPE[0] >= 0;
}

void End() {
  std::fflush(nullptr);
  ::_exit(0);
}

void EndOnceTheTickThreadRuns() {
  WaitUntil(TickThreadStarted);
  g_seen->stateAfter = __atomic_load_n(&_lx_thread_system_state, __ATOMIC_ACQUIRE);
  End();
}

void CountFire(uint32_t) { ++g_seen->timerFires; }

void CheckAfterStartUp() {
  Observed& seen = *g_seen;
  WaitUntil([&] { return seen.timerFires >= 3; });  // ticks reach the timers ...
  TestObject object;
  TestObject* handle = &object;
  seen.waitStatus = Issue(kTestTake, &handle, 5);  // ... and the sleep agent
  int ends[2];
  ::pipe2(ends, 0);
  ::close(ends[0]);
  seen.pipeWriteErrno = ::write(ends[1], "x", 1) < 0 ? errno : 0;
  std::string tasks;
  DIR* directory = ::opendir("/proc/self/task");
  while (dirent* entry = ::readdir(directory)) {
    std::string name;
    std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), name);
    if (entry->d_name[0] != '.') tasks += std::string(entry->d_name) + " " + name + "\n";
  }
  ::closedir(directory);
  std::strncpy(seen.tasks, tasks.c_str(), sizeof seen.tasks - 1);
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
    EnterKernel(DefineApplication, reinterpret_cast<void*>(0x1));
  });
  ASSERT_TRUE(child.Wait()) << child.Out() << child.Err();
  EXPECT_TRUE(child.ExitedWith(0)) << child.Err();
  EXPECT_EQ(child.Out(), "IPMI initial costs 2 seconds, 500000000 nanoseconds\n");
  EXPECT_EQ(child.Err(), "");
  const Observed& seen = *g_seen;
  EXPECT_EQ(seen.stateInside, 0xF0F0F0F0u);
  EXPECT_EQ(seen.stateAfter, 0u);
  EXPECT_EQ(seen.policyInside, seen.madeRealTime ? SCHED_OTHER : seen.policyInside.load());
  EXPECT_TRUE(seen.dispatcherInside && seen.timerThreadInside);
  EXPECT_GE(seen.timerFires, 3);
  EXPECT_EQ(seen.waitStatus, kTestTimeoutStatus);
  EXPECT_EQ(seen.pipeWriteErrno, EPIPE);  // SIGPIPE ignored
  // One pid-list line per thread with that thread's kernel id; nothing stale.
  std::map<std::string, long> tids;
  std::istringstream tasks(seen.tasks);
  for (std::string name, tid; tasks >> tid >> name;) tids[name] = std::stol(tid);
  std::multiset<std::string> names;
  for (const std::string& line : PidListLines()) {
    char name[32] = "";
    long tid = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "Name: %31[^,], pid:%ld", name, &tid), 2) << line;
    names.insert(name);
    EXPECT_EQ(tid, tids[name]) << line;
  }
  EXPECT_EQ(names, (std::multiset<std::string>{"CMRH", "TimerISR", "SoftTimer", "idle", "checker"}));
  EXPECT_EQ(tids["SoftTimer"], child.Pid());
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
  EXPECT_FALSE(g_seen->dispatcherInside);
  EXPECT_FALSE(g_seen->timerThreadInside);
  EXPECT_EQ(PidListLines(), std::vector<std::string>{"Name: SoftTimer, pid:" + std::to_string(child.Pid())});
}

int64_t CpuNs(clockid_t clock) {
  timespec used{};
  clock_gettime(clock, &used);
  return used.tv_sec * 1000000000LL + used.tv_nsec;
}

TEST_F(StartupTest, WithoutATimerPipeStartUpCompletesAndNoTimeThreadSpins) {
  Child child([] {
    g_failPipe = true;
    EnterKernel([] {
      static LX_TIMER beat;
      _lx_TimerCreate(&beat, "beat", CountFire, 0, 1, 1, 1);
      std::thread([] {
        WaitUntil(TickThreadStarted);
        clockid_t timerClock, tickClock;
        pthread_getcpuclockid((*G_psTimer)->hThread, &timerClock);
        pthread_getcpuclockid(g_initialThread, &tickClock);
        const int64_t timerBefore = CpuNs(timerClock), tickBefore = CpuNs(tickClock);
        std::this_thread::sleep_for(300ms);  // thirty ticks' time
        g_seen->timerCpuNs = CpuNs(timerClock) - timerBefore;
        g_seen->tickCpuNs = CpuNs(tickClock) - tickBefore;
        g_seen->ticksCounted = __atomic_load_n(&G_i32Ticks, __ATOMIC_RELAXED);
        End();
      }).detach();
    });
  });
  ASSERT_TRUE(child.Wait()) << child.Out() << child.Err();
  EXPECT_TRUE(child.ExitedWith(0)) << child.Err();
  EXPECT_EQ(child.Err(), "No pipe in _lx_TimerInitialize\n");
  EXPECT_THAT(child.Out(), testing::HasSubstr("IPMI initial costs"));
  EXPECT_EQ(g_seen->timerFires, 0);
  EXPECT_EQ(g_seen->ticksCounted, 0);
  EXPECT_LT(g_seen->timerCpuNs, 50000000);
  EXPECT_LT(g_seen->tickCpuNs, 50000000);
  EXPECT_THAT(PidListLines(), testing::Contains(testing::StartsWith("Name: TimerISR, pid:")));
}

}  // namespace
}  // namespace quorvin::test

// Semaphores served on POSIX semaphores: counting, timed gets, suspension
// during a timed get, the platform's limits, the diagnostic lines and the
// timer thread's rules.
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "support/dlog_capture.h"
#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using Clock = std::chrono::steady_clock;

class SemaphoreTest : public KernelTest {
 protected:
  LX_SEMAPHORE NewSemaphore(uint32_t count) {
    LX_SEMAPHORE semaphore = nullptr;
    EXPECT_EQ(_lx_SemaphoreCreate(&semaphore, "s", count), LX_SUCCESS);
    return semaphore;
  }
  Waiters waiters_;
};

TEST_F(SemaphoreTest, NoCountIsLostOrInventedUnderManyThreads) {
  LX_SEMAPHORE semaphore = NewSemaphore(0);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_NO_INSTANCE);
  ASSERT_EQ(_lx_SemaphorePut(&semaphore), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_NO_INSTANCE);

  constexpr int kThreads = 4, kEach = 5000;
  std::atomic<int> failed{0}, taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) failed += _lx_SemaphorePut(&semaphore) != LX_SUCCESS;
    });
    threads.emplace_back([&, t] {  // half wait for ever, half take what is there
      for (int i = 0; i < kEach; ++i) {
        const uint32_t wait = t % 2 == 0 ? LX_WAIT_FOREVER : LX_NO_WAIT;
        const LX_STATUS status = _lx_SemaphoreGet(&semaphore, wait);
        taken += status == LX_SUCCESS;
        failed += status != LX_SUCCESS && status != LX_NO_INSTANCE;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failed.load(), 0);
  int left = 0;
  while (_lx_SemaphoreGet(&semaphore, LX_NO_WAIT) == LX_SUCCESS) ++left;
  EXPECT_EQ(taken.load() + left, kThreads * kEach);
}

TEST_F(SemaphoreTest, TimedGetEndsWithNoInstanceAtItsDeadlineOrAtOnceOnAPut) {
  LX_SEMAPHORE semaphore = NewSemaphore(0);
  auto start = Clock::now();
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 30), LX_NO_INSTANCE);
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 290ms);
  EXPECT_LT(waited, 5s);

  start = Clock::now();
  std::thread putter([&] {
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(_lx_SemaphorePut(&semaphore), LX_SUCCESS);
  });
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 1000), LX_SUCCESS);  // 10 s allowed
  EXPECT_LT(Clock::now() - start, 5s);
  putter.join();
}

TEST_F(SemaphoreTest, AWaiterSuspendedPastItsDeadlineReturnsNoInstanceWhenResumed) {
  static LX_SEMAPHORE semaphore = NewSemaphore(0);
  Waiters::Waiter& waiter = waiters_.Start([] { return _lx_SemaphoreGet(&semaphore, 20); });
  EXPECT_EQ(StateOf(waiter.handle), LX_STATE_READY);  // invisible to the dispatcher
  std::this_thread::sleep_for(50ms);
  ASSERT_EQ(_lx_ThreadSuspend(&waiter.handle), LX_SUCCESS);
  std::this_thread::sleep_for(400ms);  // the 200 ms deadline passes meanwhile
  EXPECT_FALSE(waiter.Done());
  ASSERT_EQ(_lx_ThreadResume(&waiter.handle), LX_SUCCESS);
  EXPECT_EQ(Waiters::StatusOf(waiter), LX_NO_INSTANCE);  // the deadline kept across the suspension
}

TEST_F(SemaphoreTest, CountsBeyondThePlatformMaximumAreRefused) {
  LX_SEMAPHORE semaphore = nullptr;
  EXPECT_EQ(_lx_SemaphoreCreate(&semaphore, nullptr, static_cast<uint32_t>(SEM_VALUE_MAX) + 1), LX_SEMAPHORE_ERROR);
  EXPECT_EQ(semaphore, nullptr);
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, nullptr, SEM_VALUE_MAX), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphorePut(&semaphore), LX_SEMAPHORE_ERROR);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphorePut(&semaphore), LX_SUCCESS);
}

// The lines go to the platform's own log function, format and arguments as given, and not to standard error.
TEST_F(SemaphoreTest, NullHandlesAreErrorsNullWordsAndMissingServicesLogOneLineAndSucceed) {
  ::testing::internal::CaptureStderr();
  for (LX_STATUS s : {_lx_SemaphoreCreate(nullptr, "x", 0), _lx_SemaphoreGet(nullptr, 5), _lx_SemaphorePut(nullptr)}) {
    EXPECT_EQ(s, LX_SEMAPHORE_ERROR);
  }
  LX_SEMAPHORE none = nullptr;
  EXPECT_EQ(_lx_SemaphoreGet(&none, LX_WAIT_FOREVER), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphorePut(&none), LX_SUCCESS);
  LX_SEMAPHORE semaphore = NewSemaphore(1);
  char* name = reinterpret_cast<char*>(0x5a);
  EXPECT_EQ(_lx_SemaphoreDelete(&semaphore), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphoreInfoGet(&semaphore, &name, nullptr, nullptr, nullptr, nullptr), LX_SUCCESS);
  EXPECT_EQ(_lx_SemaphorePrioritize(nullptr), LX_SUCCESS);
  EXPECT_EQ(name, reinterpret_cast<char*>(0x5a));
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);  // still usable
  EXPECT_EQ(TakeDiagLines(), (std::vector<std::string>{
                          "3 1 _lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)",
                          "3 1 _lx_SemaphorePut: Invalid sempaphore to return!",
                          "3 1 _lx_SemaphoreDelete is not implement\n",
                          "3 1 _lx_SemaphoreInfoGet is not implement\n",
                          "3 1 _lx_SemaphorePrioritize is not implement\n",
                      }));
  EXPECT_EQ(g_diagFormats[0], "%s: Invalid sempaphore to return! sem %p");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(SemaphoreTest, TheTimerThreadMayPutAndTakeWithoutWaitingOnly) {
  LX_SEMAPHORE semaphore = NewSemaphore(1);
  static LX_SEMAPHORE fromTimer = nullptr;
  std::vector<LX_STATUS> statuses;
  Timer().Run([&] {
    statuses = {_lx_SemaphoreCreate(&fromTimer, "t", 0), _lx_SemaphoreGet(&semaphore, 10),
                _lx_SemaphoreGet(&semaphore, LX_NO_WAIT), _lx_SemaphoreGet(&semaphore, LX_NO_WAIT),
                _lx_SemaphorePut(&semaphore)};
  });
  EXPECT_EQ(statuses, (std::vector<LX_STATUS>{LX_CALLER_ERROR, LX_WAIT_ERROR, LX_SUCCESS, LX_NO_INSTANCE, 0}));
  EXPECT_EQ(fromTimer, nullptr);
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, LX_NO_WAIT), LX_SUCCESS);
}

}  // namespace
}  // namespace quorvin::test

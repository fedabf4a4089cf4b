// The platform layer when the platform brings no logging library.
#include <gtest/gtest.h>

#include "kernel/deadline.h"
#include "kernel/platform.h"

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

TEST(PlatformTest, WithoutThePlatformLogEachDiagnosticIsOneLineOnStandardError) {
  ::testing::internal::CaptureStderr();
  DiagLog(3, 1, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 269);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n"
            "Error in QueueReceive Line :269\n");
}

}  // namespace
}  // namespace quorvin::detail

TEST(PlatformTest, TickDeadlinesCarryOnceIntoTheSeconds) {
  using quorvin::detail::DeadlineAfter;
  auto at = [](time_t s, long ns) { return timespec{s, ns}; };
  auto same = [](timespec a, timespec b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; };
  EXPECT_TRUE(same(DeadlineAfter(at(100, 600'000'000), 50), at(101, 100'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 0), 250), at(102, 500'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 999'999'999), 99), at(101, 989'999'999)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 100), at(101, 5)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 0xFFFFFFFEu), at(100 + 42949672, 940'000'005)));
}

TEST(PlatformTest, InterruptedWaitsAreRepeatedOtherFailuresReported) {
  int calls = 0;
  EXPECT_EQ(quorvin::detail::RetryInterrupted([&] {
              errno = EINTR;
              return ++calls < 3 ? -1 : 0;
            }),
            0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(quorvin::detail::RetryInterrupted([] {
              errno = ETIMEDOUT;
              return -1;
            }),
            ETIMEDOUT);
}

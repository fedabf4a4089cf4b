// The platform layer when the platform brings no logging library.
#include <cstring>

#include <gtest/gtest.h>

#include "kernel/platform.h"

namespace quorvin::detail {
namespace {

TEST(PlatformTest, BoundedCopyKeepsAtMostSizeMinusOneCharacters) {
  char name[20];
  std::memset(name, '#', sizeof name);
  EXPECT_EQ(BoundedCopy(name, "abcdefghijklmnopqrstuvwxy", sizeof name), 25u);
  EXPECT_STREQ(name, "abcdefghijklmnopqrs");
  EXPECT_EQ(BoundedCopy(name, "short", sizeof name), 5u);
  EXPECT_STREQ(name, "short");
  EXPECT_EQ(BoundedCopy(name, nullptr, sizeof name), 0u);
  EXPECT_STREQ(name, "");
  name[0] = 'k';
  EXPECT_EQ(BoundedCopy(name, "ignored", 0), 7u);
  EXPECT_EQ(name[0], 'k');
}

TEST(PlatformTest, WithoutThePlatformLogEachDiagnosticIsOneLineOnStandardError) {
  ::testing::internal::CaptureStderr();
  DiagLog(3, 1, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  DiagLog(3, 1, "%s is not implement\n", "_lx_SemaphoreDelete");
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 269);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n"
            "_lx_SemaphoreDelete is not implement\n"
            "Error in QueueReceive Line :269\n");
}

}  // namespace
}  // namespace quorvin::detail

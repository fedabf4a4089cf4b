// The platform layer when the platform brings no logging library.
#include <gtest/gtest.h>

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

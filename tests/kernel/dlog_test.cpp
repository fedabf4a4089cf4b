// When the application links the platform's logging library, its dlog_printf
// receives every diagnostic with the level, flag, format and arguments as given.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kernel/platform.h"

namespace {
struct Logged {
  int level;
  int flag;
  std::string format;
  std::string text;
};
std::vector<Logged> g_logged;
}  // namespace

extern "C" int dlog_printf(int level, int flag, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  g_logged.push_back({level, flag, format, text});
  return 0;
}

namespace quorvin::detail {
namespace {

TEST(PlatformLogTest, ThePlatformsOwnLogFunctionServesEveryDiagnostic) {
  ::testing::internal::CaptureStderr();
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 294);
  DiagLog(3, 1, "%s: Invalid sempaphore to return!", "_lx_SemaphorePut");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(g_logged.size(), 2u);
  EXPECT_EQ(g_logged[0].level, 2);
  EXPECT_EQ(g_logged[0].flag, 1);
  EXPECT_EQ(g_logged[0].format, "Error in %s Line :%d\n");
  EXPECT_EQ(g_logged[0].text, "Error in QueueReceive Line :294\n");
  EXPECT_EQ(g_logged[1].level, 3);
  EXPECT_EQ(g_logged[1].text, "_lx_SemaphorePut: Invalid sempaphore to return!");
}

}  // namespace
}  // namespace quorvin::detail

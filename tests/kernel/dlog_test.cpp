// With the platform's logging library linked, its dlog_printf receives every
// diagnostic with the level, flag, format and arguments as given.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kernel/platform.h"

namespace {
std::vector<std::string> g_logged;  // "level flag format|text"
}  // namespace

extern "C" int dlog_printf(int level, int flag, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  g_logged.push_back(std::to_string(level) + " " + std::to_string(flag) + " " + format + "|" + text);
  return 0;
}

namespace quorvin::detail {
namespace {

TEST(PlatformLogTest, ThePlatformsOwnLogFunctionServesEveryDiagnostic) {
  ::testing::internal::CaptureStderr();
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 294);
  DiagLog(3, 0, "%s: Invalid sempaphore to return!", "_lx_SemaphorePut");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(g_logged, (std::vector<std::string>{
                          "2 1 Error in %s Line :%d\n|Error in QueueReceive Line :294\n",
                          "3 0 %s: Invalid sempaphore to return!|_lx_SemaphorePut: Invalid sempaphore to return!"}));
}

}  // namespace
}  // namespace quorvin::detail

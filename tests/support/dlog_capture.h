// The platform's logging library, as a test program stands in for it: every diagnostic line is kept
// as "level flag text", and its format as given. Include in one file of a test program only (it
// defines dlog_printf, which the kernel reaches weakly).
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace quorvin::test {
inline std::mutex g_diagLock;
inline std::vector<std::string> g_diagLines, g_diagFormats;
// The lines logged since the last call.
inline std::vector<std::string> TakeDiagLines() { return std::lock_guard(g_diagLock), std::exchange(g_diagLines, {}); }
}  // namespace quorvin::test

extern "C" int dlog_printf(int level, int flag, const char* format, ...);
extern "C" int dlog_printf(int level, int flag, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format), std::vsnprintf(text, sizeof text, format, args), va_end(args);
  std::lock_guard lock(quorvin::test::g_diagLock);
  quorvin::test::g_diagLines.push_back(std::to_string(level) + " " + std::to_string(flag) + " " + text);
  quorvin::test::g_diagFormats.push_back(format);
  return 0;
}

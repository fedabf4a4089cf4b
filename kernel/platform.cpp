#include "kernel/platform.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace quorvin::detail {

std::size_t BoundedCopy(char* destination, const char* source, std::size_t size) noexcept {
  if (source == nullptr) source = "";
  const std::size_t length = std::strlen(source);
  if (size > 0) {
    const std::size_t kept = length < size - 1 ? length : size - 1;
    std::memcpy(destination, source, kept);
    destination[kept] = '\0';
  }
  return length;
}

void WriteAll(int fd, const char* data, std::size_t length) noexcept {
  while (length > 0) {
    const ssize_t written = ::write(fd, data, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += written;
    length -= static_cast<std::size_t>(written);
  }
}

bool PlatformLogPresent() noexcept { return dlog_printf != nullptr; }

void DiagLogFallback(const char* format, ...) noexcept {
  char line[1024];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n < 0) return;
  // One line whether or not the text brought its own line end; written with
  // a single call so lines of concurrent threads do not interleave.
  std::size_t length = std::strlen(line);
  if (length > 0 && line[length - 1] == '\n') --length;
  if (length + 1 >= sizeof line) length = sizeof line - 2;
  line[length] = '\n';
  WriteAll(STDERR_FILENO, line, length + 1);
}

}  // namespace quorvin::detail

#include "kernel/platform.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace quorvin::detail {

#if defined(__SANITIZE_ADDRESS__)
void ClearStackMarks() noexcept {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
  void* low = nullptr;
  std::size_t size = 0;
  if (pthread_attr_getstack(&attributes, &low, &size) == 0) ASAN_UNPOISON_MEMORY_REGION(low, size);
  pthread_attr_destroy(&attributes);
}
#endif

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

namespace {
pthread_mutex_t g_keptLock = PTHREAD_MUTEX_INITIALIZER;
void** g_kept = nullptr;
std::size_t g_keptCount = 0, g_keptCapacity = 0;
}  // namespace

void KeepBlock(void* block) noexcept {
  pthread_mutex_lock(&g_keptLock);
  if (g_keptCount == g_keptCapacity) {
    const std::size_t capacity = g_keptCapacity == 0 ? 64 : g_keptCapacity * 2;
    if (void* grown = std::realloc(g_kept, capacity * sizeof(void*))) {
      g_kept = static_cast<void**>(grown);
      g_keptCapacity = capacity;
    }
  }
  if (g_keptCount < g_keptCapacity) g_kept[g_keptCount++] = block;  // else: only the listing is lost
  pthread_mutex_unlock(&g_keptLock);
}

bool BlockKept(const void* block) noexcept {
  pthread_mutex_lock(&g_keptLock);
  bool found = false;
  for (std::size_t i = 0; i < g_keptCount && !found; ++i) found = g_kept[i] == block;
  pthread_mutex_unlock(&g_keptLock);
  return found;
}

void DropBlock(void* block) noexcept {
  pthread_mutex_lock(&g_keptLock);
  for (std::size_t i = g_keptCount; i-- > 0;) {
    if (g_kept[i] != block) continue;
    g_kept[i] = g_kept[--g_keptCount];
    break;
  }
  pthread_mutex_unlock(&g_keptLock);
}

}  // namespace quorvin::detail

// Platform layer: the pieces the target platform may or may not provide.
//
// dlog_printf is the platform's diagnostic-log function. It is reached
// through a weak undefined reference: when the application links the
// platform's logging library, that definition serves every call; otherwise
// DiagLog falls back to one line on standard error. The library never defines
// dlog_printf itself, since a definition here would not give way to the
// platform's.
#pragma once

#include <cstddef>

extern "C" int dlog_printf(int level, int flag, const char* format, ...)
    __attribute__((weak, format(printf, 3, 4)));

namespace quorvin::detail {

// AddressSanitizer builds only. A terminated thread leaves its waits by
// forced unwinding, which the sanitizer does not follow: the redzone marks of
// every frame it leaves stay on the stack. The next clean-up on the way out
// calls the runtime's __asan_handle_no_return, whose own query of the
// alternate signal stack then lands on such a mark and is reported as a
// stack overflow that is none. A wait that is left by unwinding therefore
// clears the marks of the thread's whole stack first: every frame on it is
// being left too. In other builds the guard is empty and costs nothing.
#if defined(__SANITIZE_ADDRESS__)
void ClearStackMarks() noexcept;
class UnwindClearsStack {
 public:
  UnwindClearsStack() = default;
  UnwindClearsStack(const UnwindClearsStack&) = delete;
  UnwindClearsStack& operator=(const UnwindClearsStack&) = delete;
  ~UnwindClearsStack() {
    if (!returned_) ClearStackMarks();
  }
  void Returned() noexcept { returned_ = true; }

 private:
  bool returned_ = false;
};
#else
inline void ClearStackMarks() noexcept {}
struct UnwindClearsStack {
  void Returned() noexcept {}
};
#endif

// strlcpy semantics: copies at most size-1 characters, always terminates
// (when size > 0), returns strlen(source). A NULL source copies "".
std::size_t BoundedCopy(char* destination, const char* source, std::size_t size) noexcept;

// One line on standard error, whether or not the text ends with a line end.
void DiagLogFallback(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

// Whether the platform's logging library is linked (dlog_printf resolved).
bool PlatformLogPresent() noexcept;

// Diagnostic line: the platform's dlog_printf receives the format and the
// arguments unchanged; without it the fallback writes them to standard error.
template <typename... Args>
void DiagLog(int level, int flag, const char* format, Args... args) noexcept {
  if (PlatformLogPresent()) {
    dlog_printf(level, flag, format, args...);
  } else {
    DiagLogFallback(format, args...);
  }
}

// Heap blocks the library keeps for the life of the process (semaphores,
// event-flag groups) are listed here, so they stay reachable once the
// application's handle word is gone and a leak checker does not report them.
// DropBlock takes a block off before the library frees it. Thread-safe.
void KeepBlock(void* block) noexcept;
void DropBlock(void* block) noexcept;
// Whether a block is listed (for tests).
bool BlockKept(const void* block) noexcept;

// Writes all bytes to a descriptor, retrying interrupted and partial writes.
void WriteAll(int fd, const char* data, std::size_t length) noexcept;

}  // namespace quorvin::detail

// Runs a function in a forked child (for code that never returns or ends the
// process), capturing its standard output and error, with a watchdog. Fork only
// while the process has one thread. Assertions made in the child are lost: it
// reports through SharedWithChild memory.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>

// The SIGQUIT shutdown calls exit() inside the signal handler, which
// ThreadSanitizer reports as a signal-unsafe call: such cases cannot pass there.
#if defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_THREAD_SANITIZER() GTEST_SKIP() << "exit() inside a signal handler"
#else
#define SKIP_UNDER_THREAD_SANITIZER() static_cast<void>(0)
#endif

namespace quorvin::test {

template <typename T>
T& SharedWithChild() {  // zero-initialised
  void* memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return *new (memory) T{};
}

class Child {
 public:
  explicit Child(const std::function<void()>& body) {
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ != 0) return;
    ::dup2(out_, STDOUT_FILENO);
    ::dup2(err_, STDERR_FILENO);
    body();
    std::fflush(nullptr);
    ::_exit(97);
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {  // never waited for, or not ended in time
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_);
    ::close(err_);
  }
  pid_t Pid() const { return pid_; }
  // False if the child has not ended within the limit (it is killed then).
  bool Wait(std::chrono::milliseconds limit = std::chrono::milliseconds(30000)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (::waitpid(pid_, &status_, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return reaped_ = true;
  }
  bool ExitedWith(int code) const { return WIFEXITED(status_) && WEXITSTATUS(status_) == code; }
  int Signal() const { return WIFSIGNALED(status_) ? WTERMSIG(status_) : 0; }
  std::string Out() const { return Read(out_); }
  std::string Err() const { return Read(err_); }

 private:
  static std::string Read(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
  }
  int out_ = ::memfd_create("stdout", 0), err_ = ::memfd_create("stderr", 0);
  pid_t pid_;
  int status_ = 0;
  bool reaped_ = false;
};

}  // namespace quorvin::test

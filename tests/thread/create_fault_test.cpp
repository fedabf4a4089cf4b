// Thread creation when the POSIX thread cannot be started. pthread_create is
// replaced in this executable (the library is linked in statically, so its
// calls land here): it fails on demand and otherwise forwards to the real one.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {
std::atomic<int> g_failures{0};        // calls still to fail
std::function<void()> g_whileFailing;  // runs inside a failing call
std::atomic<void*> g_failedArgument{nullptr};
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  if (g_failures.load() <= 0 || g_failures.fetch_sub(1) <= 0) return real(thread, attributes, start, argument);
  g_failedArgument = argument;
  if (g_whileFailing) g_whileFailing();
  return EAGAIN;
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using CreateFaultTest = KernelTest;

TEST_F(CreateFaultTest, FailedStartIsRolledBackAndTheHandleCanBeUsedAgain) {
  static LX_THREAD failing = nullptr, later = nullptr;
  static std::atomic<LX_THREAD*> seen[2] = {nullptr, nullptr};
  const int32_t count = S_i32ThreadPoolIndex;
  // While the failing creation is in pthread_create, a second one registers
  // behind it and waits for the creation lock; the roll-back moves it down.
  std::thread creator;
  LX_STATUS laterStatus = 0xFF;
  g_whileFailing = [&] {
    creator = std::thread([&] { laterStatus = Spawn(&later, "later", [] { seen[1] = _lx_ThreadIdentify(); }); });
    WaitUntil([&] { return LoadRelaxed(S_i32ThreadPoolIndex) == count + 2; });
  };
  g_failures = 1;
  EXPECT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_THREAD_ERROR);
  creator.join();
  ASSERT_EQ(g_failures, 0) << "pthread_create was not called";
  EXPECT_EQ(failing, nullptr);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_TRUE(__asan_address_is_poisoned(g_failedArgument.load())) << "block not freed";
#endif
  EXPECT_EQ(laterStatus, LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 1);
  EXPECT_EQ(S_paThreadPool[count], later);
  EXPECT_EQ(S_paThreadPool[count + 1], nullptr);
  EXPECT_EQ(later->u32PoolIndex, count + 1u);  // the slot it first took
  ASSERT_TRUE(WaitUntil([] { return seen[1].load() != nullptr; }));
  EXPECT_EQ(seen[1].load(), &later);

  ASSERT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_SUCCESS);
  EXPECT_EQ(S_paThreadPool[count + 1], failing);
  ASSERT_TRUE(WaitUntil([] { return seen[0].load() != nullptr; }));
  EXPECT_EQ(seen[0].load(), &failing);
  EXPECT_EQ(std::ranges::count_if(PidListLines(), [](auto& l) { return l.starts_with("Name: failing,"); }), 1);
}

}  // namespace
}  // namespace quorvin::test

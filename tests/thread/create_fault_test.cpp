// Thread creation when the platform cannot start the POSIX thread: the
// registration is rolled back. pthread_create is replaced for this executable
// (the library is linked in statically, so its calls come here); it fails on
// demand and otherwise forwards to the real one.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

std::atomic<int> g_failures{0};         // calls still to fail
std::function<void()> g_whileFailing;   // runs inside a failing call
std::atomic<void*> g_failedArgument{nullptr};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  if (g_failures.load() > 0 && g_failures.fetch_sub(1) > 0) {
    g_failedArgument = argument;
    if (g_whileFailing) g_whileFailing();
    return EAGAIN;
  }
  return real(thread, attributes, start, argument);
}

namespace quorvin::test {
namespace {

using namespace quorvin::detail;
using CreateFaultTest = KernelTest;

TEST_F(CreateFaultTest, FailedStartIsRolledBackAndTheHandleCanBeUsedAgain) {
  static LX_THREAD handle = nullptr;
  static std::atomic<int> runs{0};
  const int32_t count = S_i32ThreadPoolIndex;
  g_failures = 1;
  EXPECT_EQ(Spawn(&handle, "doomed", [] { ++runs; }), LX_THREAD_ERROR);
  ASSERT_EQ(g_failures, 0) << "pthread_create was not called";
  EXPECT_EQ(S_i32ThreadPoolIndex, count);
  EXPECT_EQ(S_paThreadPool[count], nullptr);
  EXPECT_EQ(handle, nullptr);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_TRUE(__asan_address_is_poisoned(g_failedArgument.load())) << "block not freed";
#endif
  ASSERT_EQ(Spawn(&handle, "doomed", [] { ++runs; }), LX_SUCCESS);
  ASSERT_TRUE(WaitUntil([] { return runs == 1; }));
  EXPECT_EQ(S_paThreadPool[count], handle);
  EXPECT_EQ(handle->u32PoolIndex, static_cast<uint32_t>(count));
  EXPECT_EQ(std::ranges::count_if(PidListLines(), [](auto& l) { return l.starts_with("Name: doomed,"); }), 1);
}

TEST_F(CreateFaultTest, RollBackMovesTheLastEntryIntoTheFreedSlot) {
  static LX_THREAD failing = nullptr, later = nullptr;
  static std::atomic<LX_THREAD*> seen{nullptr};
  const int32_t count = S_i32ThreadPoolIndex;
  std::thread creator;
  LX_STATUS laterStatus = 0xFF;
  // While the failing creation sits in pthread_create, a second one registers
  // behind it and then waits for the creation lock.
  g_whileFailing = [&] {
    creator = std::thread([&] { laterStatus = Spawn(&later, "later", [] { seen = _lx_ThreadIdentify(); }); });
    WaitUntil([&] { return LoadRelaxed(S_i32ThreadPoolIndex) == count + 2; });
  };
  g_failures = 1;
  EXPECT_EQ(Spawn(&failing, "failing", [] {}), LX_THREAD_ERROR);
  creator.join();
  g_whileFailing = nullptr;
  EXPECT_EQ(laterStatus, LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 1);
  EXPECT_EQ(S_paThreadPool[count], later);
  EXPECT_EQ(S_paThreadPool[count + 1], nullptr);
  EXPECT_EQ(failing, nullptr);
  EXPECT_EQ(later->u32PoolIndex, count + 1u);  // the slot it first took; moves do not change it
  ASSERT_TRUE(WaitUntil([] { return seen.load() != nullptr; }));
  EXPECT_EQ(seen.load(), &later);
}

}  // namespace
}  // namespace quorvin::test

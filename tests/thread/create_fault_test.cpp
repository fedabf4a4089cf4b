// Thread creation when the POSIX thread cannot be started: pthread_create, replaced in this
// executable (the library is linked statically), fails on demand and otherwise forwards.
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "support/kernel_fixture.h"
#include "thread/thread_internal.h"

namespace {
std::atomic<int> g_failures{0};        // calls still to fail
std::function<void()> g_whileFailing;  // runs inside a failing call
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  if (g_failures.load() <= 0 || g_failures.fetch_sub(1) <= 0) return real(thread, attributes, start, argument);
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
  // A second creation registers behind the failing one and waits; the roll-back moves it down.
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
  EXPECT_EQ(laterStatus, LX_SUCCESS);
  ASSERT_EQ(S_i32ThreadPoolIndex, count + 1);
  EXPECT_EQ(S_paThreadPool[count], later);
  EXPECT_EQ(S_paThreadPool[count + 1], nullptr);
  ASSERT_TRUE(WaitUntil([] { return seen[1].load() != nullptr; }));
  EXPECT_EQ(seen[1].load(), &later);
  ASSERT_EQ(Spawn(&failing, "failing", [] { seen[0] = _lx_ThreadIdentify(); }), LX_SUCCESS);
  EXPECT_EQ(S_paThreadPool[count + 1], failing);
  ASSERT_TRUE(WaitUntil([] { return seen[0].load() != nullptr; }));
  EXPECT_EQ(seen[0].load(), &failing);
}

}  // namespace
}  // namespace quorvin::test

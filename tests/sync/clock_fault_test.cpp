// Timed waits when the realtime clock cannot be read: clock_gettime is
// interposed in this program and fails on CLOCK_REALTIME while asked to.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "support/kernel_fixture.h"

namespace {
std::atomic<bool> g_clockFails{false};
}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept;
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_REALTIME && g_clockFails.load()) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
}

namespace quorvin::test {
namespace {

class ClockFaultTest : public KernelTest {
 protected:
  void TearDown() override { g_clockFails = false; }
};

TEST_F(ClockFaultTest, TimedWaitsFailWithTheirFamilysErrorAndLeaveNothingArmed) {
  LX_SEMAPHORE semaphore = nullptr;
  ASSERT_EQ(_lx_SemaphoreCreate(&semaphore, "s", 0), LX_SUCCESS);
  LX_EVENT_FLAGS group = nullptr;
  ASSERT_EQ(_lx_EventFlagsCreate(&group, "g"), LX_SUCCESS);
  uint32_t actual = 0;
  g_clockFails = true;
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 5), LX_SEMAPHORE_ERROR);
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x1, LX_OR_CLEAR, &actual, 5), LX_GROUP_ERROR);
  g_clockFails = false;
  char* name = nullptr;
  uint32_t flags = 0, waiting = 9;
  LX_THREAD* first = nullptr;
  LX_EVENT_FLAGS* next = nullptr;
  ASSERT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
  EXPECT_EQ(waiting, 0u);                    // withdrawn
  EXPECT_EQ(first, _lx_ThreadIdentify());    // its record stays for the next wait
  ASSERT_EQ(_lx_EventFlagsSet(&group, 0x1, LX_OR), LX_SUCCESS);
  EXPECT_EQ(_lx_EventFlagsInfoGet(&group, &name, &flags, &first, &waiting, &next), LX_SUCCESS);
  EXPECT_EQ(flags, 0x1u);  // nobody took it
  EXPECT_EQ(_lx_EventFlagsGet(&group, 0x2, LX_OR, &actual, 1), LX_NO_EVENTS);  // no stale post either
  EXPECT_EQ(_lx_SemaphoreGet(&semaphore, 1), LX_NO_INSTANCE);
}

}  // namespace
}  // namespace quorvin::test

// The request engine: unknown codes, reply pipes, wake bytes, order.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using quorvin::detail::CmLock;

int PendingWakeBytes() {
  int pending = 0;
  ::ioctl(quorvin::detail::S_i32CmPIPE[0], FIONREAD, &pending);
  return pending;
}

// Lowers the descriptor limit so that no new descriptor can be opened.
void TakeAwayFreeDescriptors() {
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit tight{};
  ::getrlimit(RLIMIT_NOFILE, &tight);
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ::setrlimit(RLIMIT_NOFILE, &tight);
}

using RequestTest = KernelTest;

TEST_F(RequestTest, ReplyPipesAreClosedAndMissingDescriptorsAnswerNotAvailable) {
  Issue(0x90);  // settles any lazily opened descriptor
  const int before = OpenDescriptorCount();
  for (int round = 0; round < 20; ++round)
    for (uint16_t code : {0x0000, 0x0002, 0x000F, 0x0040, 0x004F, 0x0090, 0x00A3, 0x00F0, 0x0100, 0xFFFF}) {
      ASSERT_EQ(Issue(code), LX_NOT_AVAILABLE) << "code " << code;
      ASSERT_EQ(OwnRequest().u16Service, 0) << "code " << code;
    }
  EXPECT_EQ(OpenDescriptorCount(), before);
  EXPECT_EQ(::fcntl(OwnRequest().ai32ReplyPipe[0], F_GETFD), -1);
  EXPECT_EQ(::fcntl(OwnRequest().ai32ReplyPipe[1], F_GETFD), -1);

  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  TakeAwayFreeDescriptors();
  const uint16_t status = Issue(kTestRecord, nullptr, LX_NO_WAIT, 77);
  const uint16_t service = OwnRequest().u16Service;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
  EXPECT_EQ(status, LX_NOT_AVAILABLE);
  EXPECT_EQ(service, 0);
  EXPECT_EQ(OpenDescriptorCount(), before);
  EXPECT_TRUE([] { std::lock_guard lock(CmLock()); return RecordedValues().empty() && !S_psTop; }());
  EXPECT_EQ(Issue(kTestRecord, nullptr, LX_NO_WAIT, 78), LX_SUCCESS);
}

TEST_F(RequestTest, OneWakeByteServesABatchInOrder) {
  CmServiceRequest requests[10] = {};
  std::vector<uint64_t> expected;
  std::vector<quorvin::detail::Enqueued> enqueued;
  {
    std::lock_guard lock(CmLock());  // the dispatcher cannot serve meanwhile
    for (uint64_t i = 0; i < 10; ++i) {
      requests[i].u16Service = kTestRecord;
      requests[i].u64Value = i;
      expected.push_back(i);
      enqueued.push_back(quorvin::detail::EnqueueLocked(requests[i]));
    }
    EXPECT_EQ(quorvin::detail::S_i8CmIdle, 0);
    EXPECT_EQ(S_psTop, &requests[0]);
    EXPECT_EQ(S_psEnd, &requests[9]);
  }
  // Only the first found the dispatcher idle and owes it the one wake byte.
  using enum quorvin::detail::Enqueued;
  EXPECT_EQ(enqueued, (std::vector{kWakeDispatcher, kQueued, kQueued, kQueued, kQueued, kQueued, kQueued, kQueued,
                                   kQueued, kQueued}));
  EXPECT_EQ(PendingWakeBytes(), 0);
  quorvin::detail::WakeDispatcher();
  for (auto& request : requests) quorvin::detail::AwaitCompletion(request);
  std::lock_guard lock(CmLock());
  EXPECT_EQ(RecordedValues(), expected);
  EXPECT_EQ(S_psTop, nullptr);
  EXPECT_EQ(S_psEnd, nullptr);
  EXPECT_EQ(quorvin::detail::S_i8CmIdle, 1);
  EXPECT_EQ(PendingWakeBytes(), 0);
}

TEST_F(RequestTest, ConcurrentRequestersLoseNothing) {
  constexpr int kThreads = 10, kEach = 300;
  Issue(0x90);
  const int descriptors = OpenDescriptorCount();
  LX_THREAD handles[kThreads] = {};
  std::atomic<int> wrong = 0;
  for (uint64_t t = 0; t < kThreads; ++t)
    ASSERT_EQ(Spawn(&handles[t], "requester", [&, t] {
                for (uint64_t i = 0; i < kEach; ++i) {
                  wrong += Issue(kTestRecord, nullptr, LX_NO_WAIT, t << 32 | i) != LX_SUCCESS;
                  wrong += OwnRequest().u16Service != 0;
                }
              }),
              LX_SUCCESS);
  for (LX_THREAD handle : handles) ASSERT_TRUE(Join(handle, std::chrono::milliseconds(30000)));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_EQ(PendingWakeBytes(), 0);
  // Each request served once, each thread's in the order it issued them.
  std::lock_guard lock(CmLock());
  ASSERT_EQ(RecordedValues().size(), static_cast<size_t>(kThreads * kEach));
  std::vector<uint64_t> next(kThreads, 0);
  for (uint64_t tag : RecordedValues()) {
    ASSERT_LT(tag >> 32, next.size());
    EXPECT_EQ(tag & 0xFFFFFFFFu, next[tag >> 32]++);
  }
}

TEST(RequestStartupTest, DispatcherPipeFailureEndsTheProcessWithItsMessage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "exit() inside a death test trips UBSan's vptr check in GoogleTest's teardown";
#endif
  hCM_Error = stderr;
  EXPECT_EXIT((TakeAwayFreeDescriptors(), CM_Initial()), ::testing::ExitedWithCode(0),
              "Create ComponentManagerRequestHandel\\(\\) pipe fail! \n exit\\(\\)");
}

}  // namespace
}  // namespace quorvin::test

// The request engine: dispatch by class, unknown codes, reply pipes, order.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include <atomic>
#include <thread>
#include <vector>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

using RequestTest = KernelTest;

TEST_F(RequestTest, UnknownClassesAndSystemCodesCompleteWithNotAvailable) {
  for (uint16_t code : {0x0000, 0x0002, 0x000F, 0x0040, 0x004F, 0x0090, 0x00A3, 0x00F0, 0x0100, 0xFFFF}) {
    EXPECT_EQ(Issue(static_cast<uint16_t>(code)), LX_NOT_AVAILABLE) << "code " << code;
    EXPECT_EQ(OwnRequest().u16Service, 0) << "code " << code;
  }
}

TEST_F(RequestTest, CompletedRequestLeavesNoDescriptorOpen) {
  Issue(0x90);  // first request settles any lazily opened descriptor
  const int before = OpenDescriptorCount();
  for (int i = 0; i < 200; ++i) Issue(0x90);
  EXPECT_EQ(OpenDescriptorCount(), before);
  const CmServiceRequest& request = OwnRequest();
  EXPECT_EQ(::fcntl(request.ai32ReplyPipe[0], F_GETFD), -1);
  EXPECT_EQ(::fcntl(request.ai32ReplyPipe[1], F_GETFD), -1);
}

// Bytes waiting in the dispatcher's wake pipe.
int PendingWakeBytes() {
  int pending = 0;
  ::ioctl(quorvin::detail::S_i32CmPIPE[0], FIONREAD, &pending);
  return pending;
}

TEST_F(RequestTest, OnePassServesEveryRequestQueuedBeforeItsWakeByteInOrder) {
  constexpr int kRequests = 10;
  CmServiceRequest requests[kRequests] = {};
  {
    // Queue ten requests as CM_Request does, while the dispatcher cannot run.
    std::lock_guard lock(quorvin::detail::CmLock());
    for (int i = 0; i < kRequests; ++i) {
      requests[i].u16Service = kTestRecord;
      requests[i].u64Value = static_cast<uint64_t>(i);
      ASSERT_TRUE(quorvin::detail::EnqueueLocked(requests[i]));
    }
    // The first append wrote the wake byte (the dispatcher may already have
    // read it and be waiting for the lock); the others shared it.
    EXPECT_EQ(quorvin::detail::S_i8CmIdle, 0);
    EXPECT_LE(PendingWakeBytes(), 1);
    EXPECT_EQ(S_psTop, &requests[0]);
    EXPECT_EQ(S_psEnd, &requests[kRequests - 1]);
  }
  for (auto& request : requests) quorvin::detail::AwaitCompletion(request);
  std::vector<uint64_t> expected(kRequests);
  for (int i = 0; i < kRequests; ++i) expected[static_cast<size_t>(i)] = static_cast<uint64_t>(i);
  std::lock_guard lock(quorvin::detail::CmLock());
  EXPECT_EQ(RecordedValues(), expected);
  EXPECT_EQ(S_psTop, nullptr);
  EXPECT_EQ(S_psEnd, nullptr);
  EXPECT_EQ(quorvin::detail::S_i8CmIdle, 1);
  EXPECT_EQ(PendingWakeBytes(), 0);
}

TEST_F(RequestTest, ConcurrentRequestersLoseNoWakeUpAndNoDescriptor) {
  constexpr int kThreads = 10;
  constexpr int kRequestsEach = 300;
  Issue(0x90);
  const int descriptors = OpenDescriptorCount();
  LX_THREAD handles[kThreads] = {};
  std::mutex mutex;
  int finished = 0;
  int wrongStatus = 0;
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(Spawn(&handles[t], "requester", [&, t] {
                int wrong = 0;
                for (int i = 0; i < kRequestsEach; ++i) {
                  const uint64_t tag = static_cast<uint64_t>(t) << 32 | static_cast<uint64_t>(i);
                  if (Issue(kTestRecord, nullptr, LX_NO_WAIT, tag) != LX_SUCCESS) ++wrong;
                  if (OwnRequest().u16Service != 0) ++wrong;
                }
                std::lock_guard lock(mutex);
                wrongStatus += wrong;
                ++finished;
              }),
              LX_SUCCESS);
  }
  // At most one wake byte is ever pending.
  int mostPending = 0;
  ASSERT_TRUE(WaitUntil([&] {
    mostPending = std::max(mostPending, PendingWakeBytes());
    std::lock_guard lock(mutex);
    return finished == kThreads;
  }, std::chrono::milliseconds(30000)));
  for (LX_THREAD handle : handles) ASSERT_TRUE(Join(handle));
  EXPECT_LE(mostPending, 1);
  EXPECT_EQ(wrongStatus, 0);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  // Every request was served once, and each thread's in the order it issued them.
  std::lock_guard lock(quorvin::detail::CmLock());
  ASSERT_EQ(RecordedValues().size(), static_cast<size_t>(kThreads * kRequestsEach));
  std::vector<uint64_t> next(kThreads, 0);
  for (uint64_t tag : RecordedValues()) {
    const auto thread = static_cast<size_t>(tag >> 32);
    ASSERT_LT(thread, next.size());
    EXPECT_EQ(tag & 0xFFFFFFFFu, next[thread]++);
  }
}

TEST_F(RequestTest, WithoutADescriptorForTheReplyTheRequestAnswersAtOnce) {
  Issue(0x90);
  const int descriptors = OpenDescriptorCount();
  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  // Room for no new descriptor at all: every number below the limit is taken.
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit tight = original;
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  const uint16_t status = Issue(kTestRecord, nullptr, LX_NO_WAIT, 77);
  const uint16_t service = OwnRequest().u16Service;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
  EXPECT_EQ(status, LX_NOT_AVAILABLE);
  EXPECT_EQ(service, 0);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  {
    std::lock_guard lock(quorvin::detail::CmLock());
    EXPECT_TRUE(RecordedValues().empty());  // nothing was queued
    EXPECT_EQ(S_psTop, nullptr);
  }
  // With descriptors back, everything works again.
  EXPECT_EQ(Issue(kTestRecord, nullptr, LX_NO_WAIT, 78), LX_SUCCESS);
}

void StartWithoutDescriptors() {
  hCM_Error = stderr;
  // Every descriptor number below the limit is taken: no pipe can be made.
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit tight{};
  ::getrlimit(RLIMIT_NOFILE, &tight);
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ::setrlimit(RLIMIT_NOFILE, &tight);
  CM_Initial();
}

TEST(RequestStartupTest, DispatcherPipeFailureEndsTheProcessWithItsMessage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "under the sanitizers, exit() inside a death test trips UBSan's vptr check in "
                  "GoogleTest's own teardown; the default and arm64 builds run this case";
#endif
  EXPECT_EXIT(StartWithoutDescriptors(), ::testing::ExitedWithCode(0),
              "Create ComponentManagerRequestHandel\\(\\) pipe fail! \n exit\\(\\)");
}

}  // namespace
}  // namespace quorvin::test

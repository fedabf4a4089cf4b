// The platform layer when the platform brings no logging library, the log
// streams and the pid-list file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>
#include <thread>

#include "kernel/deadline.h"
#include "kernel/platform.h"
#include "support/kernel_fixture.h"

namespace quorvin::detail {
namespace {

TEST(PlatformTest, BoundedCopyKeepsAtMostSizeMinusOneCharacters) {
  char name[20] = "untouched";
  EXPECT_EQ(BoundedCopy(name, "ignored", 0), 7u);
  EXPECT_STREQ(name, "untouched");
  EXPECT_EQ(BoundedCopy(name, "abcdefghijklmnopqrstuvwxy", sizeof name), 25u);
  EXPECT_STREQ(name, "abcdefghijklmnopqrs");
  EXPECT_EQ(BoundedCopy(name, nullptr, sizeof name), 0u);
  EXPECT_STREQ(name, "");
}

// A line too long for the fallback's buffer is cut but still ends the line.
TEST(PlatformTest, WithoutThePlatformLogEachDiagnosticIsOneLineOnStandardError) {
  ::testing::internal::CaptureStderr();
  DiagLog(3, 1, "%s: Invalid sempaphore to return! sem %p", "_lx_SemaphoreGet", static_cast<void*>(nullptr));
  DiagLog(2, 1, "Error in %s Line :%d\n", "QueueReceive", 269);
  DiagLog(3, 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "_lx_SemaphoreGet: Invalid sempaphore to return! sem (nil)\n"
            "Error in QueueReceive Line :269\n" + std::string(1022, 'x') + "\n");
}

// The wake and reply bytes: a full non-blocking pipe is waited on, not spun
// on or given up; end of file and a dead descriptor report failure at once.
TEST(PlatformTest, OneByteMovesWaitOnAFullPipeAndFailOnAClosedOrDeadOne) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
  int queued = 0;
  while (::write(ends[1], "f", 1) == 1) ++queued;
  std::thread drainer([&] {
    ::usleep(20000);
    char page[4096];  // a full pipe takes writes again once a page is free
    ASSERT_EQ(::read(ends[0], page, sizeof page), static_cast<ssize_t>(sizeof page));
  });
  EXPECT_TRUE(MoveOneByte(ends[1], true));  // waits until the drainer makes room
  drainer.join();
  for (int i = 4096; i < queued + 1; ++i) ASSERT_TRUE(MoveOneByte(ends[0], false));
  std::thread filler([&] {
    ::usleep(20000);
    ASSERT_EQ(::write(ends[1], "g", 1), 1);
  });
  EXPECT_TRUE(MoveOneByte(ends[0], false));  // empty: waits for the byte
  filler.join();

  ::close(ends[1]);
  EXPECT_FALSE(MoveOneByte(ends[0], false));  // end of file
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[0], false));  // EBADF
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  EXPECT_FALSE(MoveOneByte(ends[1], true));  // EPIPE: nobody reads
  WriteAll(ends[1], "lost", 4);               // returns rather than retries
  ::close(ends[1]);
}

TEST(PlatformTest, KeptBlocksAreListedBeyondTheFirstAllocation) {
  static int blocks[300];
  for (int& block : blocks) KeepBlock(&block);
  for (int i = 299; i >= 0; i -= 2) DropBlock(&blocks[i]);
  DropBlock(&blocks[1]);  // already dropped: nothing happens
  for (int i = 0; i < 300; i += 2) DropBlock(&blocks[i]);
  SUCCEED() << "no crash and no leak report under the sanitizers";
}

}  // namespace
}  // namespace quorvin::detail

namespace quorvin::test {
namespace {

std::string Contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { QUORVIN_REQUIRE_ISOLATION(); }
};

TEST_F(LogTest, InitEmptiesTheFileAndSaveAppendsLinesCutAt1023Characters) {
  const int descriptors = OpenDescriptorCount();
  SaveLogFile(LX_PID_LIST_PATH, "left over from an earlier run\n");
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 0);
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "");
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "worker", 42L);
  SaveLogFile(LX_PID_LIST_PATH, "%s", std::string(1500, 'x').c_str());
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "Name: worker, pid:42\n" + std::string(1023, 'x'));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  hCM_Error = hCM_Warning = hCM_LogFile = stderr;
  RTOS_LogInit();  // points every stream at standard output
  EXPECT_EQ(std::tuple(hCM_Error, hCM_Warning, hCM_LogFile), std::tuple(stdout, stdout, stdout));
}

TEST_F(LogTest, MissingFolderReportsEachFailedOpenAndCarriesOn) {
  ASSERT_EQ(::rmdir("/var/run/velmora"), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 1);
  SaveLogFile(LX_PID_LIST_PATH, "Name: x, pid:1\n");
  const std::string line = std::string(LX_PID_LIST_PATH) + ": No such file or directory\n";
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), line + line);
}

TEST_F(LogTest, DispatcherWritesItsLineWithItsKernelThreadId) {
  BootCore();
  const std::string prefix = "Name: CMRH, pid:";
  std::string tid;
  ASSERT_TRUE(WaitUntil([&] {
    for (const auto& line : PidListLines())
      if (line.starts_with(prefix)) tid = line.substr(prefix.size());
    return !tid.empty();
  }));
  EXPECT_NE(tid, std::to_string(::getpid()));
  // A thread of ours that names itself CMRH (right after writing its line).
  EXPECT_TRUE(WaitUntil([&] { return Contents("/proc/self/task/" + tid + "/comm") == "CMRH\n"; }));
}

}  // namespace
}  // namespace quorvin::test

TEST(PlatformTest, TickDeadlinesCarryOnceIntoTheSeconds) {
  using quorvin::detail::DeadlineAfter;
  auto at = [](time_t s, long ns) { return timespec{s, ns}; };
  auto same = [](timespec a, timespec b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; };
  EXPECT_TRUE(same(DeadlineAfter(at(100, 600'000'000), 50), at(101, 100'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 0), 250), at(102, 500'000'000)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 999'999'999), 99), at(101, 989'999'999)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 100), at(101, 5)));
  EXPECT_TRUE(same(DeadlineAfter(at(100, 5), 0xFFFFFFFEu), at(100 + 42949672, 940'000'005)));
}

TEST(PlatformTest, InterruptedWaitsAreRepeatedOtherFailuresReported) {
  int calls = 0;
  EXPECT_EQ(quorvin::detail::RetryInterrupted([&] {
              errno = EINTR;
              return ++calls < 3 ? -1 : 0;
            }),
            0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(quorvin::detail::RetryInterrupted([] {
              errno = ETIMEDOUT;
              return -1;
            }),
            ETIMEDOUT);
}

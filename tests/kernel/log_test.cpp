// Log streams and the pid-list file.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/kernel_fixture.h"

namespace quorvin::test {
namespace {

std::string Contents(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { QUORVIN_REQUIRE_ISOLATION(); }
};

TEST_F(LogTest, InitEmptiesTheFileAndSaveAppendsFormattedLines) {
  const int descriptors = OpenDescriptorCount();
  SaveLogFile(LX_PID_LIST_PATH, "left over from an earlier run\n");
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 0);
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "");
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "worker", 42L);
  SaveLogFile(LX_PID_LIST_PATH, "Name: %s, pid:%ld\n", "", 7L);
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), "Name: worker, pid:42\nName: , pid:7\n");
  EXPECT_EQ(OpenDescriptorCount(), descriptors);  // nothing stays open
}

TEST_F(LogTest, LinesLongerThan1023CharactersAreCut) {
  InitLogFile(LX_PID_LIST_PATH);
  const std::string longText(1500, 'x');
  SaveLogFile(LX_PID_LIST_PATH, "%s", longText.c_str());
  EXPECT_EQ(Contents(LX_PID_LIST_PATH), std::string(1023, 'x'));
}

TEST_F(LogTest, MissingFolderReportsEachFailedOpenAndCarriesOn) {
  ASSERT_EQ(::rmdir("/var/run/velmora"), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(InitLogFile(LX_PID_LIST_PATH), 1);
  SaveLogFile(LX_PID_LIST_PATH, "Name: x, pid:1\n");
  const std::string errors = ::testing::internal::GetCapturedStderr();
  const std::string line = std::string(LX_PID_LIST_PATH) + ": No such file or directory\n";
  EXPECT_EQ(errors, line + line);
}

TEST_F(LogTest, LogInitPointsTheStreamsAtStandardOutput) {
  hCM_Error = hCM_Warning = hCM_LogFile = stderr;
  RTOS_LogInit();
  EXPECT_EQ(hCM_Error, stdout);
  EXPECT_EQ(hCM_Warning, stdout);
  EXPECT_EQ(hCM_LogFile, stdout);
}

TEST_F(LogTest, DispatcherWritesItsLineWithItsKernelThreadId) {
  BootCore();
  std::string line;
  ASSERT_TRUE(WaitUntil([&] {
    for (const auto& l : PidListLines())
      if (l.rfind("Name: CMRH, pid:", 0) == 0) line = l;
    return !line.empty();
  }));
  const std::string tid = line.substr(std::string("Name: CMRH, pid:").size());
  EXPECT_NE(tid, std::to_string(::getpid()));
  // The id names a thread of this process, and that thread is called CMRH.
  EXPECT_EQ(Contents(("/proc/self/task/" + tid + "/comm").c_str()), "CMRH\n");
}

}  // namespace
}  // namespace quorvin::test

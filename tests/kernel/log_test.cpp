// Log streams and the pid-list file.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/kernel_fixture.h"

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
  EXPECT_EQ(hCM_Error, stdout);
  EXPECT_EQ(hCM_Warning, stdout);
  EXPECT_EQ(hCM_LogFile, stdout);
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

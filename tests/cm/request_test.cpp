// The request engine: dispatch by class, unknown codes, reply pipes, order.
#include <fcntl.h>
#include <unistd.h>

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

}  // namespace
}  // namespace quorvin::test

// Every test program's main: enters the private namespaces (not when only listing the cases) and runs
// the cases GoogleTest was asked for.
#include <gtest/gtest.h>

#include <cstring>

#include "support/isolation.h"

int main(int argc, char** argv) {
  if (argc < 2 || std::strncmp(argv[1], "--gtest_list_tests", 18) != 0) quorvin::test::EnterIsolation();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

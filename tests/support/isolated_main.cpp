// Every test program's main: enters the private namespaces (not when only
// listing the cases) and runs the cases GoogleTest was asked for.
#include <cstring>

#include <gtest/gtest.h>

#include "support/isolation.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i) listing |= std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
  if (!listing) quorvin::test::EnterIsolation();
  ::testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}

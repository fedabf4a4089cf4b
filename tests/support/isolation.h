// Each test process runs in private mount and IPC namespaces, with a tmpfs over the run directory, so
// the fixed pid-list path and the message queues never touch the machine's own.
#pragma once

#include <string>

namespace quorvin::test {
void EnterIsolation();  // must run while the process has a single thread
bool Isolated();
const std::string& IsolationProblem();
}  // namespace quorvin::test

// Skips the current test, with the reason, when isolation was not possible.
#define QUORVIN_REQUIRE_ISOLATION()                                                                  \
  do {                                                                                               \
    if (!::quorvin::test::Isolated())                                                                \
      GTEST_SKIP() << "needs private mount/IPC namespaces: " << ::quorvin::test::IsolationProblem(); \
  } while (0)

// Each test process runs in private mount and IPC namespaces, with a tmpfs over the run directory, so
// the fixed pid-list path and the message queues never touch the machine's own.
#pragma once

#include <string>

namespace quorvin::test {
void EnterIsolation();  // must run while the process has a single thread
bool Isolated();
const std::string& IsolationProblem();  // why not, if not: a test that needs isolation is skipped with it
}  // namespace quorvin::test

// Private mount and IPC namespaces with a tmpfs over the run directory (see
// isolation.h); used by the test programs' main and by the fuzz driver.
#include "support/isolation.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace quorvin::test {
namespace {

bool g_isolated = false;
std::string g_problem = "not attempted";

bool WriteFile(const char* path, const std::string& text) { return static_cast<bool>(std::ofstream(path) << text << std::flush); }

// Enters the namespaces; the text of the first step that failed, or "".
std::string Enter() {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  // As root the mount and IPC namespaces suffice; otherwise a user namespace maps us to root.
  if (::unshare(CLONE_NEWNS | CLONE_NEWIPC | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return "unshare";
  if (uid != 0) {
    WriteFile("/proc/self/setgroups", "deny");
    if (!WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n"))
      return "uid/gid map";
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "make / private";
  char run[PATH_MAX];
  if (::realpath("/var/run", run) == nullptr) std::strcpy(run, "/var/run");
  ::mkdir(run, 0755);
  if (::mount("tmpfs", run, "tmpfs", 0, "mode=0755") != 0) return "tmpfs on the run directory";
  if (::mkdir((std::string(run) + "/velmora").c_str(), 0755) != 0) return "pid-list folder";
  return "";
}

}  // namespace

void EnterIsolation() {
  g_problem = Enter();
  if (!g_problem.empty()) g_problem += std::string(": ") + std::strerror(errno);
  g_isolated = g_problem.empty();
}

bool Isolated() { return g_isolated; }
const std::string& IsolationProblem() { return g_problem; }

}  // namespace quorvin::test

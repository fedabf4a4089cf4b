// Private mount and IPC namespaces with a tmpfs over the run directory (see isolation.h); used by the
// test programs' main and by the fuzz driver.
#include "support/isolation.h"

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

std::string g_problem = "not attempted";
bool Write(const char* path, const std::string& text) {
  return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

// Enters the namespaces; the text of the first step that failed, or "".
std::string Enter() {
  const uid_t uid = ::geteuid(), gid = ::getegid();
  // As root the mount and IPC namespaces suffice; otherwise a user namespace maps us to root.
  if (::unshare(CLONE_NEWNS | CLONE_NEWIPC | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return "unshare";
  if (uid != 0 &&
      (Write("/proc/self/setgroups", "deny"), !Write("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
                                                  !Write("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")))
    return "uid/gid map";
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "make / private";
  char run[PATH_MAX];
  if (::realpath("/var/run", run) == nullptr) std::strcpy(run, "/var/run");
  ::mkdir(run, 0755);
  if (::mount("tmpfs", run, "tmpfs", 0, "mode=0755") != 0) return "tmpfs on the run directory";
  return ::mkdir((std::string(run) + "/velmora").c_str(), 0755) != 0 ? "pid-list folder" : "";
}

}  // namespace

void EnterIsolation() {
  g_problem = Enter();
  if (!g_problem.empty()) g_problem += std::string(": ") + std::strerror(errno);
}
bool Isolated() { return g_problem.empty(); }
const std::string& IsolationProblem() { return g_problem; }

}  // namespace quorvin::test

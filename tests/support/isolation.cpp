// Private mount and IPC namespaces with a tmpfs over the run directory (see isolation.h); used by the
// test programs' main and by the fuzz driver.
#include "support/isolation.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace quorvin::test {

static std::string g_problem = "not attempted";
static bool Write(const char* path, const std::string& text) {
  return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

// Enters the namespaces; the text of the first step that failed, or "".
static std::string Enter() {
  const uid_t uid = ::geteuid(), gid = ::getegid();
  // As root the mount and IPC namespaces suffice; otherwise a user namespace maps us to root.
  if (::unshare(CLONE_NEWNS | CLONE_NEWIPC | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return "unshare";
  if (uid != 0 &&
      (Write("/proc/self/setgroups", "deny"), !Write("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
                                                  !Write("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")))
    return "uid/gid map";
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "make / private";
  ::mkdir("/var/run", 0755);  // where it is missing; a link to /run is followed by the mount
  if (::mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0) return "tmpfs on the run directory";
  return ::mkdir("/var/run/velmora", 0755) != 0 ? "pid-list folder" : "";
}

void EnterIsolation() {
  g_problem = Enter();
  if (!g_problem.empty()) g_problem += std::string(": ") + std::strerror(errno);
}
bool Isolated() { return g_problem.empty(); }
const std::string& IsolationProblem() { return g_problem; }

}  // namespace quorvin::test

// Private mount and IPC namespaces with a tmpfs over the run directory (see
// isolation.h); used by the test programs' main and by the fuzz driver.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/isolation.h"

namespace quorvin::test {
namespace {

bool g_isolated = false;
std::string g_problem = "not attempted";

bool WriteFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

std::string Failure(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

void EnterIsolation() {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (uid == 0) {
    if (::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) {
      g_problem = Failure("unshare(mount, ipc)");
      return;
    }
  } else {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) != 0) {
      g_problem = Failure("unshare(user, mount, ipc)");
      return;
    }
    WriteFile("/proc/self/setgroups", "deny");
    if (!WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")) {
      g_problem = Failure("uid/gid map");
      return;
    }
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    g_problem = Failure("make / private");
    return;
  }
  char runDirectory[PATH_MAX];
  if (::realpath("/var/run", runDirectory) == nullptr) std::strcpy(runDirectory, "/var/run");
  ::mkdir(runDirectory, 0755);
  if (::mount("tmpfs", runDirectory, "tmpfs", 0, "mode=0755") != 0) {
    g_problem = Failure("tmpfs on the run directory");
    return;
  }
  if (::mkdir((std::string(runDirectory) + "/velmora").c_str(), 0755) != 0) {
    g_problem = Failure("pid-list folder");
    return;
  }
  g_isolated = true;
  g_problem.clear();
}

bool Isolated() { return g_isolated; }
const std::string& IsolationProblem() { return g_problem; }

}  // namespace quorvin::test


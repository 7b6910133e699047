#include "netns_scope.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sorvalen::test {
namespace {

constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

// A thread that cannot go back would send from, or read the resolver file of,
// a test's namespace later on.  A thread made inside a mount scope (a
// sanitizer's helper) may share this thread's file-system context, and only a
// context of its own can change mount namespace.
void go_back(int previous, int type, int cwd = -1) {
  if ((type == CLONE_NEWNS && unshare(CLONE_FS) != 0) || setns(previous, type) != 0 ||
      (cwd >= 0 && fchdir(cwd) != 0))
    std::abort();
}

// The scope's descriptors stay open: the test fails anyway.
[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

NetnsScope::NetnsScope(const std::string& netns_name) {
  previous_ = ::open(kOwnNamespace, O_RDONLY | O_CLOEXEC);
  const int target = ::open(("/run/netns/" + netns_name).c_str(), O_RDONLY | O_CLOEXEC);
  if (previous_ < 0 || target < 0 || setns(target, CLONE_NEWNET) != 0)
    fail("cannot enter namespace " + netns_name);
  ::close(target);
}

NetnsScope::~NetnsScope() {
  go_back(previous_, CLONE_NEWNET);
  ::close(previous_);
}

unsigned long current_netns_id() {
  struct stat st {};
  return ::stat(kOwnNamespace, &st) == 0 ? static_cast<unsigned long>(st.st_ino) : 0;
}

ResolverScope::ResolverScope(const std::string& resolver_file)
    : previous_(::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC)),
      cwd_(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  // unshare also gives this thread a file-system context of its own; the
  // mounts after it never reach the machine's namespace.
  if (previous_ < 0 || cwd_ < 0 || unshare(CLONE_NEWNS) != 0)
    fail("cannot make a mount namespace");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0 ||
      mount(resolver_file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
    go_back(previous_, CLONE_NEWNS, cwd_);
    fail("cannot mount " + resolver_file + " over /etc/resolv.conf");
  }
}

ResolverScope::~ResolverScope() {
  go_back(previous_, CLONE_NEWNS, cwd_);
  ::close(previous_);
  ::close(cwd_);
}

}  // namespace sorvalen::test

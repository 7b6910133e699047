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

int open_namespace(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  return fd;
}

}  // namespace

NetnsScope::NetnsScope(const std::string& netns_name) {
  if (netns_name.empty() || netns_name.find('/') != std::string::npos)
    throw std::invalid_argument("bad namespace name '" + netns_name + "'");
  previous_ = open_namespace(kOwnNamespace);
  const int target = open_namespace("/run/netns/" + netns_name);
  const int rc = setns(target, CLONE_NEWNET);
  const int error = errno;
  ::close(target);
  if (rc != 0) {
    ::close(previous_);
    throw std::runtime_error("cannot enter namespace " + netns_name + ": " + std::strerror(error));
  }
}

NetnsScope::~NetnsScope() {
  // A thread left in a test namespace would send from there later on.
  if (setns(previous_, CLONE_NEWNET) != 0)
    std::abort();
  ::close(previous_);
}

unsigned long current_netns_id() {
  struct stat st {};
  return ::stat(kOwnNamespace, &st) == 0 ? static_cast<unsigned long>(st.st_ino) : 0;
}

ResolverScope::ResolverScope(const std::string& resolver_file) {
  previous_ = ::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC);
  cwd_ = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // unshare also gives this thread a file-system context of its own; the
  // mounts after it never reach the machine's namespace.
  std::string failed;
  if (previous_ < 0 || cwd_ < 0) {
    failed = "cannot open the mount namespace or working directory: " + std::string(std::strerror(errno));
  } else if (unshare(CLONE_NEWNS) != 0) {
    failed = "cannot make a mount namespace: " + std::string(std::strerror(errno));
  } else if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0 ||
             mount(resolver_file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
    failed = "cannot mount " + resolver_file + " over /etc/resolv.conf: " + std::strerror(errno);
    Leave();
  }
  if (!failed.empty()) {
    ::close(previous_);
    ::close(cwd_);
    throw std::runtime_error(failed);
  }
}

ResolverScope::~ResolverScope() {
  Leave();
  ::close(previous_);
  ::close(cwd_);
}

void ResolverScope::Leave() {
  // A thread that cannot go back would read the wrong resolver file later on.
  // A thread made inside the scope (a sanitizer's helper) may share this
  // thread's file-system context, and only a context of its own can change
  // mount namespace.
  if (unshare(CLONE_FS) != 0 || setns(previous_, CLONE_NEWNS) != 0 || fchdir(cwd_) != 0)
    std::abort();
}

}  // namespace sorvalen::test

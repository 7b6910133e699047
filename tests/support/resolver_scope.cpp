#include "resolver_scope.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sorvalen::test {
namespace {

int open_or_throw(const char* path, int flags) {
  const int fd = ::open(path, flags | O_CLOEXEC);
  if (fd < 0)
    throw std::runtime_error(std::string("cannot open ") + path + ": " + std::strerror(errno));
  return fd;
}

}  // namespace

ResolverScope::ResolverScope(const std::string& resolver_file) {
  previous_ = open_or_throw("/proc/thread-self/ns/mnt", O_RDONLY);
  try {
    cwd_ = open_or_throw(".", O_RDONLY | O_DIRECTORY);
  } catch (...) {
    ::close(previous_);
    throw;
  }
  // Also gives this thread a file-system context of its own.
  if (unshare(CLONE_NEWNS) != 0) {
    const int error = errno;
    ::close(previous_);
    ::close(cwd_);
    throw std::runtime_error(std::string("cannot make a mount namespace: ") + std::strerror(error));
  }
  // From here on, mounts in this namespace never reach the machine's.
  std::string failed;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
    failed = "cannot detach the mount namespace";
  } else if (mount(resolver_file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
    failed = "cannot mount " + resolver_file + " over /etc/resolv.conf";
  }
  if (!failed.empty()) {
    failed += std::string(": ") + std::strerror(errno);
    Leave();
    throw std::runtime_error(failed);
  }
}

ResolverScope::~ResolverScope() {
  Leave();
}

void ResolverScope::Leave() {
  // As in NetnsScope: a thread that cannot go back would read the wrong
  // resolver file later on; better to stop the test program at once.
  // Threads created inside the scope share this thread's file-system context
  // (a sanitizer's helper thread may live on), and a thread can only change
  // mount namespace with a context of its own.
  if (unshare(CLONE_FS) != 0 || setns(previous_, CLONE_NEWNS) != 0 || fchdir(cwd_) != 0)
    std::abort();
  ::close(previous_);
  ::close(cwd_);
}

}  // namespace sorvalen::test

#include "netns_scope.h"

#include <fcntl.h>
#include <sched.h>
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
  // A thread left in a test namespace would send from there later on; better
  // to stop the test program at once.
  if (setns(previous_, CLONE_NEWNET) != 0)
    std::abort();
  ::close(previous_);
}

unsigned long current_netns_id() {
  struct stat st {};
  if (::stat(kOwnNamespace, &st) != 0)
    return 0;
  return static_cast<unsigned long>(st.st_ino);
}

}  // namespace sorvalen::test

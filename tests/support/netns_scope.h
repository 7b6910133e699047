#pragma once

#include <string>

namespace sorvalen::test {

// Moves the CALLING THREAD into a named network namespace (one under
// /run/netns, e.g. VirtualLan::netns("querier")) and back on destruction.
// Sockets opened and threads created inside the scope stay in the namespace
// for good, so create the mDNS core, a search or a lookup inside it.
class NetnsScope {
 public:
  explicit NetnsScope(const std::string& netns_name);  // throws std::runtime_error
  ~NetnsScope();
  NetnsScope(const NetnsScope&) = delete;
  NetnsScope& operator=(const NetnsScope&) = delete;

 private:
  int previous_ = -1;
};

// Shows `resolver_file` as /etc/resolv.conf to the CALLING THREAD, as `ip
// netns exec` does for the program it starts, and to the threads it creates
// inside the scope (end them first); the machine's file never changes.
class ResolverScope {
 public:
  explicit ResolverScope(const std::string& resolver_file);  // throws std::runtime_error
  ~ResolverScope();
  ResolverScope(const ResolverScope&) = delete;
  ResolverScope& operator=(const ResolverScope&) = delete;

 private:
  int previous_ = -1;  // the thread's mount namespace before
  int cwd_ = -1;       // and its working directory, which a change of mount namespace resets
};

// The inode of the calling thread's network namespace; tells namespaces apart.
unsigned long current_netns_id();

}  // namespace sorvalen::test

#pragma once

#include <string>

namespace sorvalen::test {

// Moves the CALLING THREAD into a named network namespace (one under
// /run/netns, e.g. VirtualLan::netns("querier")) and back on destruction; the
// rest of the process stays where it was.  Sockets opened and threads created
// inside the scope belong to the namespace for good, so create the mDNS core,
// a search or a lookup inside it.
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
// netns exec` does for the program it starts: the thread gets a mount
// namespace of its own with the file bind-mounted there, and goes back on
// destruction; the machine's /etc/resolv.conf never changes.  Threads created
// inside the scope share the view, so create the mDNS core or a search inside
// it and end them before it ends.
class ResolverScope {
 public:
  explicit ResolverScope(const std::string& resolver_file);  // throws std::runtime_error
  ~ResolverScope();

  ResolverScope(const ResolverScope&) = delete;
  ResolverScope& operator=(const ResolverScope&) = delete;

 private:
  void Leave();

  int previous_ = -1;  // the thread's mount namespace before
  int cwd_ = -1;       // and its working directory, which a change of mount namespace resets
};

// The inode of the calling thread's network namespace; tells namespaces apart.
unsigned long current_netns_id();

}  // namespace sorvalen::test

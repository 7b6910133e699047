#pragma once

#include <string>

namespace sorvalen::test {

// Moves the CALLING THREAD into a named network namespace (one under
// /run/netns, e.g. VirtualLan::netns("querier")) and moves it back on
// destruction.  Only this thread changes namespace; the rest of the process
// stays where it was.  Sockets opened and threads created while the scope is
// alive belong to the namespace for good, so create the mDNS core, a search or
// a lookup (which open their sockets and start their threads) inside the
// scope.  A socket keeps its namespace after the scope ends.
class NetnsScope {
 public:
  explicit NetnsScope(const std::string& netns_name);  // throws std::runtime_error
  ~NetnsScope();

  NetnsScope(const NetnsScope&) = delete;
  NetnsScope& operator=(const NetnsScope&) = delete;

 private:
  int previous_ = -1;
};

// The inode of the calling thread's network namespace; tells namespaces apart.
unsigned long current_netns_id();

}  // namespace sorvalen::test

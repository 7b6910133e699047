#pragma once

#include <string>

namespace sorvalen::test {

// Shows `resolver_file` as /etc/resolv.conf to the CALLING THREAD, as `ip
// netns exec` does for the program it starts (entering a network namespace by
// setns, as NetnsScope does, leaves /etc/resolv.conf as it is): the thread gets
// a mount namespace of its own with the file bind-mounted there, and goes back
// on destruction.  The machine's /etc/resolv.conf is never changed: the mount
// exists only in that namespace, and no mount event goes back to the machine's.
//
// Threads created inside the scope share the view and keep it, so create the
// mDNS core or a search (which read the file at Init and at interface refresh)
// inside the scope, and end them before it ends.
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

}  // namespace sorvalen::test

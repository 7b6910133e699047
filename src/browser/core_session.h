// The browser's own mDNS core and the one descriptor that tells when it has
// work: an epoll set of the core's sockets, an eventfd that other threads
// write to wake it, and a timerfd armed to the next scheduled work.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mdns/mdns.h"

namespace sorvalen::browser {

class CoreSession {
 public:
  CoreSession();
  ~CoreSession();
  CoreSession(const CoreSession&) = delete;
  CoreSession& operator=(const CoreSession&) = delete;

  bool Open(std::string* error);
  void Close();
  bool open() const { return open_; }
  mDNS* core() { return core_.get(); }
  const mDNS* core() const { return core_.get(); }

  // Any thread.  The epoll descriptor (-1 when closed), and a wakeup.
  int descriptor() const { return epoll_fd_; }
  void Wake() const;

  // Takes the wakeups; requests queued after this wake the descriptor again.
  void TakeWakeups() const;
  // Reads what arrived on the ready sockets and runs the core's scheduled work.
  void Process();
  // Watches the core's current sockets and arms the timer to the earlier of
  // the core's next work and `other_due_ms` (monotonic ms; negative: none).
  void Rearm(int64_t other_due_ms);

 private:
  void Drain(int fd) const;
  void WatchSockets(const fd_set& sockets, int nfds);
  void ArmTimer(int64_t delay_ms);

  std::unique_ptr<mDNS> core_;
  std::unique_ptr<mDNS_PlatformSupport> platform_;
  std::unique_ptr<CacheEntity[]> cache_;
  bool open_ = false;
  int epoll_fd_ = -1;
  int wake_fd_ = -1;
  int timer_fd_ = -1;
  std::vector<int> watched_;
};

// Milliseconds of the monotonic clock.
int64_t monotonic_ms();

}  // namespace sorvalen::browser

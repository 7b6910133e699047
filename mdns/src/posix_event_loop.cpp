// The descriptor-set integration: the caller's loop selects on the core's
// sockets and hands the ready set back.
#include <sys/select.h>

#include "engine.h"
#include "interfaces_posix.h"
#include "platform.h"
#include "sockets_posix.h"

namespace {

// So that a flood on the network cannot keep the loop from its timers.
constexpr int kMaxDatagramsPerSocket = 64;

void add_socket(int fd, int* nfds, fd_set* readfds) {
  if (fd < 0 || fd >= FD_SETSIZE) {
    return;
  }
  FD_SET(fd, readfds);
  if (*nfds < fd + 1) {
    *nfds = fd + 1;
  }
}

bool socket_ready(int fd, const fd_set* readfds) {
  return fd >= 0 && fd < FD_SETSIZE && readfds != nullptr && FD_ISSET(fd, readfds);
}

void count_platform_drop(mDNS* m) {
  ++m->counters.packets_received;
  ++m->counters.packets_dropped;
}

void drain_socket(mDNS* m, int fd, int32_t now) {
  for (int i = 0; i < kMaxDatagramsPerSocket; ++i) {
    mdns::Datagram datagram;
    if (mdns::receive_datagram(fd, m->rxbuf, sizeof m->rxbuf, datagram) == mdns::ReadStatus::kEmpty) {
      return;
    }
    const mDNSInterfaceID interface_id = mdns::platform_interface_id(datagram.ifindex);
    // Only interfaces the core uses: the reuse of the port also brings traffic
    // that arrived elsewhere.
    if (datagram.truncated || datagram.source.type == mDNSAddrType_None ||
        mdns::platform_interface(m, interface_id) == nullptr) {
      count_platform_drop(m);
      continue;
    }
    mdns::engine_receive(m, m->rxbuf, datagram.length, datagram.source, datagram.source_port, interface_id,
                         now);
    if (m->p == nullptr || !m->p->open) {
      return;  // a callback shut the core down
    }
  }
}

void shorten_timeout(struct timeval* timeout, int32_t wait_ms) {
  if (timeout == nullptr) {
    return;
  }
  if (wait_ms < 0) {
    wait_ms = 0;
  }
  const long long current_ms =
      static_cast<long long>(timeout->tv_sec) * 1000 + static_cast<long long>(timeout->tv_usec) / 1000;
  if (wait_ms < current_ms || timeout->tv_sec < 0) {
    timeout->tv_sec = wait_ms / 1000;
    timeout->tv_usec = static_cast<suseconds_t>((wait_ms % 1000) * 1000);
  }
}

}  // namespace

extern "C" {

MDNS_API void mDNSPosixGetFDSet(mDNS* m, int* nfds, fd_set* readfds, struct timeval* timeout) {
  if (m == nullptr || m->p == nullptr || !m->p->open) {
    return;
  }
  if (nfds != nullptr && readfds != nullptr) {
    add_socket(m->p->sock_v4, nfds, readfds);
    add_socket(m->p->sock_v6, nfds, readfds);
  }
  shorten_timeout(timeout, mdns::engine_time_to_next_event(m, mdns::engine_now(m)));
}

MDNS_API void mDNSPosixProcessFDSet(mDNS* const m, fd_set* readfds) {
  if (m == nullptr || m->p == nullptr || !m->p->open) {
    return;
  }
  const int32_t now = mdns::engine_now(m);
  if (socket_ready(m->p->sock_v4, readfds)) {
    drain_socket(m, m->p->sock_v4, now);
  }
  if (m->p != nullptr && socket_ready(m->p->sock_v6, readfds)) {
    drain_socket(m, m->p->sock_v6, now);
  }
  if (m->p != nullptr && m->p->open) {
    mdns::engine_run_scheduled(m, now);
  }
}

MDNS_API mStatus mDNSPlatformPosixRefreshInterfaceList(mDNS* const m) {
  if (m == nullptr || !m->Initialized) {
    return mStatus_NotInitializedErr;
  }
  return mdns::platform_refresh_interfaces(m);
}

}  // extern "C"

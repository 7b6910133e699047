// The descriptor-set integration: the caller's loop selects on the core's
// sockets and hands the ready set back.
#include <sys/select.h>

#include <initializer_list>

#include "ask/dns_asker.h"
#include "engine/engine.h"
#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "platform/platform_state.h"
#include "platform/sockets_posix.h"

namespace mdns {
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
  CoreState& core = core_of(m);
  core.counters.packets_received++;
  core.counters.packets_dropped++;
}

void drain_socket(mDNS* m, int fd, Transport transport) {
  CoreState& core = core_of(m);
  for (int i = 0; i < kMaxDatagramsPerSocket && core.initialized; ++i) {
    Datagram datagram;
    if (receive_datagram(fd, core.rxbuf, sizeof core.rxbuf, datagram) == ReadStatus::kEmpty) {
      return;
    }
    // Only interfaces the core uses: the reuse of the port also brings traffic
    // that arrived elsewhere.
    const mDNSInterfaceID interface_id = platform_interface_of_index(m, datagram.ifindex);
    if (datagram.truncated || datagram.source.type == mDNSAddrType_None ||
        interface_id == mDNSInterface_Any) {
      count_platform_drop(m);
      continue;
    }
    const Arrival arrival{datagram.source, datagram.source_port, interface_id, transport, datagram.ttl};
    engine_receive(m, core.rxbuf, datagram.length, arrival);
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

bool usable(mDNS* m) {
  return m != nullptr && core_of(m).initialized && platform_of(m).open;
}

}  // namespace
}  // namespace mdns

using namespace mdns;

extern "C" {

MDNS_API void mDNSPosixGetFDSet(mDNS* m, int* nfds, fd_set* readfds, struct timeval* timeout) {
  if (!usable(m)) {
    return;
  }
  if (nfds != nullptr && readfds != nullptr) {
    const PlatformState& p = platform_of(m);
    for (int fd : {p.sock_v4, p.sock_v6, p.one_shot_v4, p.one_shot_v6, p.netlink}) {
      add_socket(fd, nfds, readfds);
    }
    dns_asker_add_sockets(m, nfds, readfds);
  }
  shorten_timeout(timeout, engine_time_to_next_event(m, engine_now(m)));
}

MDNS_API void mDNSPosixProcessFDSet(mDNS* const m, fd_set* readfds) {
  if (!usable(m)) {
    return;
  }
  engine_begin_pass(m);
  PlatformState& p = platform_of(m);
  // Interfaces first, so that what arrives is judged against the links as they are now.
  if (socket_ready(p.netlink, readfds) && drain_netlink(p.netlink)) {
    (void)engine_refresh_interfaces(m);
  }
  const struct {
    int fd;
    Transport transport;
  } sockets[] = {{p.sock_v4, Transport::kMulticast},
                 {p.sock_v6, Transport::kMulticast},
                 {p.one_shot_v4, Transport::kOneShot},
                 {p.one_shot_v6, Transport::kOneShot}};
  for (const auto& s : sockets) {
    if (usable(m) && socket_ready(s.fd, readfds)) {
      drain_socket(m, s.fd, s.transport);
    }
  }
  if (usable(m)) {
    dns_asker_read_sockets(m, readfds);
  }
  if (usable(m)) {
    engine_run_scheduled(m);
  }
}

MDNS_API mStatus mDNSPlatformPosixRefreshInterfaceList(mDNS* const m) {
  if (m == nullptr || !core_of(m).initialized) {
    return mStatus_NotInitializedErr;
  }
  (void)engine_clock(m);
  dns_asker_reset(m);
  return engine_refresh_interfaces(m);
}

}  // extern "C"

// The POSIX host: the sockets, the kernel's interfaces, /etc/resolv.conf, the
// monotonic clock and the kernel's randomness.
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "platform/platform_state.h"
#include "platform/resolv_conf.h"
#include "platform/sockets_posix.h"

namespace mdns {

namespace {

int group_socket(const PlatformState& p, int family) {
  return family == mDNSAddrType_IPv4 ? p.sock_v4 : p.sock_v6;
}

bool open_sockets(mDNS* m) {
  PlatformState& p = platform_of(m);
  p.sock_v4 = open_mdns_socket(mDNSAddrType_IPv4);
  p.sock_v6 = open_mdns_socket(mDNSAddrType_IPv6);
  p.one_shot_v4 = open_one_shot_socket(mDNSAddrType_IPv4);
  p.one_shot_v6 = open_one_shot_socket(mDNSAddrType_IPv6);
  // Without netlink the core still works; interface changes then wait for a refresh.
  p.netlink = open_netlink_socket();
  // A host without IPv6 (or without IPv4) still works on the other family.
  return p.sock_v4 >= 0 || p.sock_v6 >= 0;
}

void close_sockets(mDNS* m) {
  PlatformState& p = platform_of(m);
  close_socket(p.sock_v4);
  close_socket(p.sock_v6);
  close_socket(p.one_shot_v4);
  close_socket(p.one_shot_v6);
  close_socket(p.netlink);
}

bool read_interfaces(mDNS*, InterfaceSnapshot& snapshot) {
  if (!read_host_interfaces(snapshot)) {
    return false;
  }
  mark_usable(snapshot);
  return true;
}

bool join(mDNS* m, uint32_t ifindex, int family) {
  return join_group(group_socket(platform_of(m), family), family, ifindex);
}

void leave(mDNS* m, uint32_t ifindex, int family) {
  leave_group(group_socket(platform_of(m), family), family, ifindex);
}

bool send_multicast(mDNS* m, Transport transport, const InterfaceRecord& interface, int family,
                    const uint8_t* message, size_t length) {
  const PlatformState& p = platform_of(m);
  const bool one_shot = transport == Transport::kOneShot;
  const int fd = family == mDNSAddrType_IPv4 ? (one_shot ? p.one_shot_v4 : p.sock_v4)
                                             : (one_shot ? p.one_shot_v6 : p.sock_v6);
  return send_to_group(fd, family, interface.ifindex, message, length);
}

bool send_to_device(mDNS* m, const InterfaceRecord& interface, const mDNSAddr& to, const uint8_t* message,
                    size_t length) {
  const PlatformState& p = platform_of(m);
  return send_to_host(to.type == mDNSAddrType_IPv4 ? p.one_shot_v4 : p.one_shot_v6, interface.ifindex, to,
                      message, length);
}

int open_dns(mDNS*, const NameServer& server, bool tcp) {
  return open_dns_socket(server.address, server.port, server.scope, tcp);
}

void close_dns(mDNS*, int fd) {
  close_socket(fd);
}

long dns_send(mDNS*, int fd, const uint8_t* data, size_t length) {
  const ssize_t n = send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (n < 0) {
    return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
  }
  return n;
}

DnsReceived dns_receive(mDNS*, int fd, uint8_t* buffer, size_t capacity) {
  DnsReceived out{};
  Datagram datagram;
  switch (receive_on_dns_socket(fd, buffer, capacity, datagram)) {
    case ReadStatus::kGot:
      // 0 from a stream: the server closed it.
      out.length = datagram.length == 0 && capacity > 0 ? -1 : static_cast<long>(datagram.length);
      out.source = datagram.source;
      out.port = static_cast<uint16_t>(datagram.source_port.b[0] << 8 | datagram.source_port.b[1]);
      out.truncated = datagram.truncated;
      break;
    case ReadStatus::kEmpty:
      out.length = 0;
      break;
    case ReadStatus::kFailed:
      out.length = -1;
      break;
  }
  return out;
}

bool dns_readable(mDNS*, int fd, const fd_set* readfds) {
  return readfds != nullptr && fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, readfds);
}

int dns_connected(mDNS*, int fd) {
  return connect_result(fd);
}

int read_name_servers(mDNS*, NameServer* servers, int capacity) {
  return read_resolv_conf("/etc/resolv.conf", servers, capacity);
}

}  // namespace

const PlatformOps kPosixPlatformOps = {
    open_sockets,   close_sockets, read_interfaces,   join,          leave,
    send_multicast, open_dns,      close_dns,         dns_send,      dns_receive,
    dns_readable,   dns_connected, read_name_servers, send_to_device};

int32_t platform_now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  // Wraps: callers compare differences only.
  return static_cast<int32_t>(static_cast<uint32_t>(ms));
}

uint32_t platform_random_seed() {
  uint32_t seed = 0;
  if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof seed)) {
    return seed;
  }
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(ts.tv_nsec) ^ (static_cast<uint32_t>(ts.tv_sec) << 11) ^
         (static_cast<uint32_t>(getpid()) << 16);
}

uint16_t platform_random_id() {
  uint16_t id = 0;
  if (getrandom(&id, sizeof id, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof id)) {
    return id;
  }
  return static_cast<uint16_t>(platform_random_seed());
}

}  // namespace mdns

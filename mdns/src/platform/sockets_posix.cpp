#include "platform/sockets_posix.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "wire/constants.h"

namespace mdns {

namespace {

constexpr int kTtl = 255;
constexpr const char* kGroupV4 = "224.0.0.251";
constexpr const char* kGroupV6 = "ff02::fb";

bool set_int_option(int fd, int level, int name, int value) {
  return setsockopt(fd, level, name, &value, sizeof value) == 0;
}

bool make_non_blocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Every read also gives the arrival interface and the TTL (hop limit): an
// IPv4 link-local source counts as on the link only with TTL 255.
bool configure_v4(int fd, uint16_t port) {
  if (!set_int_option(fd, IPPROTO_IP, IP_PKTINFO, 1) || !set_int_option(fd, IPPROTO_IP, IP_RECVTTL, 1) ||
      !set_int_option(fd, IPPROTO_IP, IP_MULTICAST_TTL, kTtl) ||
      !set_int_option(fd, IPPROTO_IP, IP_TTL, kTtl)) {
    return false;
  }
  set_int_option(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 1);
#ifdef IP_MULTICAST_ALL
  // Only the groups this socket joined, on the interfaces it joined them on.
  set_int_option(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
#endif
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

bool configure_v6(int fd, uint16_t port) {
  if (!set_int_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1) ||
      !set_int_option(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1) ||
      !set_int_option(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1) ||
      !set_int_option(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, kTtl) ||
      !set_int_option(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, kTtl)) {
    return false;
  }
  set_int_option(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1);
#ifdef IPV6_MULTICAST_ALL
  set_int_option(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
#endif
  sockaddr_in6 local{};
  local.sin6_family = AF_INET6;
  local.sin6_port = htons(port);
  local.sin6_addr = in6addr_any;
  return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

ip_mreqn group_request_v4(uint32_t ifindex) {
  ip_mreqn request{};
  inet_pton(AF_INET, kGroupV4, &request.imr_multiaddr);
  request.imr_ifindex = static_cast<int>(ifindex);
  return request;
}

ipv6_mreq group_request_v6(uint32_t ifindex) {
  ipv6_mreq request{};
  inet_pton(AF_INET6, kGroupV6, &request.ipv6mr_multiaddr);
  request.ipv6mr_interface = ifindex;
  return request;
}

uint8_t ttl_of(const cmsghdr* c) {
  int value = 0;
  std::memcpy(&value, CMSG_DATA(c), sizeof value);
  return value > 0 && value <= 255 ? static_cast<uint8_t>(value) : 0;
}

// The arrival interface and the TTL or hop limit, from the control messages.
void read_control(msghdr& header, Datagram& out) {
  for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO &&
        c->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
      in_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      out.ifindex = static_cast<uint32_t>(info.ipi_ifindex);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO &&
               c->cmsg_len >= CMSG_LEN(sizeof(in6_pktinfo))) {
      in6_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      out.ifindex = info.ipi6_ifindex;
    } else if (((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) ||
                (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT)) &&
               c->cmsg_len >= CMSG_LEN(sizeof(int))) {
      out.ttl = ttl_of(c);
    }
  }
}

void read_source(const sockaddr_storage& from, socklen_t from_length, Datagram& out) {
  if (from.ss_family == AF_INET && from_length >= sizeof(sockaddr_in)) {
    const auto* sin = reinterpret_cast<const sockaddr_in*>(&from);
    out.source.type = mDNSAddrType_IPv4;
    std::memcpy(out.source.ip.v4.b, &sin->sin_addr, 4);
    std::memcpy(out.source_port.b, &sin->sin_port, 2);
  } else if (from.ss_family == AF_INET6 && from_length >= sizeof(sockaddr_in6)) {
    const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(&from);
    out.source.type = mDNSAddrType_IPv6;
    std::memcpy(out.source.ip.v6.b, &sin6->sin6_addr, 16);
    std::memcpy(out.source_port.b, &sin6->sin6_port, 2);
  }
}

}  // namespace

int open_mdns_socket(int family) {
  const int domain = family == mDNSAddrType_IPv4 ? AF_INET : AF_INET6;
  int fd = socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd < 0) {
    return -1;
  }
  // Reuse lets the core share the port with a system mDNS daemon.
  const bool ok = set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1) &&
                  set_int_option(fd, SOL_SOCKET, SO_REUSEPORT, 1) && make_non_blocking(fd) &&
                  (family == mDNSAddrType_IPv4 ? configure_v4(fd, kMdnsPort) : configure_v6(fd, kMdnsPort));
  if (!ok) {
    close_socket(fd);
    return -1;
  }
  return fd;
}

int open_one_shot_socket(int family) {
  const int domain = family == mDNSAddrType_IPv4 ? AF_INET : AF_INET6;
  int fd = socket(domain, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP);
  if (fd < 0) {
    return -1;
  }
  if (!(family == mDNSAddrType_IPv4 ? configure_v4(fd, 0) : configure_v6(fd, 0))) {
    close_socket(fd);
    return -1;
  }
  return fd;
}

int open_dns_socket(const mDNSAddr& server, uint16_t port, uint32_t scope, bool tcp) {
  sockaddr_storage to{};
  socklen_t to_length = 0;
  if (server.type == mDNSAddrType_IPv4) {
    auto* sin = reinterpret_cast<sockaddr_in*>(&to);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(port);
    std::memcpy(&sin->sin_addr, server.ip.v4.b, 4);
    to_length = sizeof(sockaddr_in);
  } else if (server.type == mDNSAddrType_IPv6) {
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(&to);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(port);
    std::memcpy(&sin6->sin6_addr, server.ip.v6.b, 16);
    sin6->sin6_scope_id = scope;
    to_length = sizeof(sockaddr_in6);
  } else {
    return -1;
  }
  int fd = socket(to.ss_family, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    return -1;
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&to), to_length) != 0 && errno != EINPROGRESS) {
    close_socket(fd);
    return -1;
  }
  return fd;
}

int connect_result(int fd) {
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || (error != 0 && error != EINPROGRESS)) {
    return -1;
  }
  if (error == EINPROGRESS) {
    return 0;
  }
  sockaddr_storage peer{};
  socklen_t peer_length = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_length) == 0 ? 1 : 0;
}

int open_netlink_socket() {
  int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) {
    return -1;
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    close_socket(fd);
    return -1;
  }
  return fd;
}

bool drain_netlink(int fd) {
  // The messages only say that something changed; the interfaces are read anew.
  uint8_t buffer[4096];
  bool any = false;
  for (int i = 0; i < 64; ++i) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0) {
      // An overrun lost messages: something changed all the same.
      any = any || errno == ENOBUFS;
      if (errno != ENOBUFS) {
        break;
      }
      continue;
    }
    any = true;
  }
  return any;
}

void close_socket(int& fd) {
  if (fd >= 0) {
    close(fd);
  }
  fd = -1;
}

bool join_group(int fd, int family, uint32_t ifindex) {
  if (fd < 0) {
    return false;
  }
  int result;
  if (family == mDNSAddrType_IPv4) {
    const ip_mreqn request = group_request_v4(ifindex);
    result = setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
  } else {
    const ipv6_mreq request = group_request_v6(ifindex);
    result = setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request);
  }
  // Already a member (a refresh after a failed leave) is as good as joined.
  return result == 0 || errno == EADDRINUSE;
}

void leave_group(int fd, int family, uint32_t ifindex) {
  if (fd < 0) {
    return;
  }
  if (family == mDNSAddrType_IPv4) {
    const ip_mreqn request = group_request_v4(ifindex);
    setsockopt(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request);
  } else {
    const ipv6_mreq request = group_request_v6(ifindex);
    setsockopt(fd, IPPROTO_IPV6, IPV6_LEAVE_GROUP, &request, sizeof request);
  }
}

bool send_to_group(int fd, int family, uint32_t ifindex, const uint8_t* message, size_t length) {
  if (fd < 0) {
    return false;
  }
  ssize_t sent;
  if (family == mDNSAddrType_IPv4) {
    ip_mreqn out_if{};
    out_if.imr_ifindex = static_cast<int>(ifindex);
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out_if, sizeof out_if) != 0) {
      return false;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kMdnsPort);
    inet_pton(AF_INET, kGroupV4, &to.sin_addr);
    sent = sendto(fd, message, length, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  } else {
    const int index = static_cast<int>(ifindex);
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0) {
      return false;
    }
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(kMdnsPort);
    to.sin6_scope_id = ifindex;
    inet_pton(AF_INET6, kGroupV6, &to.sin6_addr);
    sent = sendto(fd, message, length, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  return sent == static_cast<ssize_t>(length);
}

namespace {

// The one control message that names the interface to send out of.
template <typename Info>
void set_send_interface(msghdr& msg, uint8_t* control, int level, int type, const Info& info) {
  msg.msg_control = control;
  msg.msg_controllen = CMSG_SPACE(sizeof(Info));
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = level;
  c->cmsg_type = type;
  c->cmsg_len = CMSG_LEN(sizeof(Info));
  std::memcpy(CMSG_DATA(c), &info, sizeof info);
}

}  // namespace

// Out of the given interface whatever the routes say: a device's address may
// be link-local, and the probe must reach it on the link it was heard on.
bool send_to_host(int fd, uint32_t ifindex, const mDNSAddr& to, const uint8_t* message, size_t length) {
  if (fd < 0) {
    return false;
  }
  iovec data{const_cast<uint8_t*>(message), length};
  msghdr msg{};
  msg.msg_iov = &data;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (to.type == mDNSAddrType_IPv4) {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(kMdnsPort);
    std::memcpy(&v4.sin_addr, to.ip.v4.b, 4);
    msg.msg_name = &v4;
    msg.msg_namelen = sizeof v4;
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(ifindex);
    set_send_interface(msg, control, IPPROTO_IP, IP_PKTINFO, info);
  } else if (to.type == mDNSAddrType_IPv6) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(kMdnsPort);
    v6.sin6_scope_id = IN6_IS_ADDR_LINKLOCAL(reinterpret_cast<const in6_addr*>(to.ip.v6.b)) ? ifindex : 0;
    std::memcpy(&v6.sin6_addr, to.ip.v6.b, 16);
    msg.msg_name = &v6;
    msg.msg_namelen = sizeof v6;
    in6_pktinfo info{};
    info.ipi6_ifindex = ifindex;
    set_send_interface(msg, control, IPPROTO_IPV6, IPV6_PKTINFO, info);
  } else {
    return false;
  }
  return sendmsg(fd, &msg, MSG_DONTWAIT) == static_cast<ssize_t>(length);
}

namespace {

// One recvmsg without blocking: the byte count, or -1 with errno set.
ssize_t read_message(int fd, uint8_t* buffer, size_t capacity, Datagram& out) {
  out = Datagram{};
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  sockaddr_storage from{};
  iovec io{buffer, capacity};
  alignas(cmsghdr) uint8_t control[256];
  msghdr header{};
  header.msg_name = &from;
  header.msg_namelen = sizeof from;
  header.msg_iov = &io;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  ssize_t received;
  do {
    received = recvmsg(fd, &header, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    return -1;
  }
  out.length = static_cast<size_t>(received);
  out.truncated = (header.msg_flags & MSG_TRUNC) != 0;
  read_source(from, header.msg_namelen, out);
  read_control(header, out);
  return received;
}

}  // namespace

ReadStatus receive_datagram(int fd, uint8_t* buffer, size_t capacity, Datagram& out) {
  return read_message(fd, buffer, capacity, out) < 0 ? ReadStatus::kEmpty : ReadStatus::kGot;
}

ReadStatus receive_on_dns_socket(int fd, uint8_t* buffer, size_t capacity, Datagram& out) {
  if (read_message(fd, buffer, capacity, out) >= 0) {
    return ReadStatus::kGot;
  }
  return errno == EAGAIN || errno == EWOULDBLOCK ? ReadStatus::kEmpty : ReadStatus::kFailed;
}

}  // namespace mdns

// The POSIX platform: sockets, interfaces, clock and randomness for the engine.
#include <net/if.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "engine/engine.h"
#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "platform/platform_state.h"
#include "platform/sockets_posix.h"

namespace mdns {

namespace {

class SocketMembership : public Membership {
 public:
  explicit SocketMembership(PlatformState& p) : p_(p) {}
  bool join(uint32_t ifindex, int family) override { return join_group(socket_for(family), family, ifindex); }
  void leave(uint32_t ifindex, int family) override { leave_group(socket_for(family), family, ifindex); }

 private:
  int socket_for(int family) const { return family == mDNSAddrType_IPv4 ? p_.sock_v4 : p_.sock_v6; }
  PlatformState& p_;
};

class SyntheticMembership : public Membership {
 public:
  bool join(uint32_t, int) override { return true; }
  void leave(uint32_t, int) override {}
};

// Reads the interfaces and brings the live table in line.  The engine hears of
// each vanished interface after the table no longer lists it.
mStatus update_interfaces(mDNS* m, bool tell_engine) {
  PlatformState& p = platform_of(m);
  InterfaceChanges changes;
  if (p.test_mode) {
    InterfaceSnapshot snapshot;
    if (p.test_interfaces != nullptr) {
      snapshot = *p.test_interfaces;
    }
    SyntheticMembership membership;
    reconcile_interfaces(p.interfaces, snapshot, membership, &m->HostInterfaces, changes);
  } else {
    InterfaceSnapshot snapshot;
    if (!read_host_interfaces(snapshot)) {
      return mStatus_UnknownErr;
    }
    mark_usable(snapshot);
    SocketMembership membership(p);
    reconcile_interfaces(p.interfaces, snapshot, membership, &m->HostInterfaces, changes);
  }
  if (tell_engine) {
    for (size_t i = 0; i < changes.removed_count; ++i) {
      engine_interface_removed(m, changes.removed[i]);
    }
    for (size_t i = 0; i < changes.added_count; ++i) {
      engine_interface_added(m, changes.added[i]);
    }
  }
  return mStatus_NoError;
}

void close_all(PlatformState& p) {
  close_socket(p.sock_v4);
  close_socket(p.sock_v6);
  close_socket(p.one_shot_v4);
  close_socket(p.one_shot_v6);
  close_socket(p.netlink);
}

bool open_sockets(PlatformState& p) {
  p.sock_v4 = open_mdns_socket(mDNSAddrType_IPv4);
  p.sock_v6 = open_mdns_socket(mDNSAddrType_IPv6);
  p.one_shot_v4 = open_one_shot_socket(mDNSAddrType_IPv4);
  p.one_shot_v6 = open_one_shot_socket(mDNSAddrType_IPv6);
  // Without netlink the core still works; interface changes then wait for a refresh.
  p.netlink = open_netlink_socket();
  // A host without IPv6 (or without IPv4) still works on the other family.
  return p.sock_v4 >= 0 || p.sock_v6 >= 0;
}

bool parse_name_server(const char* line, NameServer& out) {
  char keyword[16];
  char address[64];
  if (std::sscanf(line, " %15s %63s", keyword, address) != 2 || std::strcmp(keyword, "nameserver") != 0) {
    return false;
  }
  out = NameServer{};
  out.port = kDnsPort;
  char* zone = std::strchr(address, '%');  // a link-local IPv6 server names its interface
  if (zone != nullptr) {
    *zone = '\0';
    out.scope = if_nametoindex(zone + 1);
  }
  out.address = address_from_text(address);
  return out.address.type != mDNSAddrType_None;
}

// Test mode: what would have been sent goes to the test.
void hand_to_hook(const PlatformState& p, SentMessage& sent, const uint8_t* data, size_t length) {
  if (p.send_hook != nullptr) {
    sent.data = data;
    sent.length = length;
    p.send_hook(p.send_context, sent);
  }
}

}  // namespace

PlatformState& platform_of(mDNS* m) {
  return *reinterpret_cast<PlatformState*>(core_of(m).platform->Private.storage);
}

mStatus platform_init(mDNS* m) {
  PlatformState& p = platform_of(m);
  p.sock_v4 = p.sock_v6 = p.one_shot_v4 = p.one_shot_v6 = p.netlink = -1;
  for (auto& slot : p.interfaces) {
    slot = InterfaceRecord{};
  }
  m->HostInterfaces = nullptr;
  if (!p.test_mode && !open_sockets(p)) {
    close_all(p);
    return mStatus_UnknownErr;
  }
  const mStatus status = update_interfaces(m, false);
  if (status != mStatus_NoError) {
    close_all(p);
    return status;
  }
  p.open = true;
  return mStatus_NoError;
}

void platform_close(mDNS* m) {
  PlatformState& p = platform_of(m);
  if (p.test_mode) {
    SyntheticMembership membership;
    clear_interfaces(p.interfaces, membership, &m->HostInterfaces);
  } else {
    SocketMembership membership(p);
    clear_interfaces(p.interfaces, membership, &m->HostInterfaces);
    close_all(p);
  }
  p.open = false;
}

mStatus platform_refresh_interfaces(mDNS* m) {
  if (!platform_of(m).open) {
    return mStatus_NotInitializedErr;
  }
  return update_interfaces(m, true);
}

const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id) {
  const InterfaceRecord* record = find_interface(platform_of(const_cast<mDNS*>(m)).interfaces, interface_id);
  return record != nullptr ? &record->info : nullptr;
}

bool platform_interface_usable(const mDNS* m, mDNSInterfaceID interface_id, int family) {
  const InterfaceRecord* record = find_interface(platform_of(const_cast<mDNS*>(m)).interfaces, interface_id);
  return record != nullptr && (family == mDNSAddrType_IPv4 ? record->v4usable : record->v6usable);
}

bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source) {
  const InterfaceRecord* record = find_interface(platform_of(const_cast<mDNS*>(m)).interfaces, interface_id);
  return record != nullptr && interface_source_on_link(*record, source);
}

mDNSInterfaceID platform_interface_id_of(const mDNS* m, const char* ifname) {
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    if (std::strncmp(i->ifname, ifname, sizeof i->ifname) == 0) {
      return i->InterfaceID;
    }
  }
  return mDNSInterface_Any;
}

mDNSInterfaceID platform_interface_of_index(mDNS* m, uint32_t ifindex) {
  for (size_t i = 0; i < mDNS_MaxInterfaces; ++i) {
    const InterfaceRecord& record = platform_of(m).interfaces[i];
    if (record.present && record.ifindex == ifindex) {
      return record.info.InterfaceID;
    }
  }
  return mDNSInterface_Any;
}

bool platform_send_multicast(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                             const uint8_t* message, size_t length) {
  PlatformState& p = platform_of(m);
  const InterfaceRecord* record = find_interface(p.interfaces, interface_id);
  if (record == nullptr || !(family == mDNSAddrType_IPv4 ? record->v4usable : record->v6usable)) {
    return false;
  }
  if (p.test_mode) {
    SentMessage sent{};
    sent.transport = transport;
    sent.interface_id = interface_id;
    sent.family = family;
    sent.port = kMdnsPort;
    hand_to_hook(p, sent, message, length);
    return true;
  }
  const bool one_shot = transport == Transport::kOneShot;
  const int fd = family == mDNSAddrType_IPv4 ? (one_shot ? p.one_shot_v4 : p.sock_v4)
                                             : (one_shot ? p.one_shot_v6 : p.sock_v6);
  return send_to_group(fd, family, record->ifindex, message, length);
}

namespace {

int open_test_socket(PlatformState& p, const NameServer& server, bool tcp) {
  const uint32_t n = p.next_test_socket++ % kTestSockets;
  p.test_sockets[n] = TestSocket{server.address, server.port, tcp};
  return kTestSocketBase + static_cast<int>(n);
}

}  // namespace

int platform_open_dns_udp(mDNS* m, const NameServer& server) {
  PlatformState& p = platform_of(m);
  return p.test_mode ? open_test_socket(p, server, false)
                     : open_dns_socket(server.address, server.port, server.scope, false);
}

int platform_open_dns_tcp(mDNS* m, const NameServer& server) {
  PlatformState& p = platform_of(m);
  return p.test_mode ? open_test_socket(p, server, true)
                     : open_dns_socket(server.address, server.port, server.scope, true);
}

bool platform_test_socket(mDNS* m, int socket, mDNSAddr& server, uint16_t& port, bool& tcp) {
  PlatformState& p = platform_of(m);
  if (!p.test_mode || socket < kTestSocketBase || socket >= kTestSocketBase + kTestSockets) {
    return false;
  }
  const TestSocket& s = p.test_sockets[socket - kTestSocketBase];
  server = s.server;
  port = s.port;
  tcp = s.tcp;
  return true;
}

void platform_close_dns(mDNS* m, int fd) {
  if (!platform_of(m).test_mode) {
    close_socket(fd);
  }
}

long platform_dns_send(mDNS* m, int fd, const uint8_t* data, size_t length) {
  PlatformState& p = platform_of(m);
  if (p.test_mode) {
    mDNSAddr server{};
    uint16_t port = 0;
    bool tcp = false;
    if (platform_test_socket(m, fd, server, port, tcp)) {
      SentMessage sent{};
      sent.transport = tcp ? Transport::kUnicastTcp : Transport::kUnicastDns;
      sent.destination = server;
      sent.port = port;
      sent.socket = fd;
      hand_to_hook(p, sent, data, length);
    }
    return static_cast<long>(length);
  }
  const ssize_t n = send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (n < 0) {
    return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
  }
  return n;
}

long platform_dns_receive(mDNS* m, int fd, uint8_t* buffer, size_t capacity) {
  if (platform_of(m).test_mode) {
    return 0;
  }
  const ssize_t n = recv(fd, buffer, capacity, MSG_DONTWAIT);
  if (n < 0) {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
  }
  return n == 0 && capacity > 0 ? -1 : n;  // 0 from a stream: the server closed it
}

int platform_dns_connected(mDNS* m, int fd) {
  return platform_of(m).test_mode ? 1 : connect_result(fd);
}

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

int platform_read_name_servers(mDNS* m, NameServer* servers, int capacity) {
  PlatformState& p = platform_of(m);
  if (p.test_mode) {
    const int n = p.test_server_count < capacity ? p.test_server_count : capacity;
    for (int i = 0; i < n; ++i) {
      servers[i] = p.test_name_servers[i];
    }
    return n;
  }
  FILE* file = std::fopen("/etc/resolv.conf", "re");
  if (file == nullptr) {
    return 0;
  }
  int n = 0;
  char line[512];
  while (n < capacity && std::fgets(line, sizeof line, file) != nullptr) {
    n += parse_name_server(line, servers[n]) ? 1 : 0;
  }
  std::fclose(file);
  return n;
}

void platform_use_test_mode(mDNS_PlatformSupport* p, const InterfaceSnapshot* interfaces) {
  PlatformState& state = *reinterpret_cast<PlatformState*>(p->Private.storage);
  state.test_mode = true;
  state.test_interfaces = interfaces;
}

void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context) {
  PlatformState& state = *reinterpret_cast<PlatformState*>(p->Private.storage);
  state.send_hook = hook;
  state.send_context = context;
}

void platform_test_set_name_servers(mDNS_PlatformSupport* p, const mDNSAddr* servers, const uint16_t* ports,
                                    int count) {
  PlatformState& state = *reinterpret_cast<PlatformState*>(p->Private.storage);
  state.test_server_count = count < kMaxNameServers ? count : kMaxNameServers;
  for (int i = 0; i < state.test_server_count; ++i) {
    state.test_name_servers[i] = NameServer{servers[i], ports[i], 0};
  }
}

}  // namespace mdns

// The platform's state, kept in mDNS_PlatformSupport's Private storage, and
// the table of host operations the platform functions go through.
#pragma once

#include <sys/select.h>

#include <cstddef>
#include <cstdint>

#include "platform/interfaces_posix.h"
#include "platform/pass_state.h"
#include "platform/platform.h"

namespace mdns {

// What the platform asks of the host.  The POSIX operations are the default;
// tests choose the test platform's (platform/test_platform.h) before mDNS_Init.
struct PlatformOps {
  // Opens the sockets; false when the core cannot work without those that failed.
  bool (*open)(mDNS* m);
  // Closes them (also after a failed open).
  void (*close)(mDNS* m);
  // The host's interfaces, with their usability marked; false when they cannot be read.
  bool (*read_interfaces)(mDNS* m, InterfaceSnapshot& snapshot);
  bool (*join)(mDNS* m, uint32_t ifindex, int family);
  void (*leave)(mDNS* m, uint32_t ifindex, int family);
  // Out of a usable interface and family, as platform_send_multicast says.
  bool (*send_multicast)(mDNS* m, Transport transport, const InterfaceRecord& interface, int family,
                         const uint8_t* message, size_t length);
  // The unicast DNS sockets, as the platform_*dns* functions say.
  int (*open_dns)(mDNS* m, const NameServer& server, bool tcp);
  void (*close_dns)(mDNS* m, int fd);
  long (*dns_send)(mDNS* m, int fd, const uint8_t* data, size_t length);
  DnsReceived (*dns_receive)(mDNS* m, int fd, uint8_t* buffer, size_t capacity);
  bool (*dns_readable)(mDNS* m, int fd, const fd_set* readfds);
  int (*dns_connected)(mDNS* m, int fd);
  int (*read_name_servers)(mDNS* m, NameServer* servers, int capacity);
  // From the one-shot socket of the address's family to one host, as platform_send_to_host says.
  bool (*send_to_host)(mDNS* m, const InterfaceRecord& interface, const mDNSAddr& to, const uint8_t* message,
                       size_t length);
};

extern const PlatformOps kPosixPlatformOps;

// Bytes the chosen operations may keep for themselves (the test platform's state).
constexpr size_t kPlatformOpsStorage = 4096;

struct PlatformState {
  const PlatformOps* ops;  // null: the POSIX operations
  bool open;
  int sock_v4;  // port 5353
  int sock_v6;
  int one_shot_v4;  // ephemeral ports
  int one_shot_v6;
  int netlink;                                     // interface changes; -1 without
  InterfaceRecord interfaces[mDNS_MaxInterfaces];  // the live table; HostInterfaces links into it
  alignas(alignof(mDNS_PlatformSupport)) uint8_t ops_storage[kPlatformOpsStorage];
};
static_assert(sizeof(PlatformState) <= mDNS_PlatformPrivateSize, "platform state outgrew its storage");
static_assert(alignof(PlatformState) <= alignof(mDNS_PlatformSupport), "platform storage too weakly aligned");

PlatformState& platform_of(mDNS* m);
// The state in storage not yet handed to mDNS_Init.
PlatformState& platform_of(mDNS_PlatformSupport* p);

// The interface ID of an arrival interface's index, or null when the core does not use it.
mDNSInterfaceID platform_interface_of_index(mDNS* m, uint32_t ifindex);

}  // namespace mdns

// The POSIX platform's state, kept in mDNS_PlatformSupport's Private storage.
#pragma once

#include "engine/core_state.h"
#include "platform/interfaces_posix.h"
#include "platform/platform.h"

namespace mdns {

// Test mode's stand-ins for unicast DNS sockets: numbers no real descriptor
// set holds.
constexpr int kTestSocketBase = 1 << 20;
constexpr int kTestSockets = 64;

struct TestSocket {
  mDNSAddr server;
  uint16_t port;
  bool tcp;
};

struct PlatformState {
  bool test_mode;
  bool open;
  int sock_v4;  // port 5353
  int sock_v6;
  int one_shot_v4;  // ephemeral ports
  int one_shot_v6;
  int netlink;                                     // interface changes; -1 without
  InterfaceRecord interfaces[mDNS_MaxInterfaces];  // the live table; HostInterfaces links into it

  // Test mode.
  const InterfaceSnapshot* test_interfaces;
  SendHook send_hook;
  void* send_context;
  NameServer test_name_servers[kMaxNameServers];
  int test_server_count;
  uint32_t next_test_socket;
  TestSocket test_sockets[kTestSockets];
};
static_assert(sizeof(PlatformState) <= mDNS_PlatformPrivateSize, "platform state outgrew its storage");

PlatformState& platform_of(mDNS* m);

// The interface ID of an arrival interface's index, or null when the core does not use it.
mDNSInterfaceID platform_interface_of_index(mDNS* m, uint32_t ifindex);

}  // namespace mdns
